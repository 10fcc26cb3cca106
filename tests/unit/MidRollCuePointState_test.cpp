#include "Kavelin/Model/MidRollCuePointState.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "Kavelin/Model/Catalogue.h"
#include "Kavelin/Model/MidRollAdConfig.h"
#include "support/VirtualPlatform.h"

namespace kavelin {
namespace {

using Bucket = MidRollAdConfig::DurationBucket;
using Overrides = std::map<std::string, MidRollAdConfig::VideoOverride>;
using kavelin::testing::LogCapture;
constexpr double kInf = std::numeric_limits<double>::infinity();

MidRollAdConfig config(std::vector<Bucket> buckets,
                       std::optional<Overrides> overrides = std::nullopt, double gap = 30,
                       double start = 10, double end = 10) {
    MidRollAdConfig c = MidRollAdConfig::empty();
    c.globalConstraints.minGapSeconds = gap;
    c.globalConstraints.noAdZoneStartSeconds = start;
    c.globalConstraints.noAdZoneEndSeconds = end;
    c.durationBuckets = std::move(buckets);
    c.videoOverrides = std::move(overrides);
    return c;
}
MidRollAdConfig cues(std::vector<double> seconds, double gap = 30, double start = 10) {
    return config({}, Overrides{{"v", {std::move(seconds), {}}}}, gap, start);
}
// One bucket for every duration up to 1000 s.
MidRollAdConfig wide(int64_t breaks, std::vector<double> placements) {
    return config({{0, 1000, breaks, std::move(placements)}});
}

std::vector<bool> consumed(const MidRollCuePointState& s) {
    std::vector<bool> out;
    for (const auto& cue : s.cuePoints) out.push_back(cue.consumed);
    return out;
}

// A plan of exactly these points, unfiltered (gap 0, no zones).
MidRollCuePointState planned(std::vector<double> seconds) {
    MidRollCuePointState s;
    LogCapture quiet;
    s.computeCuePoints(1e6, "v", config({}, Overrides{{"v", {seconds, {}}}}, 0, 0, 0));
    return s;
}

struct Plan {
    double duration;
    MidRollAdConfig config;
    std::vector<double> expected;
    std::string log;
    std::optional<std::string> id = "v";
};

TEST(CuePointPlanning, PlansFromBucketsOrOverridesAndLogsThePlan) {
    const auto bounds = config({{0, 120, 1, {0.5}}, {120, 300, 1, {0.25}}});
    const auto overlapping = config({{0, 200, 1, {0.5}}, {100, 300, 1, {0.25}}});
    const auto byId =
        config({{0, 10000, 1, {0.5}}}, Overrides{{"video-42", {{210.5, 95.0, 400}, {}}},
                                                 {"capped", {{300, 95.0}, 1}},
                                                 {"generous", {{95.0}, 5}},
                                                 {"none", {{}, {}}}});
    // Each plan logs one line, "🎯 Mid-roll: " and then what the table says.
    const std::string noBucket = "no matching bucket for duration ";
    const std::string noBreaks = "bucket has 0 breaks for duration 200s";
    // Override plans read "N cue points (video override) for ID: [...]".
    auto overridden = [](std::string rest) {
        return rest.insert(rest.find(' '), " cue points (video override)");
    };
    // clang-format off
    const Plan plans[] = {
        // Buckets: lower bound inclusive, upper exclusive; the duration is logged rounded.
        {120, bounds, {30}, R"(1 cue points for 120s video: ["30.0"])"},
        {300, bounds, {}, noBucket + "300s"},
        {119.6, bounds, {59.8}, R"(1 cue points for 120s video: ["59.8"])", std::nullopt},
        // Overlapping buckets: the earlier wins.
        {150, overlapping, {75}, R"(1 cue points for 150s video: ["75.0"])"},
        {250, overlapping, {62.5}, R"(1 cue points for 250s video: ["62.5"])"},
        // The break count cuts in preference order before filtering; 0.04 falls in the
        // opening zone and 0.5 is not promoted to replace it; more breaks than placements.
        {200, wide(2, {0.9, 0.1, 0.5}), {20, 180},
         R"(2 cue points for 200s video: ["20.0", "180.0"])"},
        {200, wide(2, {0.04, 0.9, 0.5}), {180}, R"(1 cue points for 200s video: ["180.0"])"},
        {200, wide(9, {0.5, 0.2}), {40, 100}, R"(2 cue points for 200s video: ["40.0", "100.0"])"},
        // Gap and zones: 60 is within 30 s of 50; zone edges are allowed, just outside not;
        // exactly one gap apart is kept.
        {100, wide(2, {0.5, 0.6}), {50}, R"(1 cue points for 100s video: ["50.0"])"},
        {100, wide(2, {0.1, 0.9}), {10, 90}, R"(2 cue points for 100s video: ["10.0", "90.0"])"},
        {100, wide(2, {0.0999, 0.9001}), {}, "0 cue points for 100s video: []"},
        {100, wide(2, {0.5, 0.2}), {20, 50}, R"(2 cue points for 100s video: ["20.0", "50.0"])"},
        // The gap is measured to the last kept point: 55 is 35 after 20, only 15 after the
        // dropped 40. With no gap, equal points survive side by side.
        {1000, cues({55, 40, 20, 85, 85}), {20, 55, 85}, overridden("3 for v: [20.0, 55.0, 85.0]")},
        {1000, cues({55, 40, 20, 85, 85}, 0), {20, 40, 55, 85, 85},
         overridden("5 for v: [20.0, 40.0, 55.0, 85.0, 85.0]")},
        // Fractions outside the video and negative seconds are dropped, unless the zones
        // themselves are negative.
        {100, wide(3, {1.2, -0.1, 0.5}), {50}, R"(1 cue points for 100s video: ["50.0"])"},
        {-5, config({{-100, 0, 1, {0.5}}}), {}, "0 cue points for -5s video: []"},
        {100, cues({-20, 95}), {}, overridden("0 for v: []")},
        {100, cues({-20}, 30, -30), {-20}, overridden("1 for v: [-20.0]")},
        // Buckets without breaks, a duration that is not a number, no buckets at all.
        {200, wide(0, {0.5}), {}, noBreaks},
        {200, wide(-3, {0.5}), {}, noBreaks},
        {200.4, wide(2, {}), {}, noBreaks},
        {std::nan(""), config({{-kInf, kInf, 1, {0.5}}}), {}, noBucket + "nans"},
        {600, MidRollAdConfig::empty(), {}, noBucket + "600s"},
        // Overrides: absolute seconds, sorted, capped by their own break count, buckets
        // skipped; the id must match exactly.
        {600, byId, {95, 210.5, 400}, overridden("3 for video-42: [95.0, 210.5, 400.0]"),
         "video-42"},
        {600, byId, {300}, overridden("1 for capped: [300.0]"), "capped"},
        {600, byId, {95}, overridden("1 for generous: [95.0]"), "generous"},
        {600, byId, {}, overridden("0 for none: []"), "none"},
        {600, byId, {300}, R"(1 cue points for 600s video: ["300.0"])", "VIDEO-42"},
        {600, byId, {300}, R"(1 cue points for 600s video: ["300.0"])", std::nullopt}};
    // clang-format on
    for (const auto& plan : plans) {
        const std::string line = "🎯 Mid-roll: " + plan.log;
        SCOPED_TRACE(line);
        MidRollCuePointState s;
        LogCapture log;
        s.computeCuePoints(plan.duration, plan.id, plan.config);
        std::vector<double> timestamps;
        for (const auto& cue : s.cuePoints) timestamps.push_back(cue.timestamp);
        EXPECT_EQ(timestamps, plan.expected);
        EXPECT_EQ(consumed(s), std::vector<bool>(timestamps.size(), false));
        EXPECT_EQ(log.messages(), std::vector<std::string>{line});
        EXPECT_EQ(log.levelOf(line), "LOG");
    }
}

TEST(CuePointPlanning, ReplanningReArmsAndLeavesAdStateAlone) {
    MidRollCuePointState s;
    LogCapture log;
    const auto c = wide(2, {0.25, 0.75});
    s.computeCuePoints(200, "v", c);
    s.markConsumed(50);
    s.isShowingAd = true;
    s.seekTargetAfterAd = 42;
    s.computeCuePoints(200, "v", c);
    EXPECT_EQ(consumed(s), (std::vector<bool>{false, false}));
    EXPECT_TRUE(s.isShowingAd);
    EXPECT_EQ(s.seekTargetAfterAd, 42.0);
    s.computeCuePoints(5000, "v", c);  // a plan that fails still clears the old one
    EXPECT_FALSE(s.hasCuePoints());
}

TEST(CuePointQueries, DueCheckGivesTheEarliestMissedPointAndForwardSeeksCostTheLatest) {
    auto s = planned({60, 150});
    EXPECT_EQ(s.cuePointToTrigger(59.9), std::nullopt);
    EXPECT_EQ(s.cuePointToTrigger(60.0), 60.0);
    EXPECT_EQ(s.cuePointToTrigger(400), 60.0);  // late player: earliest missed first
    EXPECT_FALSE(s.cuePoints[0].consumed);      // asking changes nothing
    s.markConsumed(60);
    EXPECT_EQ(s.cuePointToTrigger(149), std::nullopt);
    EXPECT_EQ(s.cuePointToTrigger(400), 150.0);
    // Backward, standing still, crossing nothing unconsumed, or from no start: no break.
    for (auto [from, to] : {std::pair{300.0, 10.0}, {100.0, 100.0}, {10.0, 100.0}, {NAN, 100.0}})
        EXPECT_EQ(s.handleSeek(from, to), std::nullopt) << from << " -> " << to;
    EXPECT_EQ(consumed(s), (std::vector<bool>{true, false}));
    // A forward seek costs the latest break crossed: the start is excluded, the target included.
    s = planned({60, 150, 250});
    EXPECT_EQ(s.handleSeek(10, 200), 150.0);
    EXPECT_EQ(consumed(s), (std::vector<bool>{true, false, false}));
    EXPECT_EQ(s.handleSeek(150, 200), std::nullopt);
    EXPECT_EQ(s.handleSeek(200, 250), 250.0);
    EXPECT_FALSE(s.cuePoints[2].consumed);
}

TEST(CuePointQueries, MarkConsumedWithinHalfASecondStrictlyAndResetClearsAll) {
    auto s = planned({60, 150});
    s.markConsumed(60.5);
    s.markConsumed(59.5);
    EXPECT_FALSE(s.cuePoints[0].consumed);
    s.markConsumed(60.49);
    s.markConsumed(149.51);
    EXPECT_EQ(consumed(s), (std::vector<bool>{true, true}));
    EXPECT_FALSE(s.hasUnconsumedCuePoints());
    EXPECT_TRUE(s.hasCuePoints());
    // Only the first point within reach is ever marked, even when already consumed.
    auto close = planned({60, 60.3});
    close.markConsumed(60.2);
    close.markConsumed(60.2);
    EXPECT_EQ(consumed(close), (std::vector<bool>{true, false}));
    EXPECT_TRUE(close.hasUnconsumedCuePoints());
    close.isShowingAd = true;
    close.seekTargetAfterAd = 61;
    close.reset();
    EXPECT_FALSE(close.hasCuePoints() || close.hasUnconsumedCuePoints() || close.isShowingAd);
    EXPECT_EQ(close.seekTargetAfterAd, std::nullopt);
    EXPECT_EQ(close.cuePointToTrigger(1e9), std::nullopt);
}

using nlohmann::json;
using ::testing::ThrowsMessage;

const json kExample = json::parse(R"({
  "version": 3, "adTimeoutSeconds": 8,
  "globalConstraints": {"minGapSeconds": 45, "noAdZoneStartSeconds": 15, "noAdZoneEndSeconds": 20.5,
                        "minSecondsBetweenAnyAds": 90, "maxAdsPerSession": 6},
  "durationBuckets": [
    { "minSeconds": 0,   "maxSeconds": 120,  "maxBreaks": 0, "placements": [] },
    { "minSeconds": 120, "maxSeconds": 300,  "maxBreaks": 1, "placements": [0.5] },
    { "minSeconds": 300, "maxSeconds": 1800, "maxBreaks": 2, "placements": [0.33, 0.66, 0.9] }
  ],
  "videoOverrides": {"video-42": { "cuePointSeconds": [95.0, 210.5], "maxBreaks": 1 },
                     "Video-42": { "cuePointSeconds": [] }}
})");

// The example with the value at `pointer` replaced, or removed when `value` is absent.
json exampleWith(const std::string& pointer, std::optional<json> value = std::nullopt) {
    json doc = kExample;
    const json::json_pointer at(pointer);
    if (value)
        doc[at] = *value;
    else
        doc[at.parent_pointer()].erase(at.back());
    return doc;
}

TEST(MidRollAdConfig, EmptyIsTheBuiltInDefaultAndEncodesWithoutAbsentKeys) {
    EXPECT_EQ(MidRollAdConfig::empty().encode(), json::parse(R"({
        "version": 0, "adTimeoutSeconds": 3.0,
        "globalConstraints": {"minGapSeconds": 30.0, "noAdZoneStartSeconds": 10.0,
                              "noAdZoneEndSeconds": 10.0, "minSecondsBetweenAnyAds": 60.0},
        "durationBuckets": []})"));
}

TEST(MidRollAdConfig, DecodesEveryFieldAndRoundTrips) {
    auto c = MidRollAdConfig::decode(std::string_view(kExample.dump()));
    const auto& g = c.globalConstraints;
    // Integer-valued numbers are fine for doubles.
    EXPECT_EQ(std::tuple(c.version, c.adTimeoutSeconds, g.minGapSeconds, g.noAdZoneStartSeconds,
                         g.noAdZoneEndSeconds, g.minSecondsBetweenAnyAds, g.maxAdsPerSession),
              std::tuple(3, 8.0, 45.0, 15.0, 20.5, std::optional(90.0), std::optional<int64_t>(6)));
    ASSERT_EQ(c.durationBuckets.size(), 3u);
    const auto& b = c.durationBuckets[1];
    EXPECT_EQ(std::tuple(b.minSeconds, b.maxSeconds, b.maxBreaks), std::tuple(120.0, 300.0, 1));
    EXPECT_EQ(c.durationBuckets[2].placements, (std::vector<double>{0.33, 0.66, 0.9}));
    EXPECT_TRUE(c.durationBuckets[0].placements.empty());
    ASSERT_TRUE(c.videoOverrides);
    ASSERT_EQ(c.videoOverrides->size(), 2u);  // ids are case-sensitive
    const auto& o = c.videoOverrides->at("video-42");
    EXPECT_EQ(o.cuePointSeconds, (std::vector<double>{95.0, 210.5}));
    EXPECT_EQ(o.maxBreaks, 1);
    EXPECT_EQ(c.videoOverrides->at("Video-42").maxBreaks, std::nullopt);
    // Encoding gives the document back, absent keys (Video-42's maxBreaks) left out.
    EXPECT_EQ(c.encode(), kExample);
}

TEST(MidRollAdConfig, OptionalKeysMayBeMissingOrNullAndUnknownOrOddValuesPass) {
    for (const auto& absent : {std::optional<json>(), std::optional<json>(json(nullptr))}) {
        auto decoded = [&](const std::string& key) {
            return MidRollAdConfig::decode(exampleWith(key, absent));
        };
        EXPECT_EQ(decoded("/videoOverrides").videoOverrides, std::nullopt);
        const std::string g = "/globalConstraints/";
        EXPECT_EQ(decoded(g + "maxAdsPerSession").globalConstraints.maxAdsPerSession, std::nullopt);
        EXPECT_EQ(decoded(g + "minSecondsBetweenAnyAds").globalConstraints.minSecondsBetweenAnyAds,
                  std::nullopt);
    }
    // Present but empty is not absent.
    EXPECT_TRUE(MidRollAdConfig::decode(exampleWith("/videoOverrides", json::object()))
                    .videoOverrides.has_value());

    json doc = kExample;
    doc["comment"] = "ignored";
    doc["globalConstraints"]["future"] = {1, 2};
    doc["durationBuckets"][0] = json::parse(R"({"minSeconds": 500, "maxSeconds": -1,
        "maxBreaks": -4, "placements": [1.5, -0.2], "weight": "heavy"})");
    doc["globalConstraints"]["noAdZoneStartSeconds"] = -10;
    doc["videoOverrides"]["neg"] = {{"cuePointSeconds", {-5}}, {"maxBreaks", -1}};
    auto c = MidRollAdConfig::decode(doc);
    const auto& b = c.durationBuckets[0];
    EXPECT_EQ(std::tuple(b.minSeconds, b.maxSeconds, b.maxBreaks, b.placements),
              std::tuple(500.0, -1.0, -4, std::vector<double>{1.5, -0.2}));
    EXPECT_EQ(c.globalConstraints.noAdZoneStartSeconds, -10.0);
    EXPECT_EQ(c.videoOverrides->at("neg").maxBreaks, -1);
}

