#include "Kavelin/Platform/MpvMediaPlayer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <mpv/client.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>

#include "Kavelin/Platform/MpvMediaPlayerFactory.h"
#include "Kavelin/Platform/ThreadMainQueue.h"
#include "Kavelin/log/VPLogger.h"
#include "support/LocalHttpServer.h"
#include "support/TestMedia.h"

namespace kavelin {
namespace {

using test::LocalHttpServer;
using test::TestMedia;
using Status = TimeControlStatus;
using namespace std::chrono_literals;

// Real decoding takes wall time; the limits only bound a failure, they are not
// expectations of speed.
constexpr auto kTimeout = 20s;

MpvMediaPlayer::Options quietOptions() {
    MpvMediaPlayer::Options o;
    o.videoOutput = "null";
    o.audioOutput = "null";
    return o;
}

size_t entriesIn(const char* dir) {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(dir),
                                             std::filesystem::directory_iterator()));
}

// What one player reported, collected on the main queue and read by the test.
struct Recorder {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::pair<Status, Status>> statuses;
    std::vector<double> ticks;
    std::vector<double> durations;
    int ends = 0;
    std::vector<bool> seeks;

    template <class F>
    void record(F&& f) {
        {
            std::lock_guard lock(mutex);
            f();
        }
        changed.notify_all();
    }
    // Re-checks now and then as well, for conditions outside the recorder (the
    // server's request counts).
    template <class Pred>
    bool waitFor(Pred pred, std::chrono::seconds timeout = kTimeout) {
        auto deadline = std::chrono::steady_clock::now() + timeout;
        std::unique_lock lock(mutex);
        while (!pred()) {
            if (std::chrono::steady_clock::now() >= deadline) return false;
            changed.wait_for(lock, 10ms);
        }
        return true;
    }
    bool sawStatus(Status s) {
        for (auto& [from, to] : statuses)
            if (to == s) return true;
        return false;
    }
};

class MpvMediaPlayerTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { TestMedia::shared(); }

    void SetUp() override {
        server = std::make_unique<LocalHttpServer>(TestMedia::shared().directory());
        VPLogger::setSink(
            [this](const std::string& line) { rec.record([&] { logs.push_back(line); }); });
    }

    void TearDown() override {
        queue->sync([&] { player.reset(); });
        VPLogger::setSink(nullptr);
        queue->shutdown();
    }

    // Makes the player with every observer attached, bound to the item at `url`.
    void load(const std::string& url) {
        queue->sync([&] {
            if (!player) player = std::make_shared<MpvMediaPlayer>(queue, quietOptions());
            player->replaceCurrentItem(url);
            observe();
        });
    }

    void observe() {
        statusId = player->addStatusObserver([this](Status from, Status to) {
            rec.record([&] { rec.statuses.push_back({from, to}); });
        });
        timeId = player->addPeriodicTimeObserver(
            0.1, [this](double t) { rec.record([&] { rec.ticks.push_back(t); }); });
        durationId = player->observeDuration(
            [this](double d) { rec.record([&] { rec.durations.push_back(d); }); });
        endId = player->addEndOfItemObserver([this] { rec.record([&] { ++rec.ends; }); });
    }

    void unobserve() {
        player->removeStatusObserver(statusId);
        player->removeTimeObserver(timeId);
        player->invalidateDurationObservation(durationId);
        player->removeEndOfItemObserver(endId);
    }

    void seek(double t, double tolerance = 0) {
        queue->sync([&] {
            player->seek(t, tolerance, tolerance,
                         [this](bool f) { rec.record([&] { rec.seeks.push_back(f); }); });
        });
    }

    template <class T>
    T onQueue(std::function<T()> f) {
        T out{};
        queue->sync([&] { out = f(); });
        return out;
    }
    double position() {
        return onQueue<double>([&] { return player->currentTime(); });
    }
    bool logged(const std::string& text) {
        for (auto& l : logs)
            if (l.find(text) != std::string::npos) return true;
        return false;
    }

    std::shared_ptr<ThreadMainQueue> queue = std::make_shared<ThreadMainQueue>();
    std::unique_ptr<LocalHttpServer> server;
    std::shared_ptr<MpvMediaPlayer> player;
    Recorder rec;
    std::vector<std::string> logs;  // guarded by rec.mutex
    MediaPlayer::ObserverId statusId = 0, timeId = 0, durationId = 0, endId = 0;
};

