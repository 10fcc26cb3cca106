#include "Kavelin/Platform/Linux/MpvMediaPlayer.h"

#include <gtest/gtest.h>
#include <mpv/client.h>

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include "Kavelin/Platform/Linux/MpvMediaPlayerFactory.h"
#include "Kavelin/Platform/Linux/ThreadMainQueue.h"
#include "Kavelin/log/VPLogger.h"
#include "support/LocalHttpServer.h"
#include "support/ScopedEnv.h"
#include "support/ScratchDir.h"
#include "support/TestMedia.h"

namespace kavelin {
namespace {

using test::LocalHttpServer;
using test::TestMedia;
using Status = TimeControlStatus;
using namespace std::chrono_literals;
using Counter = std::shared_ptr<int>;

constexpr const char* kGenerated = "av://lavfi:testsrc2=duration=5:size=160x90:rate=25";

MpvMediaPlayer::Options quietOptions() {
    return {.videoOutput = "null", .audioOutput = "null"};
}

size_t entriesIn(const char* dir) {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(dir),
                                             std::filesystem::directory_iterator()));
}

// What the player reported, collected on the main queue and read by the test. Real
// decoding takes wall time: the waits only bound a failure.
class MpvMediaPlayerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        VPLogger::setSink(
            [this](const std::string& line) { record([&] { logs.push_back(line); }); });
    }
    void TearDown() override {
        queue->sync([&] { player.reset(); });
        VPLogger::setSink(nullptr);
        queue->shutdown();
    }

    template <class F>
    void record(F&& f) {
        {
            std::lock_guard lock(mutex);
            f();
        }
        changed.notify_all();
    }
    // Re-checks now and then too, for conditions outside the recorder (the server's).
    template <class Pred>
    bool waitFor(Pred pred, std::chrono::milliseconds bound = 20s) {
        const auto deadline = std::chrono::steady_clock::now() + bound;
        std::unique_lock lock(mutex);
        while (!pred()) {
            if (std::chrono::steady_clock::now() >= deadline) return false;
            changed.wait_for(lock, 10ms);
        }
        return true;
    }
    bool waitForCount(const Counter& n, int value) {
        return waitFor([&] { return *n == value; });
    }
    bool sawStatus(Status s) {
        return std::any_of(statuses.begin(), statuses.end(),
                           [&](auto& c) { return c.second == s; });
    }
    bool logged(const std::string& text) {
        return std::any_of(logs.begin(), logs.end(),
                           [&](auto& l) { return l.find(text) != std::string::npos; });
    }

    // Makes the player with every observer attached, bound to the item at `url`.
    void load(const std::string& url, bool andPlay = false) {
        queue->sync([&] {
            if (!player) player = std::make_shared<MpvMediaPlayer>(queue, quietOptions());
            player->replaceCurrentItem(url);
            observe();
            if (andPlay) player->play();
        });
    }
    void observe() {
        statusId = player->addStatusObserver([this](Status from, Status to) {
            record([&] { statuses.push_back({from, to}); });
        });
        timeId = player->addPeriodicTimeObserver(
            0.1, [this](double t) { record([&] { ticks.push_back(t); }); });
        durationId =
            player->observeDuration([this](double d) { record([&] { durations.push_back(d); }); });
        endId = player->addEndOfItemObserver([this] { record([&] { ++ends; }); });
    }
    void unobserve() {
        player->removeStatusObserver(statusId);
        player->removeTimeObserver(timeId);
        player->invalidateDurationObservation(durationId);
        player->removeEndOfItemObserver(endId);
    }
    // On the queue: replaces the item and plays it; `ends` counts its own ends.
    Counter playItem(std::optional<std::string> url, Counter ends = std::make_shared<int>(0)) {
        player->replaceCurrentItem(std::move(url));
        player->addEndOfItemObserver([this, ends] { record([&] { ++*ends; }); });
        player->play();
        return ends;
    }
    // Runs `action` on the queue at the first tick inside [from, to): mid-play for
    // sure, however late the test thread would have woken up.
    void atFirstTickBetween(double from, double to, std::function<void()> action) {
        auto pending = std::make_shared<std::function<void()>>(std::move(action));
        player->addPeriodicTimeObserver(0.1, [=](double t) {
            if (t >= from && t < to && *pending) std::exchange(*pending, nullptr)();
        });
    }
    std::function<void(bool)> seekDone() {
        return [this](bool f) { record([&] { seeks.push_back(f); }); };
    }
    template <class F>
    auto onQueue(F f) {
        decltype(f()) out{};
        queue->sync([&] { out = f(); });
        return out;
    }
    double position() {
        return onQueue([&] { return player->currentTime(); });
    }
    Status status() {
        return onQueue([&] { return player->timeControlStatus(); });
    }

    std::shared_ptr<ThreadMainQueue> queue = std::make_shared<ThreadMainQueue>();
    LocalHttpServer server{TestMedia::shared().directory()};
    std::shared_ptr<MpvMediaPlayer> player;
    MediaPlayer::ObserverId statusId = 0, timeId = 0, durationId = 0, endId = 0;
    // Guarded by `mutex`.
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::pair<Status, Status>> statuses;
    std::vector<double> ticks, durations;
    std::vector<bool> seeks;
    std::vector<std::string> logs;
    int ends = 0;
};

