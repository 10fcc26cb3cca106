// The built-in sample catalogue plays on libmpv with no network and no media files,
// reports its real duration up front and ends by itself.
#include <gtest/gtest.h>
#include <mpv/client.h>

#include <chrono>
#include <string>

#include "Kavelin/Model/Catalogue.h"

namespace kavelin {
namespace {

struct Mpv {
    mpv_handle* handle = mpv_create();
    Mpv() {
        for (auto [name, value] : {std::pair{"config", "no"},
                                   {"vo", "null"},
                                   {"ao", "null"},
                                   {"ytdl", "no"},
                                   {"load-scripts", "no"},
                                   {"input-default-bindings", "no"}})
            mpv_set_option_string(handle, name, value);
        mpv_initialize(handle);
    }
    ~Mpv() { mpv_terminate_destroy(handle); }

    // Waits for `wanted`; an end of file on the way is returned instead. Generated
    // sources cannot seek: they render every frame up to the target, which takes
    // over 20 s on a machine busy with a sanitizer run, so the bound is generous.
    mpv_event* waitFor(mpv_event_id wanted) {
        const auto until = std::chrono::steady_clock::now() + std::chrono::minutes(2);
        for (;;) {
            mpv_event* e = mpv_wait_event(handle, 1);
            if (e->event_id == wanted || e->event_id == MPV_EVENT_END_FILE ||
                (e->event_id == MPV_EVENT_NONE && std::chrono::steady_clock::now() > until))
                return e;
        }
    }
};

TEST(SampleVideos, EveryAddressPlaysWithItsDurationAndEnds) {
    for (const Playlist& playlist : Playlist::allPlaylists()) {
        for (const Video& video : playlist.videos) {
            SCOPED_TRACE(video.id + " " + video.url);
            Mpv mpv;
            const char* load[] = {"loadfile", video.url.c_str(), nullptr};
            ASSERT_GE(mpv_command(mpv.handle, load), 0);
            ASSERT_EQ(mpv.waitFor(MPV_EVENT_PLAYBACK_RESTART)->event_id,
                      MPV_EVENT_PLAYBACK_RESTART);

            double duration = 0;
            ASSERT_GE(mpv_get_property(mpv.handle, "duration", MPV_FORMAT_DOUBLE, &duration), 0);
            EXPECT_GE(duration, 20.0);
            EXPECT_LE(duration, 60.0);
            std::string length = video.url.substr(video.url.rfind("length=") + 7);
            EXPECT_EQ(duration, std::stod(length));

            std::string target = std::to_string(duration - 1.0);
            const char* seek[] = {"seek", target.c_str(), "absolute", nullptr};
            ASSERT_GE(mpv_command(mpv.handle, seek), 0);
            mpv_event* end = mpv.waitFor(MPV_EVENT_END_FILE);
            ASSERT_EQ(end->event_id, MPV_EVENT_END_FILE);
            EXPECT_EQ(static_cast<mpv_event_end_file*>(end->data)->reason, MPV_END_FILE_REASON_EOF);
        }
    }
}

}  // namespace
}  // namespace kavelin