TEST_F(MpvMediaPlayerTest, PlaysAnItemToItsEndReportingDurationTicksAndOneEnd) {
    load(server->url(TestMedia::kClip2s));
    {
        std::lock_guard lock(rec.mutex);
        ASSERT_EQ(rec.durations.size(), 1u) << "initial value delivered at registration";
        EXPECT_TRUE(std::isnan(rec.durations[0]));
    }
    EXPECT_EQ(onQueue<Status>([&] { return player->timeControlStatus(); }), Status::paused);
    queue->sync([&] { player->play(); });
    ASSERT_TRUE(rec.waitFor([&] { return rec.ends >= 1; }));

    std::lock_guard lock(rec.mutex);
    ASSERT_GE(rec.durations.size(), 2u);
    EXPECT_NEAR(rec.durations.back(), TestMedia::kClip2sDuration, 0.1);
    // 2 s at 0.1 s: about twenty ticks; a broken timer gives one or a flood.
    EXPECT_GE(rec.ticks.size(), 8u);
    EXPECT_LE(rec.ticks.size(), 30u);
    for (size_t i = 1; i < rec.ticks.size(); ++i) EXPECT_GE(rec.ticks[i], rec.ticks[i - 1]);
    EXPECT_LE(rec.ticks.back(), TestMedia::kClip2sDuration + 0.1);
    EXPECT_TRUE(rec.sawStatus(Status::playing));
    // The first report leaves paused for waiting (loading), then playing.
    ASSERT_FALSE(rec.statuses.empty());
    EXPECT_EQ(rec.statuses.front(),
              std::make_pair(Status::paused, Status::waitingToPlayAtSpecifiedRate));
}

TEST_F(MpvMediaPlayerTest, EndIsReportedOncePerItemAndOnlyToItsOwnObservers) {
    load(server->url(TestMedia::kClip2s));
    int firstItemEnds = 0;
    queue->sync([&] {
        player->addEndOfItemObserver([&] { rec.record([&] { ++firstItemEnds; }); });
        player->play();
    });
    ASSERT_TRUE(rec.waitFor([&] { return rec.ends == 1; }));
    // Ends at the last frame, paused there.
    EXPECT_EQ(onQueue<Status>([&] { return player->timeControlStatus(); }), Status::paused);
    EXPECT_NEAR(position(), TestMedia::kClip2sDuration, 0.15);

    // The next item plays to its end too; observers of the first hear nothing more.
    int secondItemEnds = 0;
    queue->sync([&] {
        player->replaceCurrentItem(server->url(TestMedia::kClip2sOther));
        player->addEndOfItemObserver([&] { rec.record([&] { ++secondItemEnds; }); });
        player->play();
    });
    ASSERT_TRUE(rec.waitFor([&] { return secondItemEnds == 1; }));
    std::lock_guard lock(rec.mutex);
    EXPECT_EQ(firstItemEnds, 1);
    EXPECT_EQ(rec.ends, 1);
}

