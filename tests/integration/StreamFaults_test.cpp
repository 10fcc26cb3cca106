// Broken stream addresses played through the entry points with real libmpv on
// loopback: whatever the fault, no call blocks, a video that cannot play takes
// the viewer out as if they had pressed back, one that recovers plays on, and the
// next playlist plays.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "Kavelin/Kavelin.h"
#include "Kavelin/Platform/Platform.h"
#include "Kavelin/VideoPlayerBridgging.h"
#include "Kavelin/VideoPlayerService.h"
#include "support/LocalHttpServer.h"
#include "support/TestMedia.h"
#include "support/VirtualPlatform.h"

namespace kavelin {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using test::LocalHttpServer;
using test::TestMedia;

std::mutex gMutex;
std::condition_variable gChanged;
std::vector<std::string> gEvents;

void recordEvent(const char* message) {
    {
        std::lock_guard lock(gMutex);
        gEvents.emplace_back(message);
    }
    gChanged.notify_all();
}

// An address on loopback where nobody listens.
std::string refusedAddress() {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    ::close(fd);
    return "http://127.0.0.1:" + std::to_string(ntohs(addr.sin_port)) + "/clip.mp4";
}

struct StreamFault {
    const char* name;
    bool premium;
    // A connection dropped mid-way is asked again from where it broke off, so the
    // video plays on to its end instead of failing.
    bool playsThrough;
    // Arranges the fault on the server and returns the address to play.
    std::function<std::string(LocalHttpServer&)> arrange;
};

class StreamFaults : public ::testing::TestWithParam<StreamFault> {
  protected:
    static constexpr double kNoProgress = 4;
    static constexpr double kLeaveDelay = 1;

    void SetUp() override {
        std::filesystem::create_directories(config_);
        setenv("XDG_CONFIG_HOME", config_.c_str(), 1);
        std::lock_guard lock(gMutex);
        gEvents.clear();
    }
    void TearDown() override {
        timed("cleanup", [] { ::cleanup(); });
        std::filesystem::remove_all(config_);
    }

    // Runs one exported call and keeps how long it took.
    void timed(const char* what, const std::function<void()>& call) {
        auto start = Clock::now();
        call();
        const double took = std::chrono::duration<double>(Clock::now() - start).count();
        EXPECT_LT(took, 1.0) << what << " blocked its caller";
    }

    // Waits for the `occurrence`-th `event`, calling harmless entry points meanwhile
    // as a host's game loop would; false on time-out.
    bool waitForEvent(const std::string& event, double seconds, long occurrence = 1) {
        const auto until = Clock::now() + std::chrono::duration<double>(seconds);
        while (Clock::now() < until) {
            {
                std::unique_lock lock(gMutex);
                if (gChanged.wait_for(lock, 200ms, [&] {
                        return std::count(gEvents.begin(), gEvents.end(), event) >= occurrence;
                    }))
                    return true;
            }
            timed("setShowLogo", [] { ::setShowLogo(true); });
            timed("SetPremium", [&] { ::SetPremium(GetParam().premium); });
        }
        return false;
    }

    std::string logDump() {
        std::string out;
        mainQueue().sync([&] {
            for (auto& l : logs.messages()) out += "  " + l + "\n";
        });
        return out;
    }

    static std::string eventDump() {
        std::lock_guard lock(gMutex);
        std::string out;
        for (auto& e : gEvents) out += "  " + e + "\n";
        return out;
    }