// The next item is opened ahead, yet mpv never moves on to it by itself: at the end
// the player holds the last frame, and only making the item current plays it.
TEST_F(MpvMediaPlayerTest, PlaysToTheEndOnceAndAPreparedItemStartsOnlyWhenMadeCurrent) {
    const std::string first = server.url(TestMedia::kClip2s);
    const std::string next = server.url(TestMedia::kClip2sOther);
    load(first);
    EXPECT_TRUE(onQueue([&] { return durations.size() == 1 && std::isnan(durations[0]); }))
        << "not-a-number delivered at registration";
    EXPECT_EQ(status(), Status::paused);
    queue->sync([&] {
        player->prepareNextItem(next);
        player->play();
    });
    // Nothing goes behind the current item before it has played a while. The handle
    // is the queue's to read; mpv itself may be asked from any thread.
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    mpv_handle* mpv = nullptr;
    bool early = false;
    double at = -1;
    while (at < 0.9 && std::chrono::steady_clock::now() < deadline) {
        if (!mpv) mpv = onQueue([&] { return player->handle(); });
        int64_t entries = 0;
        // Counted before the position is read: the position only grows meanwhile.
        if (mpv && mpv_get_property(mpv, "playlist-count", MPV_FORMAT_INT64, &entries) >= 0 &&
            mpv_get_property(mpv, "time-pos", MPV_FORMAT_DOUBLE, &at) >= 0 && at < 0.9 &&
            entries > 1)
            early = true;
        std::this_thread::sleep_for(5ms);
    }
    ASSERT_GE(at, 0.9) << "the current item never played";
    EXPECT_FALSE(early) << "the next item went to mpv before the current one played";
    ASSERT_TRUE(waitFor([&] { return ends >= 1; }));
    EXPECT_EQ(status(), Status::paused);
    EXPECT_NEAR(position(), TestMedia::kClip2sDuration, 0.15);
    {
        std::lock_guard lock(mutex);
        ASSERT_GE(durations.size(), 2u);
        EXPECT_NEAR(durations.back(), TestMedia::kClip2sDuration, 0.1);
        // 2 s at 0.1 s: about twenty ticks; a broken timer gives one or a flood.
        EXPECT_GE(ticks.size(), 8u);
        EXPECT_LE(ticks.size(), 30u);
        for (size_t i = 1; i < ticks.size(); ++i) EXPECT_GE(ticks[i], ticks[i - 1]);
        EXPECT_LE(ticks.back(), TestMedia::kClip2sDuration + 0.1);
        // The first report leaves paused for waiting (loading), then playing.
        ASSERT_FALSE(statuses.empty());
        EXPECT_EQ(statuses.front(),
                  std::make_pair(Status::paused, Status::waitingToPlayAtSpecifiedRate));
    }
    EXPECT_GE(server.requestCount(TestMedia::kClip2sOther), 1u) << "opened ahead";
    std::string path;
    EXPECT_FALSE(waitFor(
        [&] {
            char* now = mpv_get_property_string(mpv, "path");
            path = now ? now : "";
            mpv_free(now);
            return path != first;
        },
        1s))
        << "mpv moved on by itself to " << path;
    EXPECT_EQ(status(), Status::paused);
    Counter second = onQueue([&] {
        player->invalidateDurationObservation(durationId);
        return playItem(next);
    });
    ASSERT_TRUE(waitForCount(second, 1));

    // A generated source plays offline to its end too, heard only by its own
    // observers. A bare generator only grows its estimate while decoding; the edit
    // list is exact.
    Counter third = onQueue([&] {
        auto ends = playItem("edl://file=av://lavfi:testsrc2=size=320x180:rate=25,length=1.5");
        player->observeDuration([this](double d) { record([&] { durations.push_back(d); }); });
        return ends;
    });
    ASSERT_TRUE(waitForCount(third, 1));
    std::lock_guard lock(mutex);
    EXPECT_EQ(ends, 1);
    EXPECT_NEAR(durations.back(), 1.5, 1e-6);
}

