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

// A host with no ad to show acknowledges at once: inside the request's callback,
// while the screen is still closing, or later. Playback must resume exactly once,
// after "OnViewDismissed:ad_required", whatever the moment.

// A kind of request: the event that asks for the ad and the video that plays after it.
struct Kind {
    const char* name;
    std::string request;
    const char* thenPlays;
};
constexpr double kInsideCallback = -1;

// The kind of request, and the acknowledgement's delay after it (or kInsideCallback).
class EarlyAck : public PlayerControllerTest,
                 public ::testing::WithParamInterface<std::tuple<Kind, double>> {
  protected:
    static inline std::string ackOn;  // request method acknowledged inside the callback
    static void hostCallback(const char* text) {
        if (!ackOn.empty() && std::string_view(text).starts_with(ackOn + ":")) {
            AdCompletedResumePlayback();
            AdCompletedResumePlayback();  // a second answer must not resume twice
        }
    }
    void TearDown() override {
        registerUnityCallback(nullptr);
        ackOn.clear();
        PlayerControllerTest::TearDown();
    }
};

TEST_P(EarlyAck, ResumesOnceAfterTheDismissalWhateverTheMoment) {
    const auto [kind, delay] = GetParam();
    const std::string& request = kind.request;
    if (request == "OnMidRollAdRequired") pc->setMidRollConfig(policy({0.5}));  // cue at 15 s
    registerUnityCallback(hostCallback);
    if (delay == kInsideCallback) ackOn = request;
    startPlaylist("pl-1");
    vp.advance(2);
    events.clear();
    if (request == "OnVideoTileClicked") pc->onVideoSelected(video("pl-1", 2));
    for (int i = 0; i < 700 && events.count(request) == 0; ++i) vp.advance(0.05);
    ASSERT_EQ(events.count(request), 1u);
    if (delay != kInsideCallback) {
        vp.advance(delay);
        AdCompletedResumePlayback();
    }
    vp.advance(2);
    const auto& all = events.events();
    auto at = std::find_if(all.begin(), all.end(), [&](auto& e) { return e.method == request; });
    ASSERT_GE(all.end() - at, 3) << ::testing::PrintToString(all);
    EXPECT_EQ(Events(at + 1, at + 3), (Events{{"OnViewDismissed", "ad_required"}, kPlay}));
    EXPECT_EQ(events.count("OnViewDismissed"), 1u);
    EXPECT_EQ(vp.presenter->presentCount(), 2);  // reopened once
    EXPECT_EQ(playingURL(), urlOf(kind.thenPlays));
    EXPECT_TRUE(pc->isPlaying && !pc->shouldWaitForAd && pc->hostingController());
    EXPECT_GT(pc->currentTime.get(), 1.0);
}

INSTANTIATE_TEST_SUITE_P(
    KindsAndMoments, EarlyAck,
    ::testing::Combine(::testing::Values(Kind{"NextVideo", "OnNextVideoAdRequired", "a1"},
                                         Kind{"Tile", "OnVideoTileClicked", "a2"},
                                         Kind{"MidRoll", "OnMidRollAdRequired", "a0"}),
                       ::testing::Values(kInsideCallback, 0.05, 0.2, 1.0)),
    [](const auto& info) {
        const double d = std::get<1>(info.param);
        return std::get<0>(info.param).name +
               (d < 0 ? "InsideCallback"
                      : "After" + std::to_string(static_cast<int>(d * 1000)) + "ms");
    });

// Mid-roll breaks: by the clock, by a forward seek, the time-out, and the teardown's order.

using Cues = std::vector<std::pair<double, bool>>;

class MidRoll : public PlayerControllerTest {
  protected:
    void SetUp() override {
        PlayerControllerTest::SetUp();
        vp.media->add(urlOf("a0"), 190);  // a break at half-way falls on 95.0 s
    }
    // Waiting for the host, a break showing.
    std::pair<bool, bool> adState() const {
        return {pc->shouldWaitForAd, pc->midRollCuePointState().isShowingAd};
    }
    // Each planned break: when, and whether it is used up.
    Cues cues() const {
        Cues out;
        for (const auto& c : pc->midRollCuePointState().cuePoints)
            out.emplace_back(c.timestamp, c.consumed);
        return out;
    }
};

