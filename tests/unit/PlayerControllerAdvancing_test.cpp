// Advancing through playlists and gating on the host's ads, on virtual time.
#include <Kavelin/Kavelin.h>

#include "support/PlayerControllerFixture.h"

namespace kavelin::testing {
namespace {

using Advancing = PlayerControllerTest;
const char* kBlocked = "⛔ Blocking playback until Ad finishes";

// The player may open ahead only what the advance will load next: through a playlist, into
// the next one and round the ring. Never for a free viewer.
TEST_F(Advancing, PremiumViewerPlaysThroughRingsBackAndThePlayerIsToldWhatFollows) {
    subscriptionStatus() = SubscriptionStatus::premium;
    startPlaylist("pl-1");
    EXPECT_EQ(playingURL(), urlOf("a0"));
    // pl-1 has three clips, pl-2 two; then the ring starts pl-1 again.
    for (int step = 0; step < 5; ++step) {
        const auto hinted = simPlayer()->preparedNext;
        ASSERT_TRUE(hinted.has_value()) << step;
        const auto current = playingURL();
        for (int i = 0; i < 400 && playingURL() == current; ++i) vp.advance(0.1);
        EXPECT_EQ(playingURL(), hinted) << step;
    }
    EXPECT_EQ(simPlayer()->preparedNext, urlOf("a1"));
    const Events expected = {kPlay, finished(0), kPlay, finished(1), kPlay, finished(2),
                             kPlay, finished(0), kPlay, finished(1), kPlay};
    EXPECT_EQ(events.events(), expected);
    EXPECT_EQ(playlist->currentPlaylist->id, "pl-1");
    EXPECT_EQ(playlist->nextPlaylist.get()->id, "pl-2");
    EXPECT_EQ(position(), at(0, "a0"));
    EXPECT_EQ(playlist->currentVideoID.get(), "a0");
    EXPECT_EQ(logs.count("▶️ Playing next video at index: 1"), 2u);  // a1 and b1
    EXPECT_EQ(logs.count("▶️ Playing next video at index: 2"), 1u);
    EXPECT_EQ(logs.count("playlist: pl-1"), 1u);
    EXPECT_TRUE(logs.contains("current index: 2"));
    // A single-playlist catalogue starts that playlist again.
    playlists().resize(1);
    startPlaylist("pl-1");
    events.clear();
    vp.advance(3 * kClip + 1);
    EXPECT_EQ(playlist->currentPlaylist->id, "pl-1");
    EXPECT_EQ(playingURL(), urlOf("a0"));
    EXPECT_EQ(events.count("OnVideoFinished"), 3u);
    subscriptionStatus() = SubscriptionStatus::free;
    startPlaylist("pl-1");
    EXPECT_FALSE(simPlayer()->preparedNext.has_value());
}

TEST_F(Advancing, FreeViewerEndOfVideoAsksForAnAdAndResumesWithTheNextVideoOrPlaylist) {
    pc->setMidRollConfig(policy({}));  // no cooldown between the ads
    startPlaylist("pl-1");
    events.clear();
    vp.advance(kClip);
    EXPECT_EQ(events.take(), (Events{finished(0), {"OnNextVideoAdRequired", "0"}}));
    EXPECT_TRUE(pc->shouldWaitForAd);
    vp.advance(0.1);  // teardown
    EXPECT_FALSE(simPlayer()->hasCurrentItem());
    EXPECT_TRUE(events.events().empty());
    vp.advance(0.25);  // dismissal animation over
    EXPECT_EQ(events.take(), (Events{{"OnViewDismissed", "ad_required"}}));
    EXPECT_TRUE(logs.contains("View Dismissed — waiting for ad"));
    EXPECT_EQ(pc->hostingController(), nullptr);
    // Nothing plays while the host shows its ad; play() is refused but still echoed.
    pc->play();
    EXPECT_EQ(events.take(), (Events{kPlay}));
    EXPECT_FALSE(simPlayer()->hasCurrentItem() || pc->isPlaying);
    service->AdCompletedResumePlayback();
    EXPECT_EQ(service->adSessionTracker->totalAdsShown(), 1);
    EXPECT_EQ(position(), at(1, "a1"));
    EXPECT_EQ(events.take(), (Events{kPlay}));
    // The ad after the last video of a playlist moves on to the next playlist.
    for (int i = 0; i < 2; ++i) {
        vp.advance(kClip + 0.5);
        service->AdCompletedResumePlayback();
        vp.runUntilIdle();
    }
    EXPECT_EQ(playlist->currentPlaylist->id, "pl-2");
    EXPECT_EQ(playingURL(), urlOf("b0"));
    EXPECT_EQ(events.count("OnNextVideoAdRequired"), 2u);
}

TEST_F(Advancing, AdCompletionLiftsTheBlockAndPlayOrSeekWhileBlockedOnlyEchoUnlessPremium) {
    startPlaylist("pl-1");
    events.clear();
    const int playsAtStart = simPlayer()->playCalls;
    service->AdCompletedResumePlayback();
    // Nothing pending and already playing: play() returns at once, nothing reloads.
    EXPECT_TRUE(events.events().empty());
    EXPECT_EQ(simPlayer()->playCalls, playsAtStart);
    EXPECT_EQ(playingURL(), urlOf("a0"));
    pc->setAdRequired(true);
    pc->pause();
    service->AdCompletedResumePlayback();
    EXPECT_FALSE(pc->shouldWaitForAd.get());
    EXPECT_EQ(service->adSessionTracker->totalAdsShown(), 2);
    EXPECT_EQ(logs.count("🎯 Ad completed, resuming playback"), 2u);
    // play() ran after the block was lifted, so it was not refused.
    EXPECT_EQ(events.take(), (Events{kPlay}));
    EXPECT_FALSE(logs.contains(kBlocked));
    EXPECT_TRUE(pc->isPlaying);
    EXPECT_EQ(playingURL(), urlOf("a0"));
    pc->pause();
    SetAdRequired(true);
    EXPECT_TRUE(pc->shouldWaitForAd);
    const int playsBefore = simPlayer()->playCalls;
    const size_t seeksBefore = simPlayer()->seeks.size();
    pc->play();
    pc->play();
    pc->seekTo(12);  // ignored whatever the tier
    EXPECT_EQ(events.take(), (Events{kPlay, kPlay}));
    EXPECT_EQ(logs.count(kBlocked), 2u);
    EXPECT_EQ(std::pair(simPlayer()->playCalls, simPlayer()->seeks.size()),
              std::pair(playsBefore, seeksBefore));
    EXPECT_FALSE(pc->isPlaying);
    SetAdRequired(false);
    pc->play();
    EXPECT_EQ(events.take(), (Events{kPlay}));
    EXPECT_TRUE(pc->isPlaying);
    EXPECT_EQ(simPlayer()->playCalls, playsBefore + 1);
    subscriptionStatus() = SubscriptionStatus::premium;
    pc->pause();
    SetAdRequired(true);
    pc->play();
    EXPECT_TRUE(pc->isPlaying);
    EXPECT_EQ(logs.count(kBlocked), 2u);
}

TEST_F(Advancing, FreeTileTapWaitsForAnAdWhateverTheTrackerPremiumTileTapLoadsAtOnce) {
    auto config = policy({});
    config.globalConstraints.maxAdsPerSession = 0;  // the tracker is not asked
    pc->setMidRollConfig(config);
    startPlaylist("pl-1");
    pc->tapOnVideo();  // the rail, to pick from
    events.clear();
    pc->onVideoSelected(video("pl-1", 2));
    EXPECT_TRUE(pc->shouldWaitForAd && !pc->showPlaylist);
    EXPECT_EQ(events.take(), (Events{{"OnVideoTileClicked", "a2"}}));
    vp.advance(0.35);
    EXPECT_EQ(events.take(), (Events{{"OnViewDismissed", "ad_required"}}));
    service->AdCompletedResumePlayback();
    EXPECT_EQ(position(), at(2, "a2"));
    EXPECT_EQ(playlist->currentVideoID.get(), "a2");
    EXPECT_EQ(events.take(), (Events{kPlay}));
    subscriptionStatus() = SubscriptionStatus::premium;
    pc->onVideoSelected(video("pl-1", 1));
    EXPECT_EQ(events.take(), (Events{kPlay}));
    EXPECT_EQ(position(), at(1, "a1"));
    EXPECT_FALSE(pc->shouldWaitForAd);
    // A video from elsewhere plays too, at index 0 of the list.
    pc->onVideoSelected(video("pl-2", 1));
    EXPECT_EQ(position(), at(0, "b1"));
}

// An empty refusal line means the limit no longer holds and a1's end asks for an ad.
struct AdLimit {
    const char* name;
    std::optional<int64_t> cap;
    std::optional<double> cooldown;
    double wallShift;
    std::string refusal;
};

class AdLimits : public PlayerControllerTest, public ::testing::WithParamInterface<AdLimit> {};

TEST_P(AdLimits, LetTheNextVideoPlayWithoutAnAdWhileTheyHold) {
    const auto& c = GetParam();
    auto config = policy({});
    config.globalConstraints.maxAdsPerSession = c.cap;
    config.globalConstraints.minSecondsBetweenAnyAds = c.cooldown;
    pc->setMidRollConfig(config);
    // a0 ends and the host shows the between-videos ad (recorded now); a1 starts.
    startPlaylist("pl-1");
    vp.advance(kClip + 0.5);
    service->AdCompletedResumePlayback();
    vp.runUntilIdle();
    events.clear();
    vp.shiftWallClock(c.wallShift);
    vp.advance(kClip);
    if (c.refusal.empty()) {
        EXPECT_EQ(events.take(), (Events{finished(1), {"OnNextVideoAdRequired", "1"}}));
    } else {
        EXPECT_EQ(events.take(), (Events{finished(1), kPlay}));
        EXPECT_TRUE(logs.contains(c.refusal));
        EXPECT_EQ(playingURL(), urlOf("a2"));
        EXPECT_FALSE(pc->shouldWaitForAd);
    }
    if (c.cooldown && !c.wallShift) {
        vp.advance(kClip);  // 60 s after the ad: allowed again
        EXPECT_EQ(events.take(), (Events{finished(2), {"OnNextVideoAdRequired", "2"}}));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Limits, AdLimits,
    ::testing::Values(AdLimit{"cap", 1, std::nullopt, 0, "🚫 Ad blocked: session cap reached (1/1)"},
                      // 30 s after the ad: refused, a2 follows at once.
                      AdLimit{"cooldown", std::nullopt, 45, 0, "🚫 Ad blocked: cooldown 30s / 45s"},
                      // The device clock jumps ahead while a1 plays: the cooldown follows it.
                      AdLimit{"wallClock", std::nullopt, 45, 20, ""}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(Advancing, NextAndPreviousStopAtTheEdgesAndTheButtonsFollow) {
    subscriptionStatus() = SubscriptionStatus::premium;
    startPlaylist("pl-1");
    pc->prevVideo();
    EXPECT_TRUE(pc->disableBackButton && !pc->disbleForwardButton);
    EXPECT_EQ(playingURL(), urlOf("a0"));
    pc->nextVideo();
    pc->nextVideo();
    EXPECT_EQ(playingURL(), urlOf("a2"));
    EXPECT_EQ(playlist->currentVideoID.get(), "a2");
    EXPECT_TRUE(pc->disbleForwardButton && !pc->disableBackButton);
    events.clear();
    pc->nextVideo();
    EXPECT_EQ(playingURL(), urlOf("a2"));
    EXPECT_TRUE(events.events().empty());
    pc->prevVideo();
    EXPECT_EQ(position(), at(1, "a1"));
    EXPECT_FALSE(pc->disableBackButton || pc->disbleForwardButton);
    // One-item list: back disabled, forward enabled (index 0 is tested first).
    pc->setURLS({urlOf("a0")});
    pc->moveAndLoad(0, urlOf("a0"));
    EXPECT_TRUE(pc->disableBackButton && !pc->disbleForwardButton);
}

TEST_F(Advancing, PlaylistSelectionResumesAtTheFirstUnwatchedVideo) {
    subscriptionStatus() = SubscriptionStatus::premium;
    startPlaylist("pl-1");
    vp.advance(kClip + 11);  // a0 done, a1 past the watched mark
    pc->markCountdownRailDismissed();
    startPlaylist("pl-1");
    EXPECT_FALSE(pc->isCountdownRailDismissed());
    EXPECT_EQ(position(), at(2, "a2"));
    EXPECT_EQ(logs.count("playlist: pl-1"), 2u);
}

TEST_F(Advancing, WithoutAPlaylistControllerAdvancingDoesNothing) {
    pc->onPlaylistSelected(playlists()[0]);
    EXPECT_EQ(logs.levelOf("PlaylistController not initialized"), "ERROR");
    EXPECT_FALSE(pc->showLoading);
    pc->playNextVideo(0);
    pc->playNextPlaylist();
    pc->playerDidFinishPlaying();
    EXPECT_TRUE(events.events().empty());
    EXPECT_FALSE(simPlayer()->hasCurrentItem());
}

}  // namespace
}  // namespace kavelin::testing
