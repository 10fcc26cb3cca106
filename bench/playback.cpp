// Real-playback timings, printed as "name: value" lines:
//   - time to first frame from PlayPlaylist to the first decoded frame of a local
//     HLS stream, against bare libmpv loading the same stream with the same options
//     (target: ratio <= 1.05), split into stages (ttff_stage_*) for both;
//   - the gap from the end of one video to the first frame of the next for a
//     premium viewer, on HLS with 1 s segments from a server adding 30 ms to every
//     request (target: median <= 40 ms, one frame at 25 fps).
// Frames are seen through a second mpv client on each player's core: mpv reports
// "playback-restart" once the first frame of an item has been decoded and shown.
#include <mpv/client.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Kavelin/Kavelin.h"
#include "Kavelin/Platform/Linux/MpvMediaPlayerFactory.h"
#include "Kavelin/Platform/Platform.h"
#include "Kavelin/log/VPLogger.h"
#include "support/LocalHttpServer.h"
#include "support/TestMedia.h"

namespace {

using Clock = std::chrono::steady_clock;
using kavelin::MpvMediaPlayer;
using kavelin::test::LocalHttpServer;
using kavelin::test::TestMedia;

double ms(Clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

double median(std::vector<double> v) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

enum class Mark { start, firstFrame, end };

// Where the time to the first frame goes: the call (the library: hopping onto its
// thread and the controller's work; bare: mpv accepting "loadfile"), then until mpv
// starts the item, then until its first frame.
struct Stages {
    std::vector<double> call, toStart, toFrame;
    void add(Clock::time_point t0, Clock::time_point returned, Clock::time_point started,
             Clock::time_point frame) {
        call.push_back(ms(returned - t0));
        toStart.push_back(ms(started - returned));
        toFrame.push_back(ms(frame - started));
    }
    void print(const char* who) const;
};

// What every watched mpv core did, and when.
struct Timeline {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::pair<Mark, Clock::time_point>> marks;
    int watchers = 0;

    void add(Mark m) {
        {
            std::lock_guard lock(mutex);
            marks.push_back({m, Clock::now()});
        }
        changed.notify_all();
    }
    // The first mark of kind `m` after `since`, waiting up to `timeout`.
    std::optional<Clock::time_point> await(
        Mark m, Clock::time_point since, std::chrono::seconds timeout = std::chrono::seconds(20)) {
        std::unique_lock lock(mutex);
        std::optional<Clock::time_point> found;
        changed.wait_for(lock, timeout, [&] {
            for (auto& [kind, at] : marks)
                if (kind == m && at > since) {
                    found = at;
                    return true;
                }
            return false;
        });
        return found;
    }
};

// Follows `core` from a client of its own, on a thread that ends with the core.
void watch(mpv_handle* core, Timeline& timeline) {
    mpv_handle* client = mpv_create_client(core, "bench");
    if (!client) return;
    mpv_observe_property(client, 1, "eof-reached", MPV_FORMAT_FLAG);
    {
        std::lock_guard lock(timeline.mutex);
        ++timeline.watchers;
    }
    std::thread([client, &timeline] {
        for (;;) {
            mpv_event* e = mpv_wait_event(client, -1);
            if (e->event_id == MPV_EVENT_SHUTDOWN) break;
            if (e->event_id == MPV_EVENT_START_FILE) timeline.add(Mark::start);
            if (e->event_id == MPV_EVENT_PLAYBACK_RESTART) timeline.add(Mark::firstFrame);
            if (e->event_id == MPV_EVENT_PROPERTY_CHANGE) {
                auto* p = static_cast<mpv_event_property*>(e->data);
                if (p->format == MPV_FORMAT_FLAG && *static_cast<int*>(p->data))
                    timeline.add(Mark::end);
            }
        }
        mpv_destroy(client);
        {
            std::lock_guard lock(timeline.mutex);
            --timeline.watchers;
        }
        timeline.changed.notify_all();
    }).detach();
}

MpvMediaPlayer::Options benchOptions() {
    MpvMediaPlayer::Options o;
    o.videoOutput = "null";
    o.audioOutput = "null";
    return o;
}

// Bare libmpv with the same options: one core, like the library's one player,
// loading the stream over a paused previous item, as the library does.
class BarePlayer {
  public:
    BarePlayer() {
        mpv_ = mpv_create();
        MpvMediaPlayer::configure(mpv_, benchOptions());
        mpv_initialize(mpv_);
    }
    ~BarePlayer() { mpv_terminate_destroy(mpv_); }

    // Milliseconds from the load request to the first frame, or a negative value;
    // `stages` gets the same split as the library's.
    double firstFrame(const std::string& url, Stages& stages) {
        auto t0 = Clock::now();
        int no = 0;
        mpv_set_property(mpv_, "pause", MPV_FORMAT_FLAG, &no);
        const char* cmd[] = {"loadfile", url.c_str(), "replace", nullptr};
        mpv_command(mpv_, cmd);
        const auto requested = Clock::now();
        std::optional<Clock::time_point> started;
        for (;;) {
            mpv_event* e = mpv_wait_event(mpv_, 20);
            if (e->event_id == MPV_EVENT_NONE) return -1;
            if (e->event_id == MPV_EVENT_START_FILE) started = Clock::now();
            if (started && e->event_id == MPV_EVENT_PLAYBACK_RESTART) break;
        }
        const auto frame = Clock::now();
        stages.add(t0, requested, *started, frame);
        double elapsed = ms(frame - t0);
        int yes = 1;
        mpv_set_property(mpv_, "pause", MPV_FORMAT_FLAG, &yes);
        return elapsed;
    }

  private:
    mpv_handle* mpv_;
};

std::string episode(const std::string& id, const std::string& url) {
    return R"({"index":")" + id + R"(","url":")" + url + R"(","thumbnail":"img/)" + id +
           R"(.png","title":")" + id + R"(","isActive":1,"length":4})";
}