TEST_F(MpvMediaPlayerTest, ReplacingOrClearingMidPlayDoesNotReportEnd) {
    load(server->url(TestMedia::kClip3s));
    queue->sync([&] { player->play(); });
    ASSERT_TRUE(rec.waitFor([&] { return !rec.ticks.empty() && rec.ticks.back() >= 0.5; }));

    // Superseded by the replacement, the pending seek reports false.
    seek(2.5);
    int replacementEnds = 0;
    size_t durationsBefore = 0;
    queue->sync([&] {
        durationsBefore = rec.durations.size();
        player->replaceCurrentItem(server->url(TestMedia::kClip2sOther));
        player->addEndOfItemObserver([&] { rec.record([&] { ++replacementEnds; }); });
        player->play();
    });
    ASSERT_TRUE(rec.waitFor([&] { return replacementEnds == 1; }));
    {
        std::lock_guard lock(rec.mutex);
        EXPECT_EQ(rec.ends, 0) << "the replaced item did not play to its end";
        EXPECT_EQ(rec.durations.size(), durationsBefore) << "duration observation is per item";
        ASSERT_EQ(rec.seeks.size(), 1u);
        EXPECT_FALSE(rec.seeks[0]);
    }

    // Clearing mid-play: no end either, and the player holds nothing.
    int clearedEnds = 0;
    queue->sync([&] {
        player->replaceCurrentItem(server->url(TestMedia::kClip2s));
        player->addEndOfItemObserver([&] { rec.record([&] { ++clearedEnds; }); });
        player->play();
    });
    ASSERT_TRUE(rec.waitFor([&] { return rec.ticks.back() >= 0.3 && rec.ticks.back() < 1.5; }));
    queue->sync([&] { player->replaceCurrentItem(std::nullopt); });
    EXPECT_FALSE(onQueue<bool>([&] { return player->hasCurrentItem(); }));
    EXPECT_EQ(position(), 0.0);
    // A later item running to its end shows the cleared one stayed silent.
    int laterEnds = 0;
    queue->sync([&] {
        player->replaceCurrentItem(server->url(TestMedia::kClip2sOther));
        player->addEndOfItemObserver([&] { rec.record([&] { ++laterEnds; }); });
        player->play();
    });
    ASSERT_TRUE(rec.waitFor([&] { return laterEnds == 1; }));
    std::lock_guard lock(rec.mutex);
    EXPECT_EQ(clearedEnds, 0);
}

TEST_F(MpvMediaPlayerTest, AStalledLoadDoesNotHoldUpItsReplacement) {
    // The server sits on the first request for longer than the test may take, so
    // only a replace that does not wait for that load can finish in time.
    server->setResponse("/stalled.mp4", {.body = "", .delaySeconds = 120});
    load(server->url("/stalled.mp4"));
    queue->sync([&] { player->play(); });
    ASSERT_TRUE(rec.waitFor([&] { return server->requestCount("/stalled.mp4") > 0; }));
    EXPECT_EQ(onQueue<Status>([&] { return player->timeControlStatus(); }),
              Status::waitingToPlayAtSpecifiedRate);

    int replacementEnds = 0;
    queue->sync([&] {
        player->replaceCurrentItem(server->url(TestMedia::kClip2s));
        player->addEndOfItemObserver([&] { rec.record([&] { ++replacementEnds; }); });
        player->play();
    });
    ASSERT_TRUE(rec.waitFor([&] { return replacementEnds == 1; }));
    std::lock_guard lock(rec.mutex);
    EXPECT_EQ(rec.ends, 0);
    EXPECT_FALSE(logged("stalled.mp4")) << "an abandoned load is not a failure";
}

TEST_F(MpvMediaPlayerTest, ClearingThenLoadingAtOnceAlwaysStartsTheNewItem) {
    // The controller's teardown and load run back to back: pause, rewind, clear,
    // then the next item. Requests reaching mpv out of order stopped the new item
    // before it started, now and then; repeated so such a race shows.
    queue->sync([&] { player = std::make_shared<MpvMediaPlayer>(queue, quietOptions()); });
    for (int round = 0; round < 12; ++round) {
        SCOPED_TRACE(round);
        queue->sync([&] {
            if (round) unobserve();
            rec.statuses.clear();
            player->pause();
            player->seek(0, 0, 0);
            player->replaceCurrentItem(std::nullopt);
            player->replaceCurrentItem("av://lavfi:testsrc2=duration=5:size=160x90:rate=25");
            observe();
            player->play();
        });
        ASSERT_TRUE(rec.waitFor([&] { return rec.sawStatus(Status::playing); }));
    }
}

TEST_F(MpvMediaPlayerTest, ExactSeekLandsOnTargetTicksOnceAndCompletes) {
    load(server->url(TestMedia::kClip3s));
    queue->sync([&] { player->play(); });
    ASSERT_TRUE(rec.waitFor([&] { return rec.sawStatus(Status::playing); }));
    queue->sync([&] { player->pause(); });
    ASSERT_TRUE(rec.waitFor([&] { return rec.statuses.back().second == Status::paused; }));

    size_t ticksBefore = 0;
    queue->sync([&] { ticksBefore = rec.ticks.size(); });
    seek(2.2);
    ASSERT_TRUE(rec.waitFor([&] { return !rec.seeks.empty(); }));
    {
        std::lock_guard lock(rec.mutex);
        EXPECT_TRUE(rec.seeks[0]);
        // Paused: the only tick is the one announcing where the seek landed.
        ASSERT_EQ(rec.ticks.size(), ticksBefore + 1);
        EXPECT_NEAR(rec.ticks.back(), 2.2, 0.05);
    }
    EXPECT_NEAR(position(), 2.2, 0.05);

    // Two seeks in a row: the first is superseded, the second lands.
    seek(0.5);
    seek(1.4);
    ASSERT_TRUE(rec.waitFor([&] { return rec.seeks.size() == 3; }));
    {
        std::lock_guard lock(rec.mutex);
        EXPECT_FALSE(rec.seeks[1]);
        EXPECT_TRUE(rec.seeks[2]);
    }
    EXPECT_NEAR(position(), 1.4, 0.05);
    EXPECT_EQ(onQueue<Status>([&] { return player->timeControlStatus(); }), Status::paused);
}

