#include "Kavelin/Model/AdSessionTracker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/VirtualPlatform.h"

namespace kavelin {
namespace {

using ::testing::ElementsAre;
using namespace std::chrono;
using kavelin::testing::LogCapture;

MidRollAdConfig limits(std::optional<int64_t> cap, std::optional<double> cooldown) {
    MidRollAdConfig c = MidRollAdConfig::empty();
    c.globalConstraints.maxAdsPerSession = cap;
    c.globalConstraints.minSecondsBetweenAnyAds = cooldown;
    return c;
}

// A tracker on a clock the test moves by hand, starting 2025-01-31 18:04:05 UTC.
struct AdSessionTrackerTest : ::testing::Test {
    system_clock::time_point now{seconds{1738346645}};
    AdSessionTracker tracker{[this] { return now; }};
    LogCapture log;
};

TEST_F(AdSessionTrackerTest, RecordingCountsAndStampsTheWallClockAndNoLimitsNeverBlock) {
    EXPECT_EQ(tracker.lastAdTimestamp(), std::nullopt);
    tracker.recordAdShown();
    EXPECT_EQ(tracker.totalAdsShown(), 1);
    EXPECT_EQ(tracker.lastAdTimestamp(), now);
    now += 61500ms;
    tracker.recordAdShown();
    EXPECT_EQ(tracker.lastAdTimestamp(), now);
    EXPECT_THAT(log.messages(), ElementsAre("📊 Ad recorded: total=1 at 2025-01-31 18:04:05 +0000",
                                            "📊 Ad recorded: total=2 at 2025-01-31 18:05:06 +0000"));
    for (int i = 0; i < 3; ++i) tracker.recordAdShown();
    // Neither limit set, or a cooldown of zero or less: always allowed, silently.
    for (auto cooldown : {std::optional<double>(), std::optional(0.0), std::optional(-5.0)})
        EXPECT_TRUE(tracker.canShowAd(limits(std::nullopt, cooldown)));
    EXPECT_EQ(tracker.totalAdsShown(), 5);
    EXPECT_EQ(log.messages().size(), 5u);  // the five records only
}

TEST_F(AdSessionTrackerTest, SessionCapIsTestedFirstAskingNeverCountsAndResetClearsIt) {
    const auto c = limits(2, std::nullopt);
    for (int shown = 0; shown < 2; ++shown) {
        EXPECT_TRUE(tracker.canShowAd(c));
        tracker.recordAdShown();
    }
    EXPECT_FALSE(tracker.canShowAd(c));
    EXPECT_FALSE(tracker.canShowAd(c));
    EXPECT_EQ(tracker.totalAdsShown(), 2);
    EXPECT_EQ(log.messages().back(), "🚫 Ad blocked: session cap reached (2/2)");
    EXPECT_EQ(log.levelOf("🚫 Ad blocked: session cap reached (2/2)"), "LOG");
    // Each query uses the configuration it is handed.
    EXPECT_TRUE(tracker.canShowAd(limits(3, std::nullopt)));
    log.clear();
    EXPECT_FALSE(tracker.canShowAd(limits(2, 60.0)));
    EXPECT_FALSE(tracker.canShowAd(limits(3, 10.0)));
    EXPECT_THAT(log.messages(), ElementsAre("🚫 Ad blocked: session cap reached (2/2)",
                                            "🚫 Ad blocked: cooldown 0s / 10s"));
    // Reset starts a new session, silently: neither cap nor cooldown applies any more.
    log.clear();
    tracker.reset();
    EXPECT_TRUE(log.messages().empty());
    EXPECT_EQ(tracker.totalAdsShown(), 0);
    EXPECT_EQ(tracker.lastAdTimestamp(), std::nullopt);
    EXPECT_TRUE(tracker.canShowAd(limits(1, 60.0)));
    EXPECT_FALSE(tracker.canShowAd(limits(0, std::nullopt)));
    EXPECT_EQ(log.messages().back(), "🚫 Ad blocked: session cap reached (0/0)");
    EXPECT_FALSE(tracker.canShowAd(limits(-1, std::nullopt)));
    EXPECT_EQ(log.messages().back(), "🚫 Ad blocked: session cap reached (0/-1)");
}

TEST_F(AdSessionTrackerTest, CooldownRunsOnTheWallClockEvenWhenItIsSetBack) {
    const auto c = limits(std::nullopt, 60.0);
    EXPECT_TRUE(tracker.canShowAd(c));  // nothing recorded yet
    EXPECT_TRUE(log.messages().empty());
    tracker.recordAdShown();
    log.clear();
    const std::pair<milliseconds, bool> steps[] = {{30000ms, false},
                                                   {29900ms, false},
                                                   {100ms, true} /* exactly the cooldown */,
                                                   {-70000ms, false} /* set back */,
                                                   {70000ms, true}};
    for (auto [step, allowed] : steps) {
        now += step;
        EXPECT_EQ(tracker.canShowAd(c), allowed) << step.count();
    }
    EXPECT_THAT(log.messages(),
                ElementsAre("🚫 Ad blocked: cooldown 30s / 60s", "🚫 Ad blocked: cooldown 60s / 60s",
                            "🚫 Ad blocked: cooldown -10s / 60s"));
}

TEST(AdSessionTrackerClock, DefaultsToTheSystemClock) {
    LogCapture log;
    AdSessionTracker tracker;
    const auto before = system_clock::now();
    tracker.recordAdShown();
    ASSERT_TRUE(tracker.lastAdTimestamp());
    EXPECT_LE(before, *tracker.lastAdTimestamp());
    EXPECT_LE(*tracker.lastAdTimestamp(), system_clock::now());
    EXPECT_FALSE(tracker.canShowAd(limits(std::nullopt, 3600.0)));
}

}  // namespace
}  // namespace kavelin