void Stages::print(const char* who) const {
    std::printf("ttff_stage_call_ms_%s: %.1f\n", who, median(call));
    std::printf("ttff_stage_to_start_file_ms_%s: %.1f\n", who, median(toStart));
    std::printf("ttff_stage_to_first_frame_ms_%s: %.1f\n", who, median(toFrame));
}

}  // namespace

int main() {
    const int runs = 31;
    char configDir[] = "/tmp/kavelin-bench-XXXXXX";
    if (!mkdtemp(configDir)) return 1;
    setenv("XDG_CONFIG_HOME", configDir, 1);
    setenv("KAVELIN_HEADLESS", "1", 1);
    kavelin::VPLogger::setSink([](const std::string&) {});

    const auto& media = TestMedia::shared();
    LocalHttpServer server(media.directory());
    const std::string hls = server.url(TestMedia::kHls);

    // The library on the real platform, every player watched from a second client.
    Timeline timeline;
    auto platform = kavelin::makeRealPlatform();
    auto factory = std::make_shared<kavelin::MpvMediaPlayerFactory>(platform.queue, benchOptions());
    factory->setPlayerCreatedHook([&](MpvMediaPlayer& p) { watch(p.handle(), timeline); });
    platform.players = factory;
    kavelin::Platform::install(platform);

    std::string advance;
    for (int i = 0; i < 6; ++i) {
        if (i) advance += ',';
        // Each item an address of its own; the server ignores the query.
        advance += episode(std::string("a") + std::to_string(i),
                           server.url(std::string(TestMedia::kHls) + "?item=" + std::to_string(i)));
    }
    const std::string playlists = R"([{"id":"ttff","name":"HLS","thumbnail":"t.png"},)"
                                  R"({"id":"advance","name":"Clips","thumbnail":"a.png"}])";
    const std::string episodes = R"([{"id":"ttff","episodes":[)" + episode("h0", hls) +
                                 R"(]},{"id":"advance","episodes":[)" + advance + "]}]";
    SetPlaylists(playlists.c_str());
    SetEpisodes(episodes.c_str());
    SetPremium(true);

    // Time to first frame, library against bare libmpv, alternating so that both
    // see the same machine load.
    std::vector<double> library, bare;
    Stages libraryStages, bareStages, warmUp;
    BarePlayer barePlayer;
    for (int i = 0; i <= runs; ++i) {
        auto t0 = Clock::now();
        PlayPlaylist("ttff");
        const auto returned = Clock::now();
        // The controller rewinds the old item before replacing it, which mpv also
        // answers with a restart; only one after the new item's start counts.
        auto started = timeline.await(Mark::start, t0);
        auto frame = started ? timeline.await(Mark::firstFrame, *started) : std::nullopt;
        if (!frame) {
            std::printf("error: no first frame from the library\n");
            return 1;
        }
        if (i > 0) {  // run 0 warms up
            library.push_back(ms(*frame - t0));
            libraryStages.add(t0, returned, *started, *frame);
        }
        kavelin_pause();
        double b = barePlayer.firstFrame(hls, i > 0 ? bareStages : warmUp);
        if (i > 0 && b >= 0) bare.push_back(b);
    }
    const double libraryMs = median(library);
    const double bareMs = median(bare);
    std::printf("ttff_library_ms_median: %.1f\n", libraryMs);
    std::printf("ttff_bare_libmpv_ms_median: %.1f\n", bareMs);
    std::printf("ttff_ratio: %.3f\n", bareMs > 0 ? libraryMs / bareMs : 0.0);
    std::printf("ttff_library_ms_min: %.1f\n", *std::min_element(library.begin(), library.end()));
    std::printf("ttff_bare_libmpv_ms_min: %.1f\n", *std::min_element(bare.begin(), bare.end()));
    libraryStages.print("library");
    bareStages.print("bare");

    // Advancing: six HLS items (1 s segments) in a row for a premium viewer, from a
    // server that now adds 30 ms to every request, as a distant one would.
    LocalHttpServer::Response slow;
    slow.delaySeconds = 0.030;
    const std::filesystem::path hlsDir = std::filesystem::path(TestMedia::kHls).parent_path();
    for (const auto& file :
         std::filesystem::directory_iterator(media.directory() / hlsDir.relative_path()))
        server.setResponse((hlsDir / file.path().filename()).string(), slow);
    auto start = Clock::now();
    PlayPlaylist("advance");
    std::vector<double> gaps, toStart;
    auto since = start;
    for (int i = 0; i < 5; ++i) {
        auto end = timeline.await(Mark::end, since);
        if (!end) break;
        auto started = timeline.await(Mark::start, *end);
        auto next = started ? timeline.await(Mark::firstFrame, *started) : std::nullopt;
        if (!next) break;
        gaps.push_back(ms(*next - *end));
        toStart.push_back(ms(*started - *end));
        since = *next;
    }
    std::printf("advance_gap_samples: %zu\n", gaps.size());
    std::printf("advance_gap_ms_median: %.1f\n", gaps.empty() ? 0.0 : median(gaps));
    std::printf("advance_stage_to_start_file_ms_median: %.1f\n", median(toStart));
    std::printf("advance_gap_ms_max: %.1f\n",
                gaps.empty() ? 0.0 : *std::max_element(gaps.begin(), gaps.end()));
    std::fflush(stdout);

    cleanup();
    {
        // The watchers end with their cores; give them a moment, never forever.
        std::unique_lock lock(timeline.mutex);
        timeline.changed.wait_for(lock, std::chrono::seconds(5),
                                  [&] { return timeline.watchers == 0; });
    }
    kavelin::Platform::shutdown();
    std::filesystem::remove_all(configDir);
    return gaps.size() == 5 ? 0 : 1;
}