TEST_F(MpvMediaPlayerTest, ReplacingOrClearingMidPlayDoesNotReportEnd) {
    load(server.url(TestMedia::kClip3s));
    auto replacement = std::make_shared<int>(0), later = std::make_shared<int>(0);
    Counter cleared;
    size_t durationsBefore = 0;
    queue->sync([&] {
        // Superseded by the replacement, the pending seek reports false.
        atFirstTickBetween(0.5, 2.5, [&] {
            player->seek(2.5, 0, 0, seekDone());
            durationsBefore = durations.size();
            playItem(server.url(TestMedia::kClip2sOther), replacement);
        });
        player->play();
    });
    ASSERT_TRUE(waitForCount(replacement, 1));
    {
        std::lock_guard lock(mutex);
        EXPECT_EQ(ends, 0) << "the replaced item did not play to its end";
        EXPECT_EQ(durations.size(), durationsBefore) << "duration observation is per item";
        EXPECT_EQ(seeks, std::vector<bool>{false});
    }

    // Cleared mid-play: no end either, and the player holds nothing. A later item
    // running to its end shows the cleared one stayed silent.
    queue->sync([&] {
        cleared = playItem(server.url(TestMedia::kClip2s));
        atFirstTickBetween(0.3, 1.5, [&] {
            player->replaceCurrentItem(std::nullopt);
            EXPECT_FALSE(player->hasCurrentItem());
            EXPECT_EQ(player->currentTime(), 0.0);
            playItem(server.url(TestMedia::kClip2sOther), later);
        });
    });
    ASSERT_TRUE(waitForCount(later, 1));
    std::lock_guard lock(mutex);
    EXPECT_EQ(*cleared, 0);
}

TEST_F(MpvMediaPlayerTest, ClearingThenLoadingAtOnceAlwaysStartsTheNewItem) {
    // The controller's teardown and load run back to back: pause, rewind, clear,
    // then the next item. Requests reaching mpv out of order stopped the new item
    // before it started, now and then; repeated so such a race shows.
    // From the second round on, mpv's log (every request it runs) shows the turn's
    // requests came down to the load and play: nothing paused on the way, so the
    // load went out without waiting for any other answer.
    queue->sync([&] { player = std::make_shared<MpvMediaPlayer>(queue, quietOptions()); });
    std::unique_ptr<mpv_handle, void (*)(mpv_handle*)> watcher(nullptr, mpv_destroy);
    auto requestsRun = [&] {
        std::vector<std::string> run;
        for (mpv_event* e; (e = mpv_wait_event(watcher.get(), 0))->event_id != MPV_EVENT_NONE;) {
            const std::string text = e->event_id == MPV_EVENT_LOG_MESSAGE
                                         ? static_cast<mpv_event_log_message*>(e->data)->text
                                         : "";
            if (text.rfind("Set property: pause=", 0) == 0 || text.rfind("Run command:", 0) == 0)
                run.push_back(text.substr(0, text.find_first_of(",\n")));
        }
        return run;
    };
    for (int round = 0; round < 12; ++round) {
        SCOPED_TRACE(round);
        if (round == 1) {
            queue->sync([&] { watcher.reset(mpv_create_client(player->handle(), "watcher")); });
            mpv_request_log_messages(watcher.get(), "debug");
        }
        queue->sync([&] {
            if (round) unobserve();
            statuses.clear();
            player->pause();
            player->seek(0, 0, 0);
            player->replaceCurrentItem(std::nullopt);
            player->replaceCurrentItem(kGenerated);
            observe();
            player->play();
        });
        ASSERT_TRUE(waitFor([&] { return sawStatus(Status::playing); }));
        if (watcher) {
            EXPECT_EQ(requestsRun(), (std::vector<std::string>{"Run command: loadfile",
                                                               "Set property: pause=false -> 1"}));
        }
    }
}

