// A free viewer's session through the built library's entry points with real
// playback: the between-videos ad, a mid-roll at its cue point, the next video. The
// host runs in a German locale (as GTK and Qt launchers do), the second clip sits
// at a relative path with a space, and the mid-roll is acknowledged in the callback.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <filesystem>

#include "support/HostLibrary.h"
#include "support/ScratchDir.h"
#include "support/TestMedia.h"

namespace {

// After a mid-roll ad the video starts over and its cue point is armed again;
// only the tracker keeps it from asking twice. A cap of two ads lets the
// between-videos ad and one mid-roll through, then nothing more.
const char* kPlaylists = R"([{"id":"pl-e2e","name":"Formen","thumbnail":"img/pl.png"}])";
const char* kEpisodes =
    R"([{"id":"pl-e2e","episodes":[)"
    R"({"index":"v1","url":"edl://file=av://lavfi:smptebars=size=320x180:rate=25,length=2",)"
    R"("thumbnail":"img/v1.png","title":"Bars","isActive":1,"length":2},)"
    R"({"index":"v2","url":"clips/second clip.mp4",)"
    R"("thumbnail":"img/v2.png","title":"Größen","isActive":1,"length":3}]}])";
const char* kPolicy = R"({"version":1,"adTimeoutSeconds":30,
    "globalConstraints":{"minGapSeconds":0,"noAdZoneStartSeconds":0.5,
                         "noAdZoneEndSeconds":0.5,"maxAdsPerSession":2},
    "durationBuckets":[],
    "videoOverrides":{"v2":{"cuePointSeconds":[1.5]}}})";

HostLibrary* gLib = nullptr;

void onEvent(const char* message) {
    HostEvents::record(message);
    if (std::string(message).starts_with("OnMidRollAdRequired:")) gLib->AdCompletedResumePlayback();
}

// Index of `event` once it has come at or after `from`; fails the test otherwise.
size_t expectEvent(const std::string& event, size_t from) {
    const auto at = HostEvents::waitFor(event, from);
    if (!at) throw std::runtime_error("no " + event + " after event " + std::to_string(from));
    return *at;
}

TEST(EndToEndTest, FreeViewerSessionWithBetweenVideosAndMidRollAdsOnRealPlayback) {
    ASSERT_NE(std::setlocale(LC_ALL, "de_DE.UTF-8"), nullptr)
        << "the de_DE.UTF-8 locale is missing: run scripts/setup.sh";

    ScratchDir dir("kavelin-e2e");
    dir.asConfigHome();
    setenv("KAVELIN_HEADLESS", "1", 1);
    const auto previous = std::filesystem::current_path();
    std::filesystem::current_path(dir.path);
    std::filesystem::create_directory("clips");
    kavelin::test::TestMedia::makeVideoClip("clips/second clip.mp4",
                                            "testsrc2=size=320x180:rate=25:duration=3");
    HostLibrary lib(KAVELIN_LIB_PATH);
    ASSERT_TRUE(lib.ok()) << lib.missing;
    gLib = &lib;
    lib.registerUnityCallback(onEvent);
    try {
        lib.SetPlaylists(kPlaylists);
        lib.SetEpisodes(kEpisodes);
        lib.SetPremium(false);
        lib.SetMidRollAdConfig(kPolicy);
        lib.PlayPlaylist("pl-e2e");

        // The first video plays to its end; the next one waits for an ad.
        size_t at = expectEvent("OnVideoFinished:0", 0);
        at = expectEvent("OnNextVideoAdRequired:0", at);
        at = expectEvent("OnViewDismissed:ad_required", at);
        // While the host shows its ad nothing of the next video starts, though the
        // player may open videos ahead: watched for a second.
        EXPECT_FALSE(HostEvents::waitFor("OnVideoPlay:true", at, 1)) << HostEvents::dump();
        EXPECT_EQ(HostEvents::texts(at + 1), std::vector<std::string>{});
        lib.AdCompletedResumePlayback();

        // The second video reaches the cue point; the payload keeps its decimal point.
        const size_t playing = expectEvent("OnVideoPlay:true", at);
        at = expectEvent("OnMidRollAdRequired:1.5", playing);
        const size_t dismissed = expectEvent("OnViewDismissed:ad_required", at);
        expectEvent("OnVideoPlay:true", dismissed);

        // It starts over and, with the cap reached, runs to its end without another
        // ad; the ring of playlists brings the first video back.
        at = expectEvent("OnVideoFinished:1", dismissed);
        at = expectEvent("OnVideoPlay:true", at);
        for (const auto& e : HostEvents::texts(dismissed + 1, at + 1)) {
            EXPECT_NE(e.rfind("OnMidRollAdRequired", 0), 0u) << e;
            EXPECT_NE(e.rfind("OnNextVideoAdRequired", 0), 0u) << e;
            EXPECT_NE(e.rfind("OnViewDismissed", 0), 0u) << e;
        }
    } catch (const std::exception& e) {
        ADD_FAILURE() << e.what() << "\n" << HostEvents::dump();
    }
    lib.cleanup();
    std::filesystem::current_path(previous);
    std::setlocale(LC_ALL, "C");
}

}  // namespace