TEST_F(MpvMediaPlayerTest, PauseAndPlayReportStatusTransitionsAndStopTheClock) {
    load(server->url(TestMedia::kClip3s));
    queue->sync([&] { player->play(); });
    ASSERT_TRUE(rec.waitFor([&] { return rec.sawStatus(Status::playing); }));
    queue->sync([&] {
        player->pause();
        EXPECT_EQ(player->timeControlStatus(), Status::paused) << "pause reads back at once";
    });
    ASSERT_TRUE(rec.waitFor([&] { return rec.statuses.back().second == Status::paused; }));
    size_t ticksAtPause = 0;
    double positionAtPause = 0;
    queue->sync([&] {
        ticksAtPause = rec.ticks.size();
        positionAtPause = player->currentTime();
    });
    // A seek to where it stands takes a round trip through mpv: the clock stays
    // still meanwhile apart from the seek's own tick.
    seek(positionAtPause);
    ASSERT_TRUE(rec.waitFor([&] { return !rec.seeks.empty(); }));
    {
        std::lock_guard lock(rec.mutex);
        EXPECT_EQ(rec.ticks.size(), ticksAtPause + 1);
    }

    queue->sync([&] { player->play(); });
    ASSERT_TRUE(rec.waitFor([&] { return rec.statuses.back().second == Status::playing; }));
    ASSERT_TRUE(rec.waitFor([&] { return rec.ticks.size() >= ticksAtPause + 4; }));
    std::lock_guard lock(rec.mutex);
    EXPECT_GT(rec.ticks.back(), positionAtPause);
    // Every report is a real change, and each starts where the previous ended.
    for (size_t i = 0; i < rec.statuses.size(); ++i) {
        EXPECT_NE(rec.statuses[i].first, rec.statuses[i].second);
        if (i) {
            EXPECT_EQ(rec.statuses[i].first, rec.statuses[i - 1].second);
        }
    }
}

TEST_F(MpvMediaPlayerTest, RemovedObserversAndDestroyedPlayersStaySilent) {
    load(server->url(TestMedia::kClip3s));
    queue->sync([&] { player->play(); });
    ASSERT_TRUE(rec.waitFor([&] { return rec.ticks.size() >= 3; }));
    size_t ticks = 0;
    queue->sync([&] {
        unobserve();
        ticks = rec.ticks.size();
    });
    // A second player playing to its end is the clock that shows the first one
    // neither ticks after removal nor calls back after being destroyed.
    auto other = std::make_shared<MpvMediaPlayer>(queue, quietOptions());
    int otherEnds = 0;
    int destroyedCalls = 0;
    queue->sync([&] {
        other->replaceCurrentItem(server->url(TestMedia::kClip2s));
        other->addEndOfItemObserver([&] { rec.record([&] { ++otherEnds; }); });
        other->play();
        player->addPeriodicTimeObserver(0.1, [&](double) { ++destroyedCalls; });
        player->addStatusObserver([&](Status, Status) { ++destroyedCalls; });
        player->seek(1.0, 0, 0, [&](bool) { ++destroyedCalls; });
        player.reset();
    });
    ASSERT_TRUE(rec.waitFor([&] { return otherEnds == 1; }));
    queue->sync([&] { other.reset(); });
    std::lock_guard lock(rec.mutex);
    EXPECT_EQ(rec.ticks.size(), ticks);
    EXPECT_EQ(destroyedCalls, 0);
}

