// One free viewer's session through the C entry points of the built library, with
// real playback by libmpv (no display, offline lavfi sources): the between-videos
// ad, a mid-roll ad at its cue point, then on to the next video.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "support/HostLibrary.h"

namespace {

using namespace std::chrono_literals;

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

// Index of the first event equal to `event` at or after `from`, waiting for it.
std::optional<size_t> waitForEvent(const std::string& event, size_t from = 0,
                                   std::chrono::seconds timeout = 40s) {
    std::unique_lock lock(gMutex);
    std::optional<size_t> found;
    gChanged.wait_for(lock, timeout, [&] {
        for (size_t i = from; i < gEvents.size(); ++i)
            if (gEvents[i] == event) {
                found = i;
                return true;
            }
        return false;
    });
    return found;
}

std::vector<std::string> eventsFrom(size_t from, size_t to) {
    std::lock_guard lock(gMutex);
    return {gEvents.begin() + static_cast<long>(from),
            gEvents.begin() + static_cast<long>(std::min(to, gEvents.size()))};
}

std::string eventDump() {
    std::lock_guard lock(gMutex);
    std::string out;
    for (auto& e : gEvents) out += "  " + e + "\n";
    return out;
}

using Library = HostLibrary;

// After a mid-roll ad the video starts over and its cue point is armed again;
// only the tracker keeps it from asking twice. A cap of two ads lets the
// between-videos ad and one mid-roll through, then nothing more.
const char* kPlaylists = R"([{"id":"pl-e2e","name":"Shapes","thumbnail":"img/pl.png"}])";
const char* kEpisodes =
    R"([{"id":"pl-e2e","episodes":[)"
    R"({"index":"v1","url":"edl://file=av://lavfi:smptebars=size=320x180:rate=25,length=2",)"
    R"("thumbnail":"img/v1.png","title":"Bars","isActive":1,"length":2},)"
    R"({"index":"v2","url":"edl://file=av://lavfi:testsrc2=size=320x180:rate=25,length=3",)"
    R"("thumbnail":"img/v2.png","title":"Colours","isActive":1,"length":3}]}])";
const char* kPolicy = R"({"version":1,"adTimeoutSeconds":30,
    "globalConstraints":{"minGapSeconds":0,"noAdZoneStartSeconds":0.5,
                         "noAdZoneEndSeconds":0.5,"maxAdsPerSession":2},
    "durationBuckets":[],
    "videoOverrides":{"v2":{"cuePointSeconds":[1.0]}}})";

bool startsWith(const std::string& s, const char* prefix) {
    return s.rfind(prefix, 0) == 0;
}

TEST(EndToEndTest, FreeViewerSessionWithBetweenVideosAndMidRollAdsOnRealPlayback) {
    char dir[] = "/tmp/kavelin-e2e-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    setenv("XDG_CONFIG_HOME", dir, 1);
    setenv("KAVELIN_HEADLESS", "1", 1);

    Library lib;
    lib.handle = dlopen(KAVELIN_LIB_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(lib.handle, nullptr) << dlerror();
    lib.fn<void (*)(void (*)(const char*))>("registerUnityCallback")(recordEvent);
    ASSERT_TRUE(waitForEvent("CallBack_registered:registered", 0, 1s));

    lib.call("SetPlaylists", kPlaylists);
    lib.call("SetEpisodes", kEpisodes);
    lib.call("SetPremium", false);
    lib.call("SetMidRollAdConfig", kPolicy);
    lib.call("PlayPlaylist", "pl-e2e");

    // The first video plays to its end; the next one waits for an ad.
    auto finished = waitForEvent("OnVideoFinished:0");
    ASSERT_TRUE(finished) << eventDump();
    auto nextAd = waitForEvent("OnNextVideoAdRequired:0", *finished);
    ASSERT_TRUE(nextAd) << eventDump();
    auto dismissed = waitForEvent("OnViewDismissed:ad_required", *nextAd);
    ASSERT_TRUE(dismissed) << eventDump();
    lib.call("AdCompletedResumePlayback");

    // The second video's clock reaches its cue point in real playback.
    auto midRoll = waitForEvent("OnMidRollAdRequired:1.0", *dismissed);
    ASSERT_TRUE(midRoll) << eventDump();
    ASSERT_TRUE(waitForEvent("OnVideoPlay:true", *dismissed) < midRoll) << eventDump();
    dismissed = waitForEvent("OnViewDismissed:ad_required", *midRoll);
    ASSERT_TRUE(dismissed) << eventDump();
    lib.call("AdCompletedResumePlayback");

    // It starts over and, with the cap reached, runs to its end without another
    // ad; the ring of playlists brings the first video back.
    finished = waitForEvent("OnVideoFinished:1", *dismissed);
    ASSERT_TRUE(finished) << eventDump();
    auto next = waitForEvent("OnVideoPlay:true", *finished);
    ASSERT_TRUE(next) << eventDump();
    for (const auto& e : eventsFrom(*dismissed + 1, *next + 1)) {
        EXPECT_FALSE(startsWith(e, "OnMidRollAdRequired")) << e;
        EXPECT_FALSE(startsWith(e, "OnNextVideoAdRequired")) << e;
        EXPECT_FALSE(startsWith(e, "OnViewDismissed")) << e;
    }

    lib.call("cleanup");
    std::filesystem::remove_all(dir);
}

}  // namespace
