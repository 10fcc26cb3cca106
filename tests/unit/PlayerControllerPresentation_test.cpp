// Presenting and dismissing the player screen, the rails and the controls overlay.
#include <gtest/gtest.h>

#include "Kavelin/Platform/Linux/HeadlessPresenter.h"
#include "support/PlayerControllerFixture.h"
#include "support/VirtualMainQueue.h"

namespace kavelin::testing {
namespace {

constexpr double kAnimation = kPresentationFadeSeconds;

using Presentation = PlayerControllerTest;

TEST_F(Presentation, FirstLoadPresentsTheScreenAndPeeksTheRailOnceTimersHideItOnlyInPlayback) {
    startPlaylist("pl-1");
    ASSERT_NE(pc->hostingController(), nullptr);
    EXPECT_EQ(vp.presenter->presentCount(), 1);
    EXPECT_FALSE(pc->showPlaylist);  // the animation is still running
    vp.advance(kAnimation);
    EXPECT_EQ(vp.presenter->presented(), pc->hostingController());
    EXPECT_TRUE(pc->showPlaylist);
    // The peek restarts the return task: the rail leaves five seconds later.
    EXPECT_EQ(around(pc->showPlaylist, 5.0, 0.01), std::pair(true, false));
    // The auto-hide timer shows it for five seconds of playback.
    pc->startAutoHideTimer();
    EXPECT_EQ(around(pc->showPlaylist, 5.0), std::pair(true, false));
    // Later loads reuse the screen.
    pc->nextVideo();
    EXPECT_EQ(vp.presenter->presentCount(), 1);
    // The rail stays while paused or scrubbing, whichever timer put it up.
    pc->tapOnVideo();
    pc->pause();
    pc->startAutoHideTimer();
    vp.advance(10);
    EXPECT_TRUE(pc->showPlaylist);
    pc->play();
    pc->beginScrub();
    vp.advance(6);
    EXPECT_TRUE(pc->showPlaylist);
}

TEST_F(Presentation, BackButtonClosesAndReopeningPeeksTheRailAgainButNotAfterAnAd) {
    startPlaylist("pl-1");
    vp.advance(kAnimation);
    pc->nextVideo();
    vp.advance(25);
    pc->tapOnVideo();  // away with the countdown rail
    ASSERT_TRUE(pc->isCountdownRailDismissed());
    events.clear();
    pc->backToHome();
    EXPECT_EQ(events.take(), (Events{{"OnVideoClosed", "back"}}));
    vp.advance(0.1);
    EXPECT_FALSE(simPlayer()->hasCurrentItem());
    EXPECT_TRUE(events.events().empty());
    vp.advance(kAnimation - 0.1);
    EXPECT_EQ(events.take(), (Events{{"OnViewDismissed", "user_exit"}}));
    EXPECT_FALSE(pc->hostingController() || pc->player.get());
    EXPECT_EQ(pc->currentIndex.get(), 0);
    EXPECT_FALSE(pc->isCountdownRailDismissed());
    EXPECT_EQ(std::get<0>(vp.players->liveObservers()), 0u);
    // Reopening makes a fresh player and shows the rail once more.
    startPlaylist("pl-1");
    EXPECT_EQ(vp.players->playersMade(), 2);
    EXPECT_NE(pc->player.get(), nullptr);
    EXPECT_EQ(events.take(), (Events{kPlay}));
    vp.advance(kAnimation);
    EXPECT_TRUE(pc->showPlaylist);
    // Reopening after an ad dismissal does not.
    vp.advance(6);  // the peek is over
    pc->onVideoSelected(video("pl-1", 2));
    vp.advance(kAnimation);
    ASSERT_EQ(pc->hostingController(), nullptr);
    service->AdCompletedResumePlayback();
    EXPECT_EQ(vp.presenter->presentCount(), 3);
    vp.advance(kAnimation);
    EXPECT_FALSE(pc->showPlaylist);
}

TEST_F(Presentation, DismissalCompletionClearsTheScreenAndClosingWithoutOneStillTearsDown) {
    startPlaylist("pl-1");
    ASSERT_NE(pc->hostingController(), nullptr);
    // The dismissal completion is what clears it, not the teardown.
    pc->switchScreenBack_and_forth();
    vp.advance(0.2);
    EXPECT_NE(pc->hostingController(), nullptr);
    vp.advance(0.2);
    ASSERT_EQ(pc->hostingController(), nullptr);
    EXPECT_TRUE(logs.contains("View Dismissed — waiting for ad"));
    // A second close while no screen is up: the item goes, nothing is dismissed.
    simPlayer()->replaceCurrentItem(urlOf("a1"));
    events.clear();
    pc->switchScreenBack_and_forth();
    vp.advance(1);
    EXPECT_FALSE(simPlayer()->hasCurrentItem());
    EXPECT_TRUE(events.events().empty());
    pc->backToHome();
    vp.advance(1);
    EXPECT_EQ(events.take(), (Events{{"OnVideoClosed", "back"}}));
    EXPECT_NE(pc->player.get(), nullptr);  // only the dismissal drops the player
}

TEST_F(Presentation, WithoutTopMostViewControllerTheScreenIsBuiltButNotShown) {
    vp.presenter->setHasTopMostViewController(false);
    startPlaylist("pl-1");
    EXPECT_NE(pc->hostingController(), nullptr);
    EXPECT_EQ(vp.presenter->presentCount(), 0);
    vp.advance(1);
    EXPECT_TRUE(pc->isPlaying && !pc->showPlaylist);
    // A screen object exists, so play() does not reload.
    pc->pause();
    events.clear();
    pc->play();
    EXPECT_EQ(events.take(), (Events{kPlay}));
    EXPECT_EQ(simPlayer()->replacedItems.size(), 2u);  // cleanup's clear, then a0
}

TEST_F(Presentation, WithoutPlaylistControllerPlaysWithoutAScreen) {
    pc->setURLS({urlOf("a1")});
    pc->loadVideo(urlOf("a1"));
    EXPECT_EQ(logs.levelOf("❌ playlistController not found"), "ERROR");
    EXPECT_EQ(pc->hostingController(), nullptr);
    EXPECT_TRUE(pc->isPlaying);
    EXPECT_EQ(playingURL(), urlOf("a1"));
    // play() from outside reloads (no screen) and does not recurse without end.
    pc->pause();
    events.clear();
    pc->play();
    EXPECT_EQ(events.take(), (Events{kPlay, kPlay}));
    EXPECT_TRUE(pc->isPlaying);
}

TEST_F(Presentation, WatchedAfterTenSecondsCountdownRailInTheLastFiveUnlessDismissed) {
    startPlaylist("pl-1");
    vp.advance(9.9);
    EXPECT_FALSE(playlist->videos[0].isWatched);
    vp.advance(0.2);
    EXPECT_TRUE(playlist->videos[0].isWatched);
    EXPECT_EQ(playlist->state(playlist->videos[0]), VideoState::watching);
    vp.advance(23.9 - 10.1);  // 6.1 s left: remaining 6
    EXPECT_FALSE(pc->showPlaylist);
    EXPECT_EQ(playlist->countdownVideoID.get(), std::nullopt);
    vp.advance(0.2);  // 5.9 s left: remaining 5
    EXPECT_TRUE(pc->showPlaylist);
    EXPECT_EQ(playlist->countdownVideoID.get(), "a1");
    EXPECT_EQ(playlist->remainingTime.get(), 5);
    // Dismissed, the rail stays away for that video while the countdown runs on.
    vp.advance(0.9);
    pc->tapOnVideo();
    vp.advance(2.1);
    EXPECT_EQ(playlist->remainingTime.get(), 2);
    vp.advance(1.9);
    EXPECT_FALSE(pc->showPlaylist);
    EXPECT_EQ(playlist->countdownVideoID.get(), "a1");
    pc->clearCountdownRailDismissal();
    vp.advance(0.1);
    EXPECT_TRUE(pc->showPlaylist);
}

TEST_F(Presentation, ControlsHideAfterFiveSecondsUnlessPausedOrScrubbing) {
    startPlaylist("pl-1");
    EXPECT_EQ(around(pc->showControls, 5.0), std::pair(true, false));
    // A tap shows them; two taps within 5 s restart the countdown.
    pc->toggleControls();
    vp.advance(3);
    pc->toggleControls();
    EXPECT_FALSE(pc->showControls);
    EXPECT_EQ(pc->hideControlsWorkItem.get(), nullptr);
    pc->toggleControls();
    EXPECT_EQ(around(pc->showControls, 5.0), std::pair(true, false));
    // Pausing during the countdown keeps them up indefinitely.
    pc->toggleControls();
    vp.advance(2);
    pc->pause();
    vp.advance(60);
    EXPECT_TRUE(pc->showControls);
    // Scrubbing keeps them too, and the hide task finds nothing to do.
    pc->play();
    pc->beginScrub();
    pc->seekForward(1);  // re-arms the hide
    vp.advance(6);
    EXPECT_TRUE(pc->showControls);
    pc->endScrub();
    vp.advance(5);
    EXPECT_FALSE(pc->showControls);
}

}  // namespace
}  // namespace kavelin::testing