TEST_F(MpvMediaPlayerTest, HlsStreamPlaysFromASeekRequestedBeforeItLoaded) {
    load(server->url(TestMedia::kHls));
    // Requested while the stream is still opening: held until it has loaded.
    seek(2.5);
    queue->sync([&] { player->play(); });
    ASSERT_TRUE(rec.waitFor([&] { return rec.ends == 1; }));
    std::lock_guard lock(rec.mutex);
    ASSERT_FALSE(rec.seeks.empty());
    EXPECT_TRUE(rec.seeks[0]);
    EXPECT_NEAR(rec.durations.back(), TestMedia::kHlsDuration, 0.1);
    ASSERT_FALSE(rec.ticks.empty());
    EXPECT_GE(rec.ticks.front(), 2.4) << "playback started at the seek target";
    EXPECT_GE(server->requestCount("/hls/seg03.ts"), 1u);
}

TEST_F(MpvMediaPlayerTest, GeneratedSourcePlaysOfflineWithItsEditListLength) {
    load("edl://file=av://lavfi:testsrc2=size=320x180:rate=25,length=1.5");
    queue->sync([&] { player->play(); });
    ASSERT_TRUE(rec.waitFor([&] { return rec.ends == 1; }));
    std::lock_guard lock(rec.mutex);
    // A bare generator only grows its estimate while decoding; the edit list is exact.
    EXPECT_NEAR(rec.durations.back(), 1.5, 1e-6);
}

TEST_F(MpvMediaPlayerTest, FailingAddressesLogOneWarningAndKeepWaiting) {
    // A port nobody listens on: bound, then released.
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    ::close(fd);
    server->setResponse("/garbage.mp4", {.status = 200, .body = std::string(4096, 'x')});

    const std::pair<std::string, std::string> cases[] = {
        {server->url("/missing.mp4"), "404"},
        {"http://127.0.0.1:" + std::to_string(ntohs(addr.sin_port)) + "/clip.mp4",
         "Connection refused"},
        {server->url("/garbage.mp4"), "format"},
    };
    for (const auto& [url, reason] : cases) {
        SCOPED_TRACE(url);
        load(url);
        queue->sync([&] { player->play(); });
        const std::string prefix = "⚠️ Failed to load " + url + ": ";
        ASSERT_TRUE(rec.waitFor([&] { return logged(prefix); }));
        queue->sync([&] {
            EXPECT_TRUE(player->hasCurrentItem());
            EXPECT_EQ(player->timeControlStatus(), Status::waitingToPlayAtSpecifiedRate);
            unobserve();
        });
        std::lock_guard lock(rec.mutex);
        size_t count = 0;
        for (auto& l : logs) {
            if (l.find(prefix) == std::string::npos) continue;
            ++count;
            EXPECT_NE(l.find(reason, l.find(prefix) + prefix.size()), std::string::npos)
                << "the cause follows: " << l;
            EXPECT_NE(l.find("[WARNING]"), std::string::npos);
        }
        EXPECT_EQ(count, 1u);
        EXPECT_EQ(rec.ends, 0);
    }
    // A good item afterwards still plays.
    load(server->url(TestMedia::kClip2s));
    queue->sync([&] { player->play(); });
    ASSERT_TRUE(rec.waitFor([&] { return rec.ends == 1; }));
}

TEST_F(MpvMediaPlayerTest, HundredCreateDestroyCyclesLeaveNoThreadsOrHandles) {
    auto cycle = [&](bool withItem) {
        queue->sync([&] {
            auto p = std::make_shared<MpvMediaPlayer>(queue, quietOptions());
            ASSERT_NE(p->handle(), nullptr);
            if (withItem) {
                p->replaceCurrentItem("av://lavfi:testsrc2=duration=5:size=160x90:rate=25");
                p->play();
            }
        });
    };
    cycle(true);  // first use loads mpv's libraries and their one-time threads
    const size_t threads = entriesIn("/proc/self/task");
    const size_t fds = entriesIn("/proc/self/fd");
    for (int i = 0; i < 100; ++i) cycle(i % 10 == 0);
    EXPECT_EQ(entriesIn("/proc/self/task"), threads);
    EXPECT_EQ(entriesIn("/proc/self/fd"), fds);
}

