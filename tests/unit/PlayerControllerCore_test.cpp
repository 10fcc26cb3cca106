// The player core: loading, observers, transport, time formatting, URLs and hostile input.
#include <cmath>
#include <limits>

#include "Kavelin/Extentions/URLString.h"
#include "support/PlayerControllerFixture.h"

namespace kavelin::testing {
namespace {

using Core = PlayerControllerTest;
// Live time, status, duration and end-of-item observers.
using Counts = SimulatedMediaPlayer::ObserverCounts;

TEST_F(Core, ObserversNeverAccumulateOverAThousandLoads) {
    startPlaylist("pl-1");
    for (int i = 0; i < 1000; ++i) {
        pc->loadVideo(urlOf(i % 2 ? "a1" : "a2"));
        if (i % 100 == 0) vp.advance(0.5);
    }
    vp.runUntilIdle();
    EXPECT_EQ(vp.players->playersMade(), 1);
    EXPECT_EQ(vp.players->liveObservers(), Counts(1, 1, 1, 1));
    // Cancelled delayed tasks do not pile up: auto-hide, rail return and the player's clock.
    EXPECT_LE(vp.queue->pendingCount(), 4u);
    vp.advance(1);
    EXPECT_TRUE(pc->isPlaying);
    EXPECT_EQ(pc->duration.get(), kClip);
    pc->cleanup();
    EXPECT_EQ(vp.players->liveObservers(), Counts());
}

TEST_F(Core, DurationAndSpinnerFollowTheItemStatus) {
    vp.media->add(urlOf("a0"), 42, 3.0);  // ready only after three seconds
    service->playPlaylist("pl-1");
    vp.advance(2.9);
    EXPECT_EQ(pc->duration.get(), 0);
    EXPECT_TRUE(pc->showLoading);  // waiting to play
    EXPECT_FALSE(pc->midRollCuePointState().hasCuePoints());
    vp.advance(0.2);
    EXPECT_EQ(pc->duration.get(), 42);
    EXPECT_FALSE(pc->showLoading);
    simPlayer()->stall(1.0);
    vp.runUntilIdle();
    EXPECT_TRUE(pc->showLoading && pc->isPlaying);  // the controller's belief is left alone
    vp.advance(1.0);
    EXPECT_FALSE(pc->showLoading);
}

TEST_F(Core, ClockIgnoresJitterPauseAndPlayAreIdempotentSkipsAndStopRewind) {
    startPlaylist("pl-1");
    int changes = 0;
    double last = pc->currentTime;
    auto sub = pc->onChange([&] {
        if (pc->currentTime.get() != last) {
            ++changes;
            last = pc->currentTime;
        }
    });
    vp.advance(2.0);
    EXPECT_EQ(changes, 20);
    EXPECT_NEAR(pc->currentTime.get(), 2.0, 1e-9);
    events.clear();
    pc->play();  // already playing
    pc->pause();
    const int pauses = simPlayer()->pauseCalls;
    pc->pause();  // already paused
    EXPECT_EQ(simPlayer()->pauseCalls, pauses);
    EXPECT_FALSE(pc->shouldBePlayingAfterResume());
    EXPECT_TRUE(events.events().empty());
    pc->play();
    EXPECT_EQ(events.take(), (Events{kPlay}));
    EXPECT_TRUE(pc->shouldBePlayingAfterResume());
    vp.advance(4);
    pc->seekBackward(10);
    EXPECT_EQ(simPlayer()->seeks.back().target, 0);
    vp.advance(1);
    vp.runUntilIdle();
    const double now = simPlayer()->currentTime();
    pc->seekForward(100);  // past the end, not clamped here
    EXPECT_NEAR(simPlayer()->seeks.back().target, now + 100, 1e-9);
    startPlaylist("pl-1");
    vp.advance(3);
    pc->stop();
    EXPECT_FALSE(pc->isPlaying);
    EXPECT_EQ(simPlayer()->seeks.back().target, 0);
    EXPECT_EQ(simPlayer()->timeControlStatus(), TimeControlStatus::paused);
    // A seek while paused lands and the clock publishes the new position once.
    pc->seekTo(20);
    EXPECT_NE(pc->currentTime.get(), 20);
    vp.advance(0.1);
    EXPECT_EQ(pc->currentTime.get(), 20);
    // A stop during an ad wait does not rewind.
    vp.advance(1);
    pc->setAdRequired(true);
    const size_t seeks = simPlayer()->seeks.size();
    pc->stop();
    EXPECT_EQ(simPlayer()->seeks.size(), seeks);
}

TEST(FormatTime, MinutesAndSecondsWithNothingBelowZero) {
    const double inf = std::numeric_limits<double>::infinity();
    const std::pair<double, const char*> cases[] = {
        {std::nan(""), "00:00"}, {inf, "00:00"},  {-inf, "00:00"},
        {-5, "00:00"},           {0, "00:00"},    {59.9, "00:59"},
        {60, "01:00"},           {3600, "60:00"}, {3725, "62:05"},
        {1e7, "166666:40"}};
    for (const auto& [seconds, text] : cases)
        EXPECT_EQ(PlayerController::formatTime(seconds), text) << seconds;
    EXPECT_FALSE(PlayerController::formatTime(1e300).empty());
}

TEST_F(Core, OutOfRangeIndicesAndEmptyPlaylistsAreLoggedAndIgnored) {
    // No playlist, so no screen: play() would reload from a valid index.
    pc->setURLS({urlOf("a0"), urlOf("a1"), urlOf("a2")});
    pc->moveAndLoad(10, urlOf("a0"));  // beyond the three addresses
    events.clear();
    pc->nextVideo();
    EXPECT_TRUE(pc->disbleForwardButton);
    pc->playApprovedVideo();
    pc->prevVideo();  // 9: still outside
    EXPECT_GT(logs.countPrefix("⚠️ prevVideo: index 9"), 0u);
    pc->pause();
    pc->play();  // no reload from a bad index; the current item just resumes
    EXPECT_EQ(playingURL(), urlOf("a0"));
    EXPECT_EQ(events.take(), (Events{kPlay}));
    pc->moveAndLoad(-4, urlOf("a0"));
    pc->nextVideo();
    EXPECT_GT(logs.countPrefix("⚠️ nextVideo: index -3"), 0u);
    EXPECT_EQ(playingURL(), urlOf("a0"));
    // More addresses than playlist videos: the missing video is not indexed.
    startPlaylist("pl-1");
    pc->setURLS({urlOf("a0"), urlOf("a1"), urlOf("a2"), urlOf("b0"), urlOf("b1")});
    pc->playNextVideo(2);
    EXPECT_GT(logs.countPrefix("⚠️ playNextVideo: index 3"), 0u);
    pc->playNextVideo(-7);
    EXPECT_GT(logs.countPrefix("⚠️ playNextVideo: index -6"), 0u);
    EXPECT_EQ(playingURL(), urlOf("a0"));
    // A current index outside the playlist gives no video id rather than a crash.
    pc->moveAndLoad(99, urlOf("a0"));
    EXPECT_EQ(pc->currentVideoID(), "");
    pc->attachPlaylist(playlist);
    EXPECT_GT(logs.countPrefix("⚠️ attachPlaylist: current index 99"), 0u);
    subscriptionStatus() = SubscriptionStatus::premium;
    playlists().push_back(Playlist("pl-empty", "Empty", std::nullopt, std::nullopt, {}));
    startPlaylist("pl-2");
    vp.advance(2 * kClip + 1);  // b1 ends: next playlist is the empty one
    EXPECT_EQ(playlist->currentPlaylist->id, "pl-empty");
    EXPECT_GT(logs.countPrefix("⚠️ playNextPlaylist: playlist pl-empty has no videos"), 0u);
    pc->onPlaylistSelected(playlists().back());
    EXPECT_GT(logs.countPrefix("⚠️ onPlaylistSelected: index 0"), 0u);
}

TEST_F(Core, CleanupAtAnyMomentThenAnyOperation) {
    startPlaylist("pl-1");
    vp.advance(12.3);
    pc->cleanup();
    EXPECT_EQ(std::pair(pc->currentTime.get(), pc->duration.get()), std::pair(0.0, 0.0));
    EXPECT_FALSE(pc->isPlaying || simPlayer()->hasCurrentItem());
    vp.advance(40);  // no end of item, no tick from the old item
    EXPECT_EQ(events.count("OnVideoFinished"), 0u);
    pc->play();
    pc->pause();
    pc->seekTo(5);
    pc->seekForward(10);
    pc->seekBackward(10);
    pc->stop();
    pc->cleanup();
    pc->nextVideo();
    vp.advance(1);
    EXPECT_TRUE(pc->isPlaying);
    EXPECT_EQ(playingURL(), urlOf("a1"));
    // Cleanup between the dismissal request and its end, and through the service.
    pc->switchScreenBack_and_forth();
    pc->cleanup();
    vp.advance(1);
    service->cleanup();
    pc.reset();  // the service held the last other reference: the controller says goodbye
    EXPECT_TRUE(logs.contains(
        "🧼 PlayerController instance cleaned up – resources released successfully!"));
}

TEST_F(Core, DelayedTasksDoNothingOnceTheControllerIsGone) {
    startPlaylist("pl-1");
    pc->switchScreenBack_and_forth();
    pc->backToHome();
    pc->autoHideControls();
    pc->setMidRollConfig(policy({}, 0.05));
    pc->triggerMidRollAd(1);
    service->cleanup();
    pc.reset();
    events.clear();
    vp.advance(10);
    // Only the dismissal events that belong to the host still arrive.
    for (const auto& e : events.events()) EXPECT_EQ(e.method, "OnViewDismissed");
}

TEST_F(Core, HostDroppingTheControllerFromItsCallbackIsSafe) {
    subscriptionStatus() = SubscriptionStatus::premium;
    startPlaylist("pl-1");
    std::vector<std::string> seen;
    setEventObserverForTesting([&](std::string_view method, std::string_view) {
        seen.emplace_back(method);
        if (method == "OnVideoFinished" || method == "OnVideoClosed") service->cleanup();
    });
    std::weak_ptr<PlayerController> weak = pc;
    pc.reset();
    vp.advance(kClip);
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(seen, (std::vector<std::string>{"OnVideoFinished", "OnVideoPlay"}));
    service->setURLS({urlOf("a0")});
    service->playPlaylist("pl-1");
    weak = service->playerController;
    service->playerController->backToHome();
    EXPECT_TRUE(weak.expired());
    vp.advance(1);
    setEventObserverForTesting(nullptr);
}

TEST_F(Core, MakeWithoutPlayersSkipsEveryPlayerStep) {
    Platform bare = vp.platform();
    bare.players = nullptr;
    auto controller = PlayerController::make(bare);
    controller->attachPlaylist(playlist);
    EXPECT_EQ(controller->player.get(), nullptr);
    controller->setURLS({urlOf("a0")});
    controller->loadVideo(urlOf("a0"));
    controller->seekForward(10);
    controller->pause();
    controller->stop();
    controller->triggerMidRollAd(5);
    vp.advance(1);
    EXPECT_FALSE(controller->midRollResumePosition().has_value());
    EXPECT_EQ(events.count("OnMidRollAdRequired"), 1u);
}

// Which host addresses load and what the media player is handed for them.
TEST(PlayerAddress, AnyURIReferenceLoadsOnlyEmptyOrControlCharactersAreRefused) {
    const std::pair<const char*, const char*> cases[] = {
        {"media/e1.m3u8", "media/e1.m3u8"},                // relative: the player resolves it
        {"/srv/my videos/é.mp4", "/srv/my videos/é.mp4"},  // a path, as written
        {"not a url", "not a url"},
        {"http://cdn.example.com/a b/é.mp4?q=1 2#t=1#2",
         "http://cdn.example.com/a%20b/%C3%A9.mp4?q=1%202#t=1%232"},
        {"https://h/%20kept%zz%4", "https://h/%20kept%25zz%254"},
        {"http://[::1]:8080/a[1].mp4", "http://[::1]:8080/a%5B1%5D.mp4"},
        {"http://h/\"q\"<x>\\{|}^`", "http://h/%22q%22%3Cx%3E%5C%7B%7C%7D%5E%60"},
        {"edl://file=av://lavfi:testsrc2=size=640x360:rate=25,length=30",
         "edl://file=av://lavfi:testsrc2=size=640x360:rate=25,length=30"},
    };
    for (const auto& [given, handed] : cases) EXPECT_EQ(playerAddress(given), handed) << given;
    // Empty, or with a control character (the last is NEL, a C1 control): refused.
    for (const char* bad : {"", "http://h/a\tb", "clip\n.mp4", "clip\x7f.mp4", "clip\xC2\x85.mp4"})
        EXPECT_EQ(playerAddress(bad), std::nullopt) << bad;
    for (const auto& playlist : Playlist::allPlaylists())
        for (const auto& v : playlist.videos) EXPECT_EQ(playerAddress(v.url), v.url);
}

// A refused address keeps the item and the position: pl-1 becomes a0, a broken address, a2.
TEST_F(Core, RefusedLoadLeavesTheItemAndThePositionValidOnesLoadEncoded) {
    playlists()[0].videos[1].url = "http://h/\x01";
    const char* refused = "⚠️ Not a valid URL, nothing loaded: http://h/\x01";
    const std::vector<std::pair<const char*, std::function<void()>>> moves = {
        {"end of a0", [this] { vp.advance(kClip + 1); }},
        {"next button", [this] { pc->nextVideo(); }},
        {"rail tap", [this] { pc->onVideoSelected(video("pl-1", 1)); }},
    };
    subscriptionStatus() = SubscriptionStatus::premium;
    startPlaylist("pl-1");
    vp.advance(2);
    ASSERT_FALSE(pc->showLoading);
    events.clear();
    pc->loadVideo("not\ta url");
    EXPECT_TRUE(pc->showLoading && pc->isPlaying);
    EXPECT_EQ(playingURL(), urlOf("a0"));
    EXPECT_EQ(std::get<0>(vp.players->liveObservers()), 1u);
    EXPECT_TRUE(events.events().empty());
    vp.advance(1);
    EXPECT_GT(pc->currentTime.get(), 2.5);
    for (const auto& [name, move] : moves) {
        logs.clear();
        move();
        EXPECT_EQ(pc->currentIndex.get(), 0) << name;
        EXPECT_EQ(playlist->currentVideoID.get(), "a0") << name;
        EXPECT_TRUE(logs.contains(refused)) << name;
    }
    // A free viewer's tile ad: the ad is over, the chosen video cannot load.
    subscriptionStatus() = SubscriptionStatus::free;
    pc->onVideoSelected(video("pl-1", 1));
    vp.advance(1);
    service->AdCompletedResumePlayback();
    EXPECT_EQ(pc->currentIndex.get(), 0);
    logs.clear();
    service->AdCompletedResumePlayback();  // the refused choice is not tried again
    EXPECT_FALSE(logs.contains(refused));
    // A valid address reaches the player encoded, or as written if it is a path.
    pc->loadVideo("clips/first clip.mp4");
    EXPECT_EQ(playingURL(), "clips/first clip.mp4");
    pc->loadVideo("http://cdn/a b.mp4");
    EXPECT_EQ(playingURL(), "http://cdn/a%20b.mp4");
}

// A video that cannot play, broken off or making no progress: the viewer sees it, can go back
// or retry, and is taken back to the game on their behalf if they do neither.

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
