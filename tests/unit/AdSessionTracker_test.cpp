#include "Kavelin/Model/AdSessionTracker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Kavelin/log/VPLogger.h"
#include "support/VirtualPlatform.h"

namespace kavelin {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using namespace std::chrono;

using kavelin::testing::LogCapture;

// A tracker on a clock the test moves by hand, starting 2025-01-31 18:04:05 UTC.
struct Fixture {
    system_clock::time_point now{seconds{1738346645}};
    AdSessionTracker tracker{[this] { return now; }};
    void advance(milliseconds ms) { now += ms; }
};

MidRollAdConfig limits(std::optional<int64_t> cap, std::optional<double> cooldown) {
    MidRollAdConfig c = MidRollAdConfig::empty();
    c.globalConstraints.maxAdsPerSession = cap;
    c.globalConstraints.minSecondsBetweenAnyAds = cooldown;
    return c;
}

TEST(AdSessionTracker, NoLimitsAlwaysAllowsAndLogsNothing) {
    Fixture f;
    LogCapture log;
    auto c = limits(std::nullopt, std::nullopt);
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(f.tracker.canShowAd(c));
        f.tracker.recordAdShown();
    }
    EXPECT_TRUE(f.tracker.canShowAd(c));
    EXPECT_EQ(f.tracker.totalAdsShown(), 5);
    EXPECT_EQ(log.messages().size(), 5u);  // the five records only
}

TEST(AdSessionTracker, RecordingCountsAndStampsTheWallClock) {
    Fixture f;
    LogCapture log;
    EXPECT_EQ(f.tracker.lastAdTimestamp(), std::nullopt);
    f.tracker.recordAdShown();
    EXPECT_EQ(f.tracker.totalAdsShown(), 1);
    EXPECT_EQ(f.tracker.lastAdTimestamp(), f.now);
    f.advance(61500ms);
    f.tracker.recordAdShown();
    EXPECT_EQ(f.tracker.lastAdTimestamp(), f.now);
    EXPECT_THAT(log.messages(), ElementsAre("📊 Ad recorded: total=1 at 2025-01-31 18:04:05 +0000",
                                            "📊 Ad recorded: total=2 at 2025-01-31 18:05:06 +0000"));
}

TEST(AdSessionTracker, SessionCap) {
    Fixture f;
    LogCapture log;
    auto c = limits(2, std::nullopt);
    EXPECT_TRUE(f.tracker.canShowAd(c));
    f.tracker.recordAdShown();
    EXPECT_TRUE(f.tracker.canShowAd(c));
    f.tracker.recordAdShown();
    EXPECT_FALSE(f.tracker.canShowAd(c));
    EXPECT_FALSE(f.tracker.canShowAd(c));  // asking never counts
    EXPECT_EQ(f.tracker.totalAdsShown(), 2);
    EXPECT_EQ(log.messages().back(), "🚫 Ad blocked: session cap reached (2/2)");
    EXPECT_EQ(log.levelOf("🚫 Ad blocked: session cap reached (2/2)"), "LOG");

    Fixture zero;
    EXPECT_FALSE(zero.tracker.canShowAd(limits(0, std::nullopt)));
    EXPECT_EQ(log.messages().back(), "🚫 Ad blocked: session cap reached (0/0)");
    EXPECT_FALSE(zero.tracker.canShowAd(limits(-1, std::nullopt)));
    EXPECT_EQ(log.messages().back(), "🚫 Ad blocked: session cap reached (0/-1)");
}

TEST(AdSessionTracker, CooldownOnTheWallClock) {
    Fixture f;
    LogCapture log;
    auto c = limits(std::nullopt, 60.0);
    EXPECT_TRUE(f.tracker.canShowAd(c));  // nothing recorded yet
    EXPECT_THAT(log.messages(), IsEmpty());
    f.tracker.recordAdShown();
    log.clear();

    f.advance(30000ms);
    EXPECT_FALSE(f.tracker.canShowAd(c));
    f.advance(29900ms);
    EXPECT_FALSE(f.tracker.canShowAd(c));
    f.advance(100ms);
    EXPECT_TRUE(f.tracker.canShowAd(c));  // exactly the cooldown passes
    EXPECT_THAT(log.messages(), ElementsAre("🚫 Ad blocked: cooldown 30s / 60s",
                                            "🚫 Ad blocked: cooldown 60s / 60s"));
}

TEST(AdSessionTracker, ClockSetBackKeepsBlocking) {
    Fixture f;
    LogCapture log;
    f.tracker.recordAdShown();
    f.advance(-10000ms);
    EXPECT_FALSE(f.tracker.canShowAd(limits(std::nullopt, 60.0)));
    EXPECT_EQ(log.messages().back(), "🚫 Ad blocked: cooldown -10s / 60s");
    f.advance(70000ms);
    EXPECT_TRUE(f.tracker.canShowAd(limits(std::nullopt, 60.0)));
}

TEST(AdSessionTracker, ZeroOrNegativeCooldownNeverBlocks) {
    Fixture f;
    LogCapture log;
    f.tracker.recordAdShown();
    EXPECT_TRUE(f.tracker.canShowAd(limits(std::nullopt, 0.0)));
    EXPECT_TRUE(f.tracker.canShowAd(limits(std::nullopt, -5.0)));
}

TEST(AdSessionTracker, CapIsTestedBeforeCooldown) {
    Fixture f;
    LogCapture log;
    f.tracker.recordAdShown();
    log.clear();
    EXPECT_FALSE(f.tracker.canShowAd(limits(1, 60.0)));
    EXPECT_THAT(log.messages(), ElementsAre("🚫 Ad blocked: session cap reached (1/1)"));
}

TEST(AdSessionTracker, EachQueryUsesTheConfigurationItIsHanded) {
    Fixture f;
    LogCapture log;
    f.tracker.recordAdShown();
    f.tracker.recordAdShown();
    EXPECT_FALSE(f.tracker.canShowAd(limits(2, std::nullopt)));
    EXPECT_TRUE(f.tracker.canShowAd(limits(3, std::nullopt)));
    EXPECT_FALSE(f.tracker.canShowAd(limits(3, 10.0)));
}

TEST(AdSessionTracker, ResetStartsANewSessionSilently) {
    Fixture f;
    LogCapture log;
    auto c = limits(1, 60.0);
    f.tracker.recordAdShown();
    EXPECT_FALSE(f.tracker.canShowAd(c));
    log.clear();
    f.tracker.reset();
    EXPECT_THAT(log.messages(), IsEmpty());
    EXPECT_EQ(f.tracker.totalAdsShown(), 0);
    EXPECT_EQ(f.tracker.lastAdTimestamp(), std::nullopt);
    EXPECT_TRUE(f.tracker.canShowAd(c));  // neither cap nor cooldown applies any more
}

TEST(AdSessionTracker, DefaultsToTheSystemClock) {
    LogCapture log;
    AdSessionTracker tracker;
    auto before = system_clock::now();
    tracker.recordAdShown();
    auto after = system_clock::now();
    ASSERT_TRUE(tracker.lastAdTimestamp());
    EXPECT_LE(before, *tracker.lastAdTimestamp());
    EXPECT_LE(*tracker.lastAdTimestamp(), after);
    EXPECT_FALSE(tracker.canShowAd(limits(std::nullopt, 3600.0)));
}

}  // namespace
}  // namespace kavelin