TEST_F(MidRoll, ClockReachingACuePointAsksForOneAdOnce) {
    pc->setMidRollConfig(policy({0.5}, 2.0));
    startPlaylist("pl-1");
    EXPECT_EQ(pc->duration.get(), 190);
    EXPECT_EQ(cues(), (Cues{{95.0, false}}));
    events.clear();
    vp.advance(94.9);
    EXPECT_TRUE(events.events().empty());
    vp.advance(0.1);
    EXPECT_EQ(events.take(), (Events{{"OnMidRollAdRequired", "95.0"}}));
    EXPECT_EQ(adState(), std::pair(true, true));
    EXPECT_FALSE(pc->isPlaying);
    EXPECT_NEAR(pc->midRollResumePosition().value_or(-1), 95.0, 1e-9);
    EXPECT_EQ(simPlayer()->timeControlStatus(), TimeControlStatus::paused);
    // The teardown 0.1 s later empties the ad state; the dismissal then tells the host.
    vp.advance(0.1);
    EXPECT_EQ(adState(), std::pair(true, false));
    EXPECT_FALSE(pc->midRollCuePointState().hasCuePoints() || pc->midRollResumePosition());
    vp.advance(0.25);
    EXPECT_EQ(events.take(), (Events{{"OnViewDismissed", "ad_required"}}));
    vp.advance(10);  // the teardown cancelled the time-out: still waiting for the host
    EXPECT_FALSE(logs.contains("⏱️ Mid-roll ad timeout — auto-resuming"));
    EXPECT_TRUE(pc->shouldWaitForAd);
    // The host's answer reloads the same item from its start, its breaks planned afresh.
    service->AdCompletedResumePlayback();
    EXPECT_EQ(events.take(), (Events{kPlay, kPlay}));
    EXPECT_EQ(playingURL(), urlOf("a0"));
    vp.runUntilIdle();
    EXPECT_LT(pc->currentTime.get(), 1.0);
    EXPECT_EQ(cues(), (Cues{{95.0, false}}));
    EXPECT_EQ(logs.count("⏱️ Mid-roll ad triggered at 95.0s"), 1u);
}

// Which limit refuses is the tracker's business; the break only has to ask it, each time.
TEST_F(MidRoll, SessionCapKeepsTheReplannedBreakFromAskingUntilLifted) {
    auto config = policy({0.5});
    config.globalConstraints.maxAdsPerSession = 1;
    pc->setMidRollConfig(config);
    startPlaylist("pl-1");
    vp.advance(95.5);
    service->AdCompletedResumePlayback();
    events.clear();
    vp.advance(100);  // past 95 s of the reloaded item
    EXPECT_EQ(events.count("OnMidRollAdRequired"), 0u);
    EXPECT_TRUE(logs.contains("🚫 Ad blocked: session cap reached (1/1)"));
    EXPECT_TRUE(pc->isPlaying);
    // Lift the cap: the replanned, unconsumed break is due at once.
    config.globalConstraints.maxAdsPerSession.reset();
    pc->setMidRollConfig(config);
    vp.advance(0.1);
    EXPECT_EQ(events.take(), (Events{{"OnMidRollAdRequired", "95.0"}}));
}