TEST_F(MpvMediaPlayerTest, PausedSeeksLandAndRemovedObserversOrDestroyedPlayersStaySilent) {
    load(server.url(TestMedia::kClip3s), true);
    ASSERT_TRUE(waitFor([&] { return sawStatus(Status::playing); }));
    queue->sync([&] {
        player->pause();
        EXPECT_EQ(player->timeControlStatus(), Status::paused) << "pause reads back at once";
    });
    ASSERT_TRUE(waitFor([&] { return statuses.back().second == Status::paused; }));

    size_t ticksBefore = onQueue([&] { return ticks.size(); });
    queue->sync([&] { player->seek(2.2, 0, 0, seekDone()); });
    ASSERT_TRUE(waitFor([&] { return !seeks.empty(); }));
    {
        std::lock_guard lock(mutex);
        EXPECT_TRUE(seeks[0]);
        // Paused, the clock stands still: the only tick announces where the seek landed.
        ASSERT_EQ(ticks.size(), ticksBefore + 1);
        EXPECT_NEAR(ticks.back(), 2.2, 0.05);
    }
    EXPECT_NEAR(position(), 2.2, 0.05);

    // Two seeks in one task, so the first cannot land before the second supersedes it.
    queue->sync([&] {
        player->seek(0.5, 0, 0, seekDone());
        player->seek(1.4, 0, 0, seekDone());
    });
    ASSERT_TRUE(waitFor([&] { return seeks.size() == 3; }));
    EXPECT_EQ(onQueue([&] { return seeks; }), (std::vector<bool>{true, false, true}));
    EXPECT_NEAR(position(), 1.4, 0.05);
    EXPECT_EQ(status(), Status::paused);

    ticksBefore = onQueue([&] { return ticks.size(); });
    queue->sync([&] { player->play(); });
    ASSERT_TRUE(waitFor([&] { return statuses.back().second == Status::playing; }));
    ASSERT_TRUE(waitFor([&] { return ticks.size() >= ticksBefore + 4; }));
    {
        std::lock_guard lock(mutex);
        EXPECT_GT(ticks.back(), 1.4);
        // Every report is a real change, and each starts where the previous ended.
        for (size_t i = 0; i < statuses.size(); ++i) {
            EXPECT_NE(statuses[i].first, statuses[i].second);
            if (i) {
                EXPECT_EQ(statuses[i].first, statuses[i - 1].second);
            }
        }
    }

    // A second player playing to its end is the clock that shows the first one
    // neither ticks after removal nor calls back after being destroyed.
    queue->sync([&] {
        unobserve();
        ticksBefore = ticks.size();
    });
    auto other = std::make_shared<MpvMediaPlayer>(queue, quietOptions());
    int destroyedCalls = 0;
    Counter otherEnds = onQueue([&] {
        player->addPeriodicTimeObserver(0.1, [&](double) { ++destroyedCalls; });
        player->addStatusObserver([&](Status, Status) { ++destroyedCalls; });
        player->seek(1.0, 0, 0, [&](bool) { ++destroyedCalls; });
        player.reset();
        std::swap(player, other);
        return playItem(server.url(TestMedia::kClip2s));
    });
    ASSERT_TRUE(waitForCount(otherEnds, 1));
    std::lock_guard lock(mutex);
    EXPECT_EQ(ticks.size(), ticksBefore);
    EXPECT_EQ(destroyedCalls, 0);
}

