// A video that cannot play, on virtual time: whether it broke off or simply made
// no progress, the viewer sees it, can go back or retry, and is taken back to the
// game on their behalf if they do neither.
#include <functional>

#include "support/PlayerControllerFixture.h"

namespace kavelin::testing {
namespace {

struct Fault {
    const char* name;
    bool premium;
    // Brings the playing first video of "pl-1" into trouble at virtual time 0.
    std::function<void(SimulatedMediaPlayer&)> inject;
    // Whether the library must wait out its no-progress limit before giving up.
    bool waitsForTheLimit;
};

constexpr const char* kFailureLine = "❌ Video can't be played (";

class PlaybackFailure : public PlayerControllerTest, public ::testing::WithParamInterface<Fault> {};

TEST_P(PlaybackFailure, ScreenSaysSoThenLeavesAsTheViewerWouldAndLaterCallsWork) {
    const Fault& fault = GetParam();
    subscriptionStatus() = fault.premium ? SubscriptionStatus::premium : SubscriptionStatus::free;
    startPlaylist("pl-1");
    vp.advance(3);
    const double given = fault.waitsForTheLimit ? pc->noProgressTimeout() : 0;
    events.clear();
    fault.inject(*simPlayer());

    if (given > 0) {
        vp.advance(given - 0.5);
        EXPECT_FALSE(pc->playbackFailed) << "gave up too early";
        vp.advance(0.5);
    }
    vp.runUntilIdle();
    ASSERT_TRUE(pc->playbackFailed);
    EXPECT_FALSE(pc->showLoading) << "no spinner over the message";
    EXPECT_TRUE(pc->showControls);
    EXPECT_FALSE(pc->isPlaying);
    EXPECT_TRUE(events.events().empty()) << "nothing for the host until the screen leaves";

    // Ten seconds of clock and status churn later, still one line about it.
    vp.advance(pc->leaveAfterFailureDelay() - 1);
    EXPECT_TRUE(pc->showControls) << "controls stay up to offer the way out";
    vp.advance(30);
    EXPECT_EQ(events.take(), (Events{{"OnVideoClosed", "back"}, {"OnViewDismissed", "user_exit"}}));
    EXPECT_EQ(logs.countPrefix(kFailureLine), 1u);
    EXPECT_EQ(pc->hostingController(), nullptr);

    startPlaylist("pl-1");
    vp.advance(2);
    EXPECT_TRUE(pc->isPlaying);
    EXPECT_FALSE(pc->playbackFailed);
    EXPECT_NEAR(pc->currentTime.get(), 2, 0.2);
}

INSTANTIATE_TEST_SUITE_P(
    Faults, PlaybackFailure,
    ::testing::Values(
        Fault{"BreaksOff", false, [](SimulatedMediaPlayer& p) { p.fail("connection reset"); },
              false},
        Fault{"BreaksOffPremium", true, [](SimulatedMediaPlayer& p) { p.fail("404"); }, false},
        Fault{"StallsForGood", false, [](SimulatedMediaPlayer& p) { p.stall(1e6); }, true},
        Fault{"StallsForGoodPremium", true, [](SimulatedMediaPlayer& p) { p.stall(1e6); }, true}),
    [](const auto& info) { return std::string(info.param.name); });

using PlaybackFailureWayOut = PlayerControllerTest;

TEST_F(PlaybackFailureWayOut, SlowProgressRetryAndBackEachEndTheFailureOnce) {
    // A long stall that recovers in time is not a failure.
    startPlaylist("pl-1");
    simPlayer()->stall(pc->noProgressTimeout() - 1);
    vp.advance(pc->noProgressTimeout() + 5);
    EXPECT_FALSE(pc->playbackFailed);
    EXPECT_TRUE(pc->isPlaying);

    // An item that never opens fails; play is the retry of the same address.
    vp.media->addNeverReady(urlOf("a1"));
    pc->nextVideo();
    vp.advance(pc->noProgressTimeout() + 0.5);
    ASSERT_TRUE(pc->playbackFailed);
    vp.media->add(urlOf("a1"), kClip);
    events.clear();
    pc->play();
    EXPECT_FALSE(pc->playbackFailed);
    EXPECT_EQ(simPlayer()->replacedItems.back(), urlOf("a1"));
    vp.advance(pc->leaveAfterFailureDelay() + 5);
    EXPECT_EQ(events.count("OnVideoClosed"), 0u) << "the retry cancelled the way out";
    EXPECT_TRUE(pc->isPlaying);

    // Going back by hand leaves once; the timer does not leave a second time.
    simPlayer()->fail("garbage");
    vp.runUntilIdle();
    ASSERT_TRUE(pc->playbackFailed);
    pc->backToHome();
    vp.advance(pc->leaveAfterFailureDelay() + 5);
    EXPECT_EQ(events.count("OnVideoClosed"), 1u);
    EXPECT_EQ(events.count("OnViewDismissed"), 1u);
    EXPECT_EQ(logs.countPrefix(kFailureLine), 2u);
}

}  // namespace
}  // namespace kavelin::testing
