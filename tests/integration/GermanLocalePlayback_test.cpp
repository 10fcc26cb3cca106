// A host that adopted a German locale (as GTK and Qt launchers do) still gets
// video, and the mid-roll payload still reads "1.5". The clip sits at a relative
// path with a space, and the host acknowledges its ad inside the callback: the
// clip must still resume and play to its end.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <clocale>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "support/HostLibrary.h"
#include "support/TestMedia.h"

namespace {

using namespace std::chrono_literals;

std::mutex gMutex;
std::condition_variable gChanged;
std::vector<std::string> gEvents;
HostLibrary gLib;

void onEvent(const char* message) {
    const std::string text = message;
    {
        std::lock_guard lock(gMutex);
        gEvents.push_back(text);
    }
    gChanged.notify_all();
    // No ad to show: answer at once, from inside the callback.
    if (text.rfind("OnMidRollAdRequired:", 0) == 0) gLib.call("AdCompletedResumePlayback");
}

std::optional<size_t> waitFor(const std::string& event, size_t from) {
    std::unique_lock lock(gMutex);
    std::optional<size_t> found;
    gChanged.wait_for(lock, 40s, [&] {
        for (size_t i = from; i < gEvents.size(); ++i)
            if (gEvents[i] == event) return (found = i).has_value();
        return false;
    });
    return found;
}

std::string dump() {
    std::lock_guard lock(gMutex);
    std::string out;
    for (const auto& e : gEvents) out += "  " + e + "\n";
    return out;
}

TEST(GermanLocalePlayback, MidRollPayloadKeepsItsDecimalPointAndPlaybackResumes) {
    ASSERT_NE(std::setlocale(LC_ALL, "de_DE.UTF-8"), nullptr)
        << "the de_DE.UTF-8 locale is missing: run scripts/setup.sh";
    char probe[16];
    std::snprintf(probe, sizeof probe, "%.1f", 1.5);
    ASSERT_STREQ(probe, "1,5");

    char dir[] = "/tmp/kavelin-locale-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    setenv("XDG_CONFIG_HOME", dir, 1);
    setenv("KAVELIN_HEADLESS", "1", 1);
    const auto previous = std::filesystem::current_path();
    std::filesystem::current_path(dir);
    std::filesystem::create_directory("clips");
    kavelin::test::TestMedia::makeVideoClip("clips/first clip.mp4",
                                            "testsrc2=size=320x180:rate=25:duration=3");

    gLib.handle = dlopen(KAVELIN_LIB_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(gLib.handle, nullptr) << dlerror();
    gLib.registerCallback(onEvent);
    gLib.call("SetPlaylists", R"([{"id":"pl","name":"Formen","thumbnail":"t.png"}])");
    gLib.call("SetEpisodes",
              R"([{"id":"pl","episodes":[{"index":"v1","url":"clips/first clip.mp4",)"
              R"("thumbnail":"t.png","title":"Größen","isActive":1,"length":3}]}])");
    gLib.call("SetPremium", false);
    gLib.call("SetMidRollAdConfig", R"({"version":1,"adTimeoutSeconds":30,
        "globalConstraints":{"minGapSeconds":0,"noAdZoneStartSeconds":0.5,
                             "noAdZoneEndSeconds":0.5,"maxAdsPerSession":1},
        "durationBuckets":[],"videoOverrides":{"v1":{"cuePointSeconds":[1.5]}}})");
    gLib.call("PlayPlaylist", "pl");

    auto ad = waitFor("OnMidRollAdRequired:1.5", 0);
    ASSERT_TRUE(ad) << dump();
    auto dismissed = waitFor("OnViewDismissed:ad_required", *ad);
    ASSERT_TRUE(dismissed) << dump();
    auto resumed = waitFor("OnVideoPlay:true", *dismissed);
    ASSERT_TRUE(resumed) << dump();
    // Started over from the beginning, with the cap reached it plays to its end.
    EXPECT_TRUE(waitFor("OnVideoFinished:0", *resumed)) << dump();
    EXPECT_EQ(dump().find("1,5"), std::string::npos) << dump();

    gLib.call("cleanup");
    std::filesystem::current_path(previous);
    std::filesystem::remove_all(dir);
    std::setlocale(LC_ALL, "C");
}

}  // namespace