// mpv starts in the background: the item, seek and play given meanwhile reach it in
// order, and an item replaced before it was up is never fetched.
TEST_F(MpvMediaPlayerTest, HlsStreamPlaysFromASeekRequestedBeforeMpvOrTheStreamWereUp) {
    queue->sync([&] {
        player = std::make_shared<MpvMediaPlayer>(queue, quietOptions());
        EXPECT_EQ(player->handle(), nullptr);
        player->replaceCurrentItem(server.url(TestMedia::kClip2s));
        player->replaceCurrentItem(server.url(TestMedia::kHls));
        observe();
        player->seek(2.5, 0, 0, seekDone());
        player->play();
    });
    ASSERT_TRUE(waitFor([&] { return ends == 1; }));
    EXPECT_EQ(server.requestCount(TestMedia::kClip2s), 0u);
    std::lock_guard lock(mutex);
    EXPECT_EQ(seeks, std::vector<bool>{true});
    EXPECT_NEAR(durations.back(), TestMedia::kHlsDuration, 0.1);
    ASSERT_FALSE(ticks.empty());
    EXPECT_GE(ticks.front(), 2.4) << "playback started at the seek target";
    EXPECT_GE(server.requestCount("/hls/seg03.ts"), 1u);
}

TEST_F(MpvMediaPlayerTest, FailingAddressesWarnOnceAndAStalledOneGivesWayToTheNextItem) {
    server.setResponse("/garbage.mp4", {.status = 200, .body = std::string(4096, 'x')});
    const std::pair<std::string, std::string> cases[] = {
        {server.url("/missing.mp4"), "404"},
        {LocalHttpServer::refusedURL("/clip.mp4"), "Connection refused"},
        {server.url("/garbage.mp4"), "format"}};
    for (const auto& [url, reason] : cases) {
        SCOPED_TRACE(url);
        load(url, true);
        const std::string prefix = "⚠️ Failed to load " + url + ": ";
        ASSERT_TRUE(waitFor([&] { return logged(prefix); }));
        queue->sync([&] {
            EXPECT_TRUE(player->hasCurrentItem());
            EXPECT_EQ(player->timeControlStatus(), Status::waitingToPlayAtSpecifiedRate);
            unobserve();
        });
        std::lock_guard lock(mutex);
        size_t count = 0;
        for (auto& l : logs) {
            if (l.find(prefix) == std::string::npos) continue;
            ++count;
            EXPECT_NE(l.find(reason, l.find(prefix) + prefix.size()), std::string::npos)
                << "the cause follows: " << l;
            EXPECT_NE(l.find("[WARNING]"), std::string::npos);
        }
        EXPECT_EQ(count, 1u);
        EXPECT_EQ(ends, 0);
    }
    // The server sits on this request for longer than the test may take, so only a
    // replace that does not wait for that load can finish in time; a good item does.
    server.setResponse("/stalled.mp4", {.body = "", .delaySeconds = 120});
    load(server.url("/stalled.mp4"), true);
    ASSERT_TRUE(waitFor([&] { return server.requestCount("/stalled.mp4") > 0; }));
    EXPECT_EQ(status(), Status::waitingToPlayAtSpecifiedRate);
    ASSERT_TRUE(waitForCount(onQueue([&] { return playItem(server.url(TestMedia::kClip2s)); }), 1));
    std::lock_guard lock(mutex);
    EXPECT_EQ(ends, 0);
    EXPECT_FALSE(logged("stalled.mp4")) << "an abandoned load is not a failure";
}