TEST(MpvMediaPlayerFactoryTest, HandsOutHookedPlayersOnTheGivenQueue) {
    auto queue = std::make_shared<ThreadMainQueue>();
    MpvMediaPlayerFactory factory(queue, quietOptions());
    int hooked = 0;
    factory.setPlayerCreatedHook([&](MpvMediaPlayer& p) {
        EXPECT_NE(p.handle(), nullptr);
        ++hooked;
    });
    std::shared_ptr<MediaPlayer> a, b;
    queue->sync([&] {
        a = factory.makePlayer();
        b = factory.makePlayer();
    });
    EXPECT_EQ(hooked, 2);
    EXPECT_NE(a, b);
    ASSERT_NE(dynamic_cast<MpvMediaPlayer*>(a.get()), nullptr);
    // The embedding is locked down: nothing from the user's mpv set-up, no scripts
    // or downloads, no key bindings, and a bounded wait on the network.
    auto* handle = dynamic_cast<MpvMediaPlayer*>(a.get())->handle();
    const std::pair<const char*, const char*> expected[] = {
        {"vo", "null"},
        {"options/config", "no"},
        {"options/ytdl", "no"},
        {"options/load-scripts", "no"},
        {"options/osc", "no"},
        {"options/input-default-bindings", "no"},
        {"options/idle", "yes"},
        {"options/keep-open", "yes"},
        {"options/terminal", "no"},
    };
    for (const auto& [name, value] : expected) {
        char* actual = mpv_get_property_string(handle, name);
        EXPECT_STREQ(actual, value) << name;
        mpv_free(actual);
    }
    double timeout = 0;
    mpv_get_property(handle, "options/network-timeout", MPV_FORMAT_DOUBLE, &timeout);
    EXPECT_EQ(timeout, 10.0);
    queue->sync([&] {
        a.reset();
        b.reset();
    });
    queue->shutdown();
}

TEST(MpvMediaPlayerOptionsTest, HeadlessEnvironmentChoosesTheNullVideoOutput) {
    struct Restore {
        std::string display = std::getenv("DISPLAY") ? std::getenv("DISPLAY") : "";
        ~Restore() {
            ::setenv("KAVELIN_HEADLESS", "1", 1);
            if (!display.empty()) ::setenv("DISPLAY", display.c_str(), 1);
        }
    } restore;
    ::setenv("KAVELIN_HEADLESS", "1", 1);
    ::setenv("DISPLAY", ":0", 1);
    EXPECT_EQ(MpvMediaPlayer::Options::fromEnvironment().videoOutput, "null");
    ::unsetenv("KAVELIN_HEADLESS");
    EXPECT_EQ(MpvMediaPlayer::Options::fromEnvironment().videoOutput, "libmpv");
    ::unsetenv("DISPLAY");
    ::unsetenv("WAYLAND_DISPLAY");
    EXPECT_EQ(MpvMediaPlayer::Options::fromEnvironment().videoOutput, "null");
}

TEST(MpvMediaPlayerOptionsTest, AudioGoesOnlyToServersThatExistThenToSilence) {
    const char* saved = std::getenv("XDG_RUNTIME_DIR");
    std::string savedRuntime = saved ? saved : "";
    auto runtime =
        std::filesystem::temp_directory_path() / ("kavelin-runtime-" + std::to_string(::getpid()));
    std::filesystem::create_directories(runtime / "pulse");
    ::setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);
    ::unsetenv("PULSE_SERVER");

    auto withoutServer = MpvMediaPlayer::Options::fromEnvironment().audioOutput;
    EXPECT_EQ(withoutServer.find("pulse"), std::string::npos);
    EXPECT_EQ(withoutServer.find("pipewire"), std::string::npos);
    EXPECT_TRUE(withoutServer.ends_with("null"));

    std::ofstream(runtime / "pulse" / "native") << "";
    auto withPulse = MpvMediaPlayer::Options::fromEnvironment().audioOutput;
    EXPECT_TRUE(withPulse.starts_with("pulse,")) << withPulse;
    EXPECT_TRUE(withPulse.ends_with(",null"));

    std::filesystem::remove_all(runtime);
    if (savedRuntime.empty())
        ::unsetenv("XDG_RUNTIME_DIR");
    else
        ::setenv("XDG_RUNTIME_DIR", savedRuntime.c_str(), 1);
}

}  // namespace
}  // namespace kavelin