// The display-less presenter completes like an animated window would.
namespace kavelin {
namespace {

TEST(HeadlessPresenter, CompletesAfterTheAnimationNeverInlineAndEvenWhenGone) {
    auto queue = std::make_shared<VirtualMainQueue>();
    auto presenter = std::make_shared<HeadlessPresenter>(queue);
    auto screen = presenter->makeHostingController(nullptr, nullptr);
    ASSERT_NE(screen, nullptr);

    int presented = 0, dismissed = 0;
    presenter->present(screen, true, [&] { ++presented; });
    queue->advance(kPresentationFadeSeconds - 0.01);
    EXPECT_TRUE(presented == 0 && presenter->presented() == nullptr);
    queue->advance(0.01);
    EXPECT_TRUE(presented == 1 && presenter->presented() == screen);
    presenter->dismiss(screen, false, [&] { ++dismissed; });
    EXPECT_EQ(dismissed, 0);  // even unanimated, it completes on a later turn
    queue->runUntilIdle();
    EXPECT_TRUE(dismissed == 1 && presenter->presented() == nullptr);
    EXPECT_EQ(std::make_pair(presenter->presentCount(), presenter->dismissCount()),
              std::make_pair(1, 1));
    // A completion outliving the presenter still runs.
    presenter->dismiss(screen, true, [&] { ++dismissed; });
    presenter.reset();
    queue->advance(1);
    EXPECT_EQ(dismissed, 2);
}

}  // namespace
}  // namespace kavelin