TEST_F(MpvMediaPlayerTest, HundredCreateDestroyCyclesLeaveNoThreadsOrHandles) {
    auto cycle = [&](bool withItem) {
        auto up = std::make_shared<bool>(false);
        std::shared_ptr<MpvMediaPlayer> p;
        queue->sync([&] {
            p = std::make_shared<MpvMediaPlayer>(queue, quietOptions());
            p->whenStarted([this, up] { record([&] { *up = true; }); });
            if (withItem) {
                p->replaceCurrentItem(kGenerated);
                p->play();
            }
        });
        ASSERT_TRUE(waitFor([&] { return *up; }));
        queue->sync([&] { p.reset(); });
    };
    cycle(true);  // first use loads mpv's libraries and their one-time threads
    MpvMediaPlayer::finishBackgroundWork();
    const size_t threads = entriesIn("/proc/self/task"), fds = entriesIn("/proc/self/fd");
    for (int i = 0; i < 100; ++i) cycle(i % 10 == 0);
    MpvMediaPlayer::finishBackgroundWork();  // the last ones are released there
    EXPECT_EQ(entriesIn("/proc/self/task"), threads);
    EXPECT_EQ(entriesIn("/proc/self/fd"), fds);
}

TEST_F(MpvMediaPlayerTest, FactoryHandsOutHookedPlayersOnTheGivenQueue) {
    MpvMediaPlayerFactory factory(queue, quietOptions());
    int hooked = 0;
    factory.setPlayerCreatedHook([&](MpvMediaPlayer& p) {
        EXPECT_NE(p.handle(), nullptr) << "hooked once mpv is up";
        record([&] { ++hooked; });
    });
    std::shared_ptr<MediaPlayer> a, b;
    queue->sync([&] {
        a = factory.makePlayer();
        b = factory.makePlayer();
    });
    EXPECT_TRUE(waitFor([&] { return hooked == 2; }));
    EXPECT_NE(a, b);
    auto* mpv = dynamic_cast<MpvMediaPlayer*>(a.get());
    ASSERT_NE(mpv, nullptr);
    // The embedding is locked down: nothing from the user's mpv set-up, no scripts
    // or downloads, no key bindings, and a bounded wait on the network.
    for (const std::string setting :
         {"vo=null", "options/config=no", "options/ytdl=no", "options/load-scripts=no",
          "options/osc=no", "options/input-default-bindings=no", "options/idle=yes",
          "options/keep-open=always", "options/prefetch-playlist=yes", "options/terminal=no",
          "options/network-timeout=10.000000"}) {
        const size_t eq = setting.find('=');
        char* actual = mpv_get_property_string(mpv->handle(), setting.substr(0, eq).c_str());
        EXPECT_EQ(actual ? std::string(actual) : "(unset)", setting.substr(eq + 1)) << setting;
        mpv_free(actual);
    }
    queue->sync([&] {
        a.reset();
        b.reset();
    });
}

TEST(MpvMediaPlayerOptionsTest, VideoAndAudioOutputsFollowTheEnvironment) {
    auto options = [] { return MpvMediaPlayer::Options::fromEnvironment(); };
    {
        ScopedEnv headless("KAVELIN_HEADLESS", "1"), display("DISPLAY", ":0");
        EXPECT_EQ(options().videoOutput, "null");
    }
    ScopedEnv headless("KAVELIN_HEADLESS", nullptr), display("DISPLAY", ":0");
    EXPECT_EQ(options().videoOutput, "libmpv");
    {
        ScopedEnv x("DISPLAY", nullptr), wayland("WAYLAND_DISPLAY", nullptr);
        EXPECT_EQ(options().videoOutput, "null");
    }

    // Audio goes only to sound servers that exist, then to silence.
    ScratchDir runtime("kavelin-runtime");
    std::filesystem::create_directories(runtime.path / "pulse");
    ScopedEnv runtimeDir("XDG_RUNTIME_DIR", runtime.path.c_str()), pulse("PULSE_SERVER", nullptr);
    const auto withoutServer = options().audioOutput;
    EXPECT_TRUE(withoutServer == "null" || withoutServer == "alsa,null") << withoutServer;
    std::ofstream(runtime.path / "pulse" / "native") << "";
    const auto withPulse = options().audioOutput;
    EXPECT_TRUE(withPulse.starts_with("pulse,")) << withPulse;
    EXPECT_TRUE(withPulse.ends_with(",null"));
}

}  // namespace
}  // namespace kavelin
