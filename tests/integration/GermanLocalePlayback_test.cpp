// A host that adopted a German locale (as GTK and Qt launchers do) still gets
// video, and the mid-roll payload still reads "1.5". The clip sits at a relative
// path with a space, and the host acknowledges its ad inside the callback: the
// clip must still resume and play to its end.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "support/HostLibrary.h"
#include "support/ScratchDir.h"
#include "support/TestMedia.h"

namespace {

HostLibrary* gLib = nullptr;

void onEvent(const char* message) {
    HostEvents::record(message);
    // No ad to show: answer at once, from inside the callback.
    if (std::string(message).rfind("OnMidRollAdRequired:", 0) == 0)
        gLib->AdCompletedResumePlayback();
}

TEST(GermanLocalePlayback, MidRollPayloadKeepsItsDecimalPointAndPlaybackResumes) {
    ASSERT_NE(std::setlocale(LC_ALL, "de_DE.UTF-8"), nullptr)
        << "the de_DE.UTF-8 locale is missing: run scripts/setup.sh";
    char probe[16];
    std::snprintf(probe, sizeof probe, "%.1f", 1.5);
    ASSERT_STREQ(probe, "1,5");

    ScratchDir dir("kavelin-locale");
    dir.asConfigHome();
    setenv("KAVELIN_HEADLESS", "1", 1);
    const auto previous = std::filesystem::current_path();
    std::filesystem::current_path(dir.path);
    std::filesystem::create_directory("clips");
    kavelin::test::TestMedia::makeVideoClip("clips/first clip.mp4",
                                            "testsrc2=size=320x180:rate=25:duration=3");

    HostLibrary lib(KAVELIN_LIB_PATH);
    ASSERT_TRUE(lib.ok()) << lib.missing;
    gLib = &lib;
    lib.registerUnityCallback(onEvent);
    lib.SetPlaylists(R"([{"id":"pl","name":"Formen","thumbnail":"t.png"}])");
    lib.SetEpisodes(R"([{"id":"pl","episodes":[{"index":"v1","url":"clips/first clip.mp4",)"
                    R"("thumbnail":"t.png","title":"Größen","isActive":1,"length":3}]}])");
    lib.SetPremium(false);
    lib.SetMidRollAdConfig(R"({"version":1,"adTimeoutSeconds":30,
        "globalConstraints":{"minGapSeconds":0,"noAdZoneStartSeconds":0.5,
                             "noAdZoneEndSeconds":0.5,"maxAdsPerSession":1},
        "durationBuckets":[],"videoOverrides":{"v1":{"cuePointSeconds":[1.5]}}})");
    lib.PlayPlaylist("pl");

    auto ad = HostEvents::waitFor("OnMidRollAdRequired:1.5");
    ASSERT_TRUE(ad) << HostEvents::dump();
    auto dismissed = HostEvents::waitFor("OnViewDismissed:ad_required", *ad);
    ASSERT_TRUE(dismissed) << HostEvents::dump();
    auto resumed = HostEvents::waitFor("OnVideoPlay:true", *dismissed);
    ASSERT_TRUE(resumed) << HostEvents::dump();
    // Started over from the beginning, with the cap reached it plays to its end.
    EXPECT_TRUE(HostEvents::waitFor("OnVideoFinished:0", *resumed)) << HostEvents::dump();
    EXPECT_EQ(HostEvents::dump().find("1,5"), std::string::npos) << HostEvents::dump();

    lib.cleanup();
    std::filesystem::current_path(previous);
    std::setlocale(LC_ALL, "C");
}

}  // namespace