TEST(MidRollAdConfig, MissingKeysAndWrongTypesFailTheWholeDocument) {
    const std::pair<json, std::string> cases[] = {
        {exampleWith("/durationBuckets"), R"(key "durationBuckets" not found)"},
        {exampleWith("/version"), R"(key "version" not found)"},
        {exampleWith("/adTimeoutSeconds"), R"(key "adTimeoutSeconds" not found)"},
        {exampleWith("/globalConstraints"), R"(key "globalConstraints" not found)"},
        {exampleWith("/durationBuckets/1/maxBreaks"),
         R"(key "maxBreaks" not found at durationBuckets[1])"},
        {exampleWith("/globalConstraints/noAdZoneEndSeconds"),
         R"(key "noAdZoneEndSeconds" not found at globalConstraints)"},
        {exampleWith("/videoOverrides/video-42/cuePointSeconds"),
         R"(key "cuePointSeconds" not found at videoOverrides["video-42"])"},
        {exampleWith("/version", "3"), R"(key "version": expected a number, found string)"},
        {exampleWith("/version", 3.5), R"(key "version": expected an integer, found 3.5)"},
        {exampleWith("/globalConstraints/maxAdsPerSession", 2.25),
         R"(key "maxAdsPerSession" at globalConstraints: expected an integer, found 2.25)"},
        {exampleWith("/durationBuckets/2/placements/1", "0.66"),
         "value at durationBuckets[2].placements[1]: expected a number, found string"},
        {exampleWith("/videoOverrides/video-42/cuePointSeconds", 95),
         R"(key "cuePointSeconds" at videoOverrides["video-42"]: expected an array, found number)"},
        {exampleWith("/videoOverrides", json::array()),
         R"(key "videoOverrides": expected an object, found array)"},
        {exampleWith("/globalConstraints/minGapSeconds", true),
         R"(key "minGapSeconds" at globalConstraints: expected a number, found boolean)"},
        {json::array({kExample}), "top level: expected an object, found array"}};
    for (const auto& [doc, error] : cases)
        EXPECT_THAT([&] { MidRollAdConfig::decode(doc); }, ThrowsMessage<DecodingError>(error))
            << doc.dump();
    for (const char* text : {"{\"version\": 1,", "", "{\"version\":\"\xFF\"}"})
        EXPECT_THROW(MidRollAdConfig::decode(std::string_view(text)), DecodingError) << text;
}

}  // namespace
}  // namespace kavelin