    testing::LogCapture logs;
    std::filesystem::path config_ = std::filesystem::temp_directory_path() /
                                    ("kavelin-stream-faults-" + std::to_string(::getpid()));
};

TEST_P(StreamFaults, ViewerIsTakenBackOnceAndTheNextPlaylistPlays) {
    const StreamFault& fault = GetParam();
    LocalHttpServer server(TestMedia::shared().directory());
    const std::string broken = fault.arrange(server);
    const std::string good = server.url(TestMedia::kClip2s);
    const std::string playlists =
        R"([{"id":"bad","name":"Bad","thumbnail":""},{"id":"ok","name":"Ok","thumbnail":""}])";
    const std::string episodes = R"([{"id":"bad","episodes":[{"index":"b1","url":")" + broken +
                                 R"(","thumbnail":"","title":"B","isActive":1,"length":4}]},)"
                                 R"({"id":"ok","episodes":[{"index":"g1","url":")" +
                                 good +
                                 R"(","thumbnail":"","title":"G","isActive":1,"length":2}]}])";

    timed("registerUnityCallback", [] { ::registerUnityCallback(recordEvent); });
    // A fresh player controller, as after any cleanup.
    timed("setURLS", [] { ::setURLS(nullptr, 0); });
    timed("SetPlaylists", [&] { ::SetPlaylists(playlists.c_str()); });
    timed("SetEpisodes", [&] { ::SetEpisodes(episodes.c_str()); });
    timed("SetPremium", [&] { ::SetPremium(fault.premium); });
    mainQueue().sync([] {
        auto& controller = currentVideoPlayerService()->playerController;
        ASSERT_NE(controller, nullptr);
        controller->noProgressTimeout = kNoProgress;
        controller->leaveAfterFailureDelay = kLeaveDelay;
    });
    timed("PlayPlaylist", [] { ::PlayPlaylist("bad"); });

    const char* outcome = fault.playsThrough ? "OnVideoFinished:0" : "OnViewDismissed:user_exit";
    ASSERT_TRUE(waitForEvent(outcome, 30)) << eventDump() << logDump();
    long closed = 0, finishedBefore = 0;
    {
        std::lock_guard lock(gMutex);
        for (const auto& e : gEvents) {
            closed += e == "OnVideoClosed:back";
            finishedBefore += e.starts_with("OnVideoFinished");
        }
    }
    EXPECT_EQ(closed, fault.playsThrough ? 0 : 1) << eventDump();
    if (!fault.playsThrough) {
        EXPECT_EQ(finishedBefore, 0) << eventDump();
    }
    size_t failureLines = 0, warnings = 0;
    mainQueue().sync([&] {
        failureLines = logs.countPrefix("❌ Video can't be played (");
        warnings = logs.countPrefix("⚠️ Failed to load " + broken);
    });
    EXPECT_EQ(failureLines, fault.playsThrough ? 0u : 1u) << logDump();
    EXPECT_LE(warnings, 1u) << "the cause, if the player names one, once";

    long finished = 0;
    {
        std::lock_guard lock(gMutex);
        finished = std::count(gEvents.begin(), gEvents.end(), "OnVideoFinished:0");
    }
    timed("PlayPlaylist", [] { ::PlayPlaylist("ok"); });
    EXPECT_TRUE(waitForEvent("OnVideoFinished:0", 30, finished + 1)) << eventDump();
}

INSTANTIATE_TEST_SUITE_P(
    Loopback, StreamFaults,
    ::testing::Values(
        StreamFault{"NotFound", false, false,
                    [](LocalHttpServer& s) { return s.url("/missing.mp4"); }},
        StreamFault{"ConnectionRefused", true, false,
                    [](LocalHttpServer&) { return refusedAddress(); }},
        StreamFault{"StallsAfterTheFirstSegment", false, false,
                    [](LocalHttpServer& s) {
                        s.setResponse("/hls/seg01.ts", {.delaySeconds = 600});
                        return s.url(TestMedia::kHls);
                    }},
        StreamFault{"DroppedMidFile", true, true,
                    [](LocalHttpServer& s) {
                        s.setResponse(TestMedia::kClip3s, {.dropAfterBytes = 16 * 1024});
                        return s.url(TestMedia::kClip3s);
                    }},
        StreamFault{"DroppedMidSegment", true, true,
                    [](LocalHttpServer& s) {
                        for (const char* seg : {"/hls/seg01.ts", "/hls/seg02.ts", "/hls/seg03.ts"})
                            s.setResponse(seg, {.dropAfterBytes = 4096});
                        return s.url(TestMedia::kHls);
                    }},
        StreamFault{"GarbageBytes", false, false,
                    [](LocalHttpServer& s) {
                        s.setResponse("/garbage.mp4", {.body = std::string(256 * 1024, 'x'),
                                                       .contentType = "video/mp4"});
                        return s.url("/garbage.mp4");
                    }}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace kavelin
