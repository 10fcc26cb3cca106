// Broken stream addresses through the entry points, real libmpv on loopback: no
// call blocks, a video that cannot play takes the viewer out as back does, one
// that recovers plays on, and the next playlist plays.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>

#include "Kavelin/Kavelin.h"
#include "Kavelin/Platform/Platform.h"
#include "Kavelin/VideoPlayerBridgging.h"
#include "Kavelin/VideoPlayerService.h"
#include "support/HostLibrary.h"
#include "support/LocalHttpServer.h"
#include "support/ScratchDir.h"
#include "support/TestMedia.h"
#include "support/VirtualPlatform.h"

namespace kavelin {
namespace {

using Clock = std::chrono::steady_clock;
using test::LocalHttpServer;
using test::TestMedia;

long occurrences(const std::string& text) {
    const auto all = HostEvents::texts();
    return std::count(all.begin(), all.end(), text);
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
        config.asConfigHome();
        HostEvents::clear();
    }
    void TearDown() override {
        timed("cleanup", [] { ::cleanup(); });
    }

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
        size_t from = 0;
        for (long seen = 0; Clock::now() < until;) {
            if (auto at = HostEvents::waitFor(event, from, 0.2)) {
                from = *at + 1;
                if (++seen == occurrence) return true;
                continue;
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

    ScratchDir config{"kavelin-stream-faults"};
    testing::LogCapture logs;
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

    timed("registerUnityCallback", [] { ::registerUnityCallback(HostEvents::record); });
    timed("setURLS", [] { ::setURLS(nullptr, 0); });  // a fresh player, as after any cleanup
    timed("SetPlaylists", [&] { ::SetPlaylists(playlists.c_str()); });
    timed("SetEpisodes", [&] { ::SetEpisodes(episodes.c_str()); });
    timed("SetPremium", [&] { ::SetPremium(fault.premium); });
    mainQueue().sync([] {
        auto& controller = currentVideoPlayerService()->playerController;
        ASSERT_NE(controller, nullptr);
        controller->setFailureTimeouts(kNoProgress, kLeaveDelay);
    });
    timed("PlayPlaylist", [] { ::PlayPlaylist("bad"); });

    const char* outcome = fault.playsThrough ? "OnVideoFinished:0" : "OnViewDismissed:user_exit";
    ASSERT_TRUE(waitForEvent(outcome, 30)) << HostEvents::dump() << logDump();
    EXPECT_EQ(occurrences("OnVideoClosed:back"), fault.playsThrough ? 0 : 1) << HostEvents::dump();
    if (!fault.playsThrough) {
        EXPECT_EQ(HostEvents::dump().find("OnVideoFinished"), std::string::npos);
    }
    size_t failureLines = 0, warnings = 0;
    mainQueue().sync([&] {
        failureLines = logs.countPrefix("❌ Video can't be played (");
        warnings = logs.countPrefix("⚠️ Failed to load " + broken);
    });
    EXPECT_EQ(failureLines, fault.playsThrough ? 0u : 1u) << logDump();
    EXPECT_LE(warnings, 1u) << "the cause, if the player names one, once";

    const long finished = occurrences("OnVideoFinished:0");
    timed("PlayPlaylist", [] { ::PlayPlaylist("ok"); });
    EXPECT_TRUE(waitForEvent("OnVideoFinished:0", 30, finished + 1)) << HostEvents::dump();
}

INSTANTIATE_TEST_SUITE_P(
    Loopback, StreamFaults,
    ::testing::Values(
        StreamFault{"NotFound", false, false,
                    [](LocalHttpServer& s) { return s.url("/missing.mp4"); }},
        StreamFault{"ConnectionRefused", true, false,
                    [](LocalHttpServer&) { return LocalHttpServer::refusedURL("/clip.mp4"); }},
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