TEST_F(MidRoll, SeekOverNoBreakIsTolerantOverTwoAsksForOneAdAndRemembersTheTarget) {
    vp.media->add(urlOf("a0"), 200);
    pc->setMidRollConfig(policy({0.25, 0.5}));  // 50 s and 100 s
    startPlaylist("pl-1");
    events.clear();
    pc->seekTo(40);
    ASSERT_FALSE(simPlayer()->seeks.empty());
    const auto last = simPlayer()->seeks.back();
    EXPECT_EQ(
        std::make_tuple(last.target, last.toleranceBefore, last.toleranceAfter, last.hasCompletion),
        std::make_tuple(40.0, 0.1, 0.1, false));
    vp.advance(SimulatedMediaPlayer::seekLatency);  // landed at 40 s
    EXPECT_TRUE(events.events().empty());
    const size_t seeksBefore = simPlayer()->seeks.size();
    pc->seekTo(150);
    EXPECT_EQ(events.take(), (Events{{"OnMidRollAdRequired", "100.0"}}));
    EXPECT_TRUE(logs.contains("⏱️ Mid-roll ad triggered at 100.0s"));
    EXPECT_EQ(simPlayer()->seeks.size(), seeksBefore);  // the seek itself never ran
    EXPECT_EQ(pc->midRollCuePointState().seekTargetAfterAd, 150.0);
    EXPECT_EQ(cues(), (Cues{{50.0, true}, {100.0, true}}));
    EXPECT_NEAR(pc->midRollResumePosition().value_or(-1), 40.0, 1e-9);
    // Resuming before the teardown moves the target into the resume position.
    pc->resumeAfterMidRollAd();
    EXPECT_EQ(pc->midRollResumePosition(), 150.0);
    EXPECT_FALSE(pc->midRollCuePointState().seekTargetAfterAd.has_value());
    EXPECT_EQ(adState(), std::pair(false, false));
    // A load starts from the beginning: the resume position goes and nothing seeks to it.
    pc->loadVideo(urlOf("a0"));
    EXPECT_FALSE(pc->midRollResumePosition().has_value());
    vp.advance(0.5);
    for (const auto& seek : simPlayer()->seeks) EXPECT_NE(seek.target, 150.0);
}

TEST_F(MidRoll, TimeOutShorterThanTheTeardownResumes) {
    pc->setMidRollConfig(policy({0.5}, 0.05));
    startPlaylist("pl-1");
    vp.advance(95.0);
    ASSERT_TRUE(pc->shouldWaitForAd);
    vp.advance(0.05);
    EXPECT_TRUE(logs.contains("⏱️ Mid-roll ad timeout — auto-resuming"));
    EXPECT_FALSE(pc->shouldWaitForAd || pc->midRollCuePointState().isShowingAd);
    // The screen still goes away, so the host hears the dismissal.
    vp.advance(0.3);
    EXPECT_EQ(events.count("OnViewDismissed"), 1u);
    EXPECT_EQ(pc->hostingController(), nullptr);
}

TEST_F(MidRoll, NoBreakWhileScrubbing) {
    pc->setMidRollConfig(policy({0.5}));
    startPlaylist("pl-1");
    vp.advance(90);
    const double shown = pc->currentTime;
    pc->beginScrub();
    pc->play();  // the host's play arrives mid-drag: the clock runs past the break
    vp.advance(10);
    EXPECT_EQ(events.count("OnMidRollAdRequired"), 0u);
    EXPECT_EQ(pc->currentTime.get(), shown);  // not published while dragging
    pc->endScrub();                           // back to where the thumb stayed
    vp.advance(5.5);
    EXPECT_EQ(events.count("OnMidRollAdRequired"), 1u);
}

TEST_F(MidRoll, PlanUsesTheVideoIdForOverridesAndAPremiumViewerGetsNoPlanAndNoBreaks) {
    auto config = policy({0.25, 0.5});
    config.videoOverrides = std::map<std::string, MidRollAdConfig::VideoOverride>{
        {"a0", MidRollAdConfig::VideoOverride{{20.0}, std::nullopt}}};
    pc->setMidRollConfig(config);
    startPlaylist("pl-1");
    EXPECT_EQ(cues(), (Cues{{20.0, false}}));
    // A plan left from the free tier neither fires on a seek nor on the clock.
    subscriptionStatus() = SubscriptionStatus::premium;
    events.clear();
    pc->seekTo(150);
    vp.advance(60);
    EXPECT_EQ(events.count("OnMidRollAdRequired"), 0u);
    EXPECT_TRUE(pc->isPlaying);
    startPlaylist("pl-1");  // no override for what plays now: still no plan
    EXPECT_FALSE(pc->midRollCuePointState().hasCuePoints());
}

}  // namespace
}  // namespace kavelin::testing
