// A video that cannot play, broken off or making no progress: the viewer sees it, can go back
// or retry, and is taken back to the game on their behalf if they do neither.
#include "support/PlayerControllerFixture.h"

namespace kavelin::testing {
namespace {

// How the playing first video of "pl-1" gets into trouble: it breaks off with `error`,
// or (no error) stalls for good, so the library must wait out its no-progress limit.
struct Fault {
    const char* name;
    bool premium;
    const char* error;
};

constexpr const char* kFailureLine = "❌ Video can't be played (";

class PlaybackFailure : public PlayerControllerTest, public ::testing::WithParamInterface<Fault> {};

TEST_P(PlaybackFailure, ScreenSaysSoThenLeavesAsTheViewerWouldAndLaterCallsWork) {
    const Fault& fault = GetParam();
    subscriptionStatus() = fault.premium ? SubscriptionStatus::premium : SubscriptionStatus::free;
    startPlaylist("pl-1");
    vp.advance(3);
    events.clear();
    if (fault.error) {
        simPlayer()->fail(fault.error);
    } else {
        simPlayer()->stall(1e6);
        vp.advance(pc->noProgressTimeout() - 0.5);
        EXPECT_FALSE(pc->playbackFailed) << "gave up too early";
        vp.advance(0.5);
    }
    vp.runUntilIdle();
    ASSERT_TRUE(pc->playbackFailed);
    EXPECT_FALSE(pc->showLoading) << "no spinner over the message";
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
    EXPECT_TRUE(pc->isPlaying && !pc->playbackFailed);
    EXPECT_NEAR(pc->currentTime.get(), 2, 0.2);
}

INSTANTIATE_TEST_SUITE_P(Faults, PlaybackFailure,
                         ::testing::Values(Fault{"BreaksOff", false, "connection reset"},
                                           Fault{"BreaksOffPremium", true, "404"},
                                           Fault{"StallsForGood", false, nullptr},
                                           Fault{"StallsForGoodPremium", true, nullptr}),
                         [](const auto& info) { return std::string(info.param.name); });

using PlaybackFailureWayOut = PlayerControllerTest;

TEST_F(PlaybackFailureWayOut, SlowProgressRetryAndBackEachEndTheFailureOnce) {
    // A long stall that recovers in time is not a failure.
    startPlaylist("pl-1");
    simPlayer()->stall(pc->noProgressTimeout() - 1);
    vp.advance(pc->noProgressTimeout() + 5);
    EXPECT_TRUE(pc->isPlaying && !pc->playbackFailed);
    // An item that never opens spins with no duration, then fails; play retries the address.
    vp.media->addNeverReady(urlOf("a1"));
    pc->nextVideo();
    vp.advance(pc->noProgressTimeout() - 0.5);
    EXPECT_EQ(std::pair(pc->duration.get(), pc->currentTime.get()), std::pair(0.0, 0.0));
    EXPECT_TRUE(pc->showLoading && !pc->playbackFailed);
    EXPECT_EQ(events.count("OnVideoFinished"), 0u);
    vp.advance(1);
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
    events.clear();
    simPlayer()->fail("garbage");
    vp.runUntilIdle();
    ASSERT_TRUE(pc->playbackFailed);
    pc->backToHome();
    vp.advance(pc->leaveAfterFailureDelay() + 5);
    EXPECT_EQ(events.take(), (Events{{"OnVideoClosed", "back"}, {"OnViewDismissed", "user_exit"}}));
    EXPECT_EQ(logs.countPrefix(kFailureLine), 2u);
}

}  // namespace
}  // namespace kavelin::testing
