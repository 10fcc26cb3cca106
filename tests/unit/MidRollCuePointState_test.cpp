#include "Kavelin/Model/MidRollCuePointState.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "Kavelin/log/VPLogger.h"
#include "support/VirtualPlatform.h"

namespace kavelin {
namespace {

using ::testing::ElementsAre;
using Bucket = MidRollAdConfig::DurationBucket;
using Override = MidRollAdConfig::VideoOverride;

using kavelin::testing::LogCapture;

MidRollAdConfig config(std::vector<Bucket> buckets,
                       std::optional<std::map<std::string, Override>> overrides = std::nullopt,
                       double gap = 30, double start = 10, double end = 10) {
    MidRollAdConfig c = MidRollAdConfig::empty();
    c.globalConstraints.minGapSeconds = gap;
    c.globalConstraints.noAdZoneStartSeconds = start;
    c.globalConstraints.noAdZoneEndSeconds = end;
    c.durationBuckets = std::move(buckets);
    c.videoOverrides = std::move(overrides);
    return c;
}

std::vector<double> timestamps(const MidRollCuePointState& s) {
    std::vector<double> out;
    for (const auto& cue : s.cuePoints) out.push_back(cue.timestamp);
    return out;
}

// A plan of exactly these points, unfiltered (gap 0, no zones).
MidRollCuePointState planned(std::vector<double> seconds) {
    MidRollCuePointState s;
    LogCapture quiet;
    s.computeCuePoints(1e6, "v",
                       config({}, std::map<std::string, Override>{{"v", {seconds, {}}}}, 0, 0, 0));
    return s;
}

// MARK: - Bucket path

TEST(CuePointPlanning, BucketBoundsAreLowerInclusiveUpperExclusive) {
    auto c = config({{0, 120, 1, {0.5}}, {120, 300, 1, {0.25}}});
    MidRollCuePointState s;
    LogCapture log;
    s.computeCuePoints(120.0, "v", c);
    EXPECT_THAT(timestamps(s), ElementsAre(30.0));
    s.computeCuePoints(300.0, "v", c);
    EXPECT_TRUE(s.cuePoints.empty());
    s.computeCuePoints(119.6, std::nullopt, c);
    EXPECT_THAT(timestamps(s), ElementsAre(59.8));
    EXPECT_THAT(log.messages(),
                ElementsAre(R"(🎯 Mid-roll: 1 cue points for 120s video: ["30.0"])",
                            "🎯 Mid-roll: no matching bucket for duration 300s",
                            R"(🎯 Mid-roll: 1 cue points for 120s video: ["59.8"])"));
}

TEST(CuePointPlanning, OverlappingBucketsTheEarlierWins) {
    MidRollCuePointState s;
    LogCapture log;
    s.computeCuePoints(150, "v", config({{0, 200, 1, {0.5}}, {100, 300, 1, {0.25}}}));
    EXPECT_THAT(timestamps(s), ElementsAre(75.0));
    s.computeCuePoints(250, "v", config({{0, 200, 1, {0.5}}, {100, 300, 1, {0.25}}}));
    EXPECT_THAT(timestamps(s), ElementsAre(62.5));
}

TEST(CuePointPlanning, BreakCountIsCutBeforeFilteringInPreferenceOrder) {
    MidRollCuePointState s;
    LogCapture log;
    s.computeCuePoints(200, "v", config({{0, 1000, 2, {0.9, 0.1, 0.5}}}));
    EXPECT_THAT(timestamps(s), ElementsAre(20.0, 180.0));
    // 0.04 falls in the opening zone; 0.5 is not promoted to replace it.
    s.computeCuePoints(200, "v", config({{0, 1000, 2, {0.04, 0.9, 0.5}}}));
    EXPECT_THAT(timestamps(s), ElementsAre(180.0));
    // More breaks than placements uses them all.
    s.computeCuePoints(200, "v", config({{0, 1000, 9, {0.5, 0.2}}}));
    EXPECT_THAT(timestamps(s), ElementsAre(40.0, 100.0));
    EXPECT_EQ(log.messages()[0], R"(🎯 Mid-roll: 2 cue points for 200s video: ["20.0", "180.0"])");
    EXPECT_EQ(log.messages()[1], R"(🎯 Mid-roll: 1 cue points for 200s video: ["180.0"])");
    EXPECT_EQ(log.levelOf(log.messages()[1]), "LOG");
    for (const auto& cue : s.cuePoints) EXPECT_FALSE(cue.consumed);
}

TEST(CuePointPlanning, SafetyFilterZonesAndGap) {
    MidRollCuePointState s;
    LogCapture log;
    // 60 is within 30 s of 50.
    s.computeCuePoints(100, "v", config({{0, 1000, 2, {0.5, 0.6}}}));
    EXPECT_THAT(timestamps(s), ElementsAre(50.0));
    // Both zone edges are allowed.
    s.computeCuePoints(100, "v", config({{0, 1000, 2, {0.1, 0.9}}}));
    EXPECT_THAT(timestamps(s), ElementsAre(10.0, 90.0));
    // Just outside either edge is not.
    s.computeCuePoints(100, "v", config({{0, 1000, 2, {0.0999, 0.9001}}}));
    EXPECT_TRUE(s.cuePoints.empty());
    // Exactly one gap apart is kept.
    s.computeCuePoints(100, "v", config({{0, 1000, 2, {0.5, 0.2}}}));
    EXPECT_THAT(timestamps(s), ElementsAre(20.0, 50.0));
    EXPECT_EQ(log.messages()[2], "🎯 Mid-roll: 0 cue points for 100s video: []");
}

TEST(CuePointPlanning, GapIsMeasuredToTheLastKeptPoint) {
    MidRollCuePointState s;
    LogCapture log;
    auto c = config({}, std::map<std::string, Override>{{"v", {{55, 40, 20, 85, 85}, {}}}});
    s.computeCuePoints(1000, "v", c);
    // 40 is too close to 20; 55 is 35 after 20 (only 15 after the dropped 40).
    EXPECT_THAT(timestamps(s), ElementsAre(20.0, 55.0, 85.0));

    // With no gap, equal points survive side by side.
    s.computeCuePoints(1000, "v", config({}, c.videoOverrides, 0));
    EXPECT_THAT(timestamps(s), ElementsAre(20.0, 40.0, 55.0, 85.0, 85.0));
}

TEST(CuePointPlanning, FractionsOutsideTheVideoAndNegativeSecondsAreDropped) {
    MidRollCuePointState s;
    LogCapture log;
    s.computeCuePoints(100, "v", config({{0, 1000, 3, {1.2, -0.1, 0.5}}}));
    EXPECT_THAT(timestamps(s), ElementsAre(50.0));
    s.computeCuePoints(-5, "v", config({{-100, 0, 1, {0.5}}}));
    EXPECT_TRUE(s.cuePoints.empty());
    s.computeCuePoints(100, "v",
                       config({}, std::map<std::string, Override>{{"v", {{-20, 95}, {}}}}));
    EXPECT_TRUE(s.cuePoints.empty());
    // With the zones themselves negative, a negative point is legal.
    s.computeCuePoints(100, "v",
                       config({}, std::map<std::string, Override>{{"v", {{-20}, {}}}}, 30, -30, 0));
    EXPECT_THAT(timestamps(s), ElementsAre(-20.0));
    EXPECT_EQ(log.messages()[1], "🎯 Mid-roll: 0 cue points for -5s video: []");
    EXPECT_EQ(log.messages()[3], "🎯 Mid-roll: 1 cue points (video override) for v: [-20.0]");
}

TEST(CuePointPlanning, BucketsWithoutBreaks) {
    MidRollCuePointState s;
    LogCapture log;
    s.computeCuePoints(200, "v", config({{0, 1000, 0, {0.5}}}));
    s.computeCuePoints(200, "v", config({{0, 1000, -3, {0.5}}}));
    s.computeCuePoints(200.4, "v", config({{0, 1000, 2, {}}}));
    EXPECT_TRUE(s.cuePoints.empty());
    EXPECT_THAT(log.messages(), ElementsAre("🎯 Mid-roll: bucket has 0 breaks for duration 200s",
                                            "🎯 Mid-roll: bucket has 0 breaks for duration 200s",
                                            "🎯 Mid-roll: bucket has 0 breaks for duration 200s"));
}

TEST(CuePointPlanning, DurationThatIsNotANumberMatchesNoBucket) {
    MidRollCuePointState s;
    LogCapture log;
    double inf = std::numeric_limits<double>::infinity();
    s.computeCuePoints(std::nan(""), "v", config({{-inf, inf, 1, {0.5}}}));
    EXPECT_TRUE(s.cuePoints.empty());
    EXPECT_THAT(log.messages(), ElementsAre("🎯 Mid-roll: no matching bucket for duration nans"));
}

TEST(CuePointPlanning, EmptyConfigurationPlansNothing) {
    MidRollCuePointState s;
    LogCapture log;
    s.computeCuePoints(600, "v", MidRollAdConfig::empty());
    EXPECT_FALSE(s.hasCuePoints());
    EXPECT_THAT(log.messages(), ElementsAre("🎯 Mid-roll: no matching bucket for duration 600s"));
}

// MARK: - Override path

TEST(CuePointPlanning, OverrideUsesAbsoluteSecondsAndSkipsBuckets) {
    std::map<std::string, Override> overrides{{"video-42", {{210.5, 95.0, 400}, {}}},
                                              {"capped", {{300, 95.0}, 1}},
                                              {"generous", {{95.0}, 5}},
                                              {"none", {{}, {}}}};
    auto c = config({{0, 10000, 1, {0.5}}}, overrides);
    MidRollCuePointState s;
    LogCapture log;
    s.computeCuePoints(600, "video-42", c);
    EXPECT_THAT(timestamps(s), ElementsAre(95.0, 210.5, 400.0));
    s.computeCuePoints(600, "capped", c);
    EXPECT_THAT(timestamps(s), ElementsAre(300.0));
    s.computeCuePoints(600, "generous", c);
    EXPECT_THAT(timestamps(s), ElementsAre(95.0));
    s.computeCuePoints(600, "none", c);
    EXPECT_TRUE(s.cuePoints.empty());
    EXPECT_THAT(
        log.messages(),
        ElementsAre("🎯 Mid-roll: 3 cue points (video override) for video-42: [95.0, 210.5, 400.0]",
                    "🎯 Mid-roll: 1 cue points (video override) for capped: [300.0]",
                    "🎯 Mid-roll: 1 cue points (video override) for generous: [95.0]",
                    "🎯 Mid-roll: 0 cue points (video override) for none: []"));
}

TEST(CuePointPlanning, OverrideNeedsAnExactIdMatch) {
    auto c =
        config({{0, 10000, 1, {0.5}}}, std::map<std::string, Override>{{"video-42", {{95.0}, {}}}});
    MidRollCuePointState s;
    LogCapture log;
    s.computeCuePoints(600, "VIDEO-42", c);
    EXPECT_THAT(timestamps(s), ElementsAre(300.0));
    s.computeCuePoints(600, std::nullopt, c);
    EXPECT_THAT(timestamps(s), ElementsAre(300.0));
    EXPECT_EQ(log.messages()[0], R"(🎯 Mid-roll: 1 cue points for 600s video: ["300.0"])");
}

TEST(CuePointPlanning, ReplanningReArmsAndLeavesAdStateAlone) {
    MidRollCuePointState s;
    LogCapture log;
    auto c = config({{0, 1000, 2, {0.25, 0.75}}});
    s.computeCuePoints(200, "v", c);
    s.markConsumed(50);
    s.isShowingAd = true;
    s.seekTargetAfterAd = 42;
    s.computeCuePoints(200, "v", c);
    ASSERT_EQ(s.cuePoints.size(), 2u);
    EXPECT_FALSE(s.cuePoints[0].consumed);
    EXPECT_TRUE(s.isShowingAd);
    EXPECT_EQ(s.seekTargetAfterAd, 42.0);
    // A plan that fails still clears the old one.
    s.computeCuePoints(5000, "v", c);
    EXPECT_FALSE(s.hasCuePoints());
}

// MARK: - Playback queries

TEST(CuePointQueries, DueCheckReturnsTheEarliestUnconsumedPastPoint) {
    auto s = planned({60, 150});
    EXPECT_EQ(s.cuePointToTrigger(59.9), std::nullopt);
    EXPECT_EQ(s.cuePointToTrigger(60.0), 60.0);
    EXPECT_EQ(s.cuePointToTrigger(400), 60.0);  // late player: earliest missed first
    EXPECT_FALSE(s.cuePoints[0].consumed);      // asking changes nothing
    s.markConsumed(60);
    EXPECT_EQ(s.cuePointToTrigger(149), std::nullopt);
    EXPECT_EQ(s.cuePointToTrigger(400), 150.0);
}

TEST(CuePointQueries, ForwardSeekCostsOneBreakTheLatest) {
    auto s = planned({60, 150, 250});
    EXPECT_EQ(s.handleSeek(10, 200), 150.0);
    EXPECT_TRUE(s.cuePoints[0].consumed);
    EXPECT_FALSE(s.cuePoints[1].consumed);
    EXPECT_FALSE(s.cuePoints[2].consumed);
    // The start position is excluded, the target included.
    EXPECT_EQ(s.handleSeek(150, 200), std::nullopt);
    EXPECT_EQ(s.handleSeek(200, 250), 250.0);
    EXPECT_FALSE(s.cuePoints[2].consumed);
}

TEST(CuePointQueries, BackwardOrNoSeekChangesNothing) {
    auto s = planned({60, 150});
    s.markConsumed(60);
    EXPECT_EQ(s.handleSeek(300, 10), std::nullopt);
    EXPECT_EQ(s.handleSeek(100, 100), std::nullopt);
    EXPECT_TRUE(s.cuePoints[0].consumed);
    EXPECT_FALSE(s.cuePoints[1].consumed);
    // Nothing unconsumed crossed.
    EXPECT_EQ(s.handleSeek(10, 100), std::nullopt);
    EXPECT_EQ(s.handleSeek(std::nan(""), 100), std::nullopt);
}

TEST(CuePointQueries, MarkConsumedWithinHalfASecondStrictly) {
    auto s = planned({60, 150});
    s.markConsumed(60.5);
    s.markConsumed(59.5);
    EXPECT_FALSE(s.cuePoints[0].consumed);
    s.markConsumed(60.49);
    EXPECT_TRUE(s.cuePoints[0].consumed);
    s.markConsumed(149.51);
    EXPECT_TRUE(s.cuePoints[1].consumed);
    EXPECT_FALSE(s.hasUnconsumedCuePoints());
    EXPECT_TRUE(s.hasCuePoints());

    // Only the first point within reach is ever marked, even when already consumed.
    auto close = planned({60, 60.3});
    close.markConsumed(60.2);
    close.markConsumed(60.2);
    EXPECT_TRUE(close.cuePoints[0].consumed);
    EXPECT_FALSE(close.cuePoints[1].consumed);
    EXPECT_TRUE(close.hasUnconsumedCuePoints());
}

TEST(CuePointQueries, ResetReturnsToTheInitialState) {
    auto s = planned({60});
    s.isShowingAd = true;
    s.seekTargetAfterAd = 61;
    s.reset();
    EXPECT_FALSE(s.hasCuePoints());
    EXPECT_FALSE(s.hasUnconsumedCuePoints());
    EXPECT_FALSE(s.isShowingAd);
    EXPECT_EQ(s.seekTargetAfterAd, std::nullopt);
    EXPECT_EQ(s.cuePointToTrigger(1e9), std::nullopt);
}

}  // namespace
}  // namespace kavelin
