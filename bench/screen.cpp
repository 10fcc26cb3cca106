// The player screen in a real window (software GL under Xvfb when there is no
// display): frame time with the rail shown, and the CPU a paused screen costs.
// Prints `name: value` lines.
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "Kavelin/Platform/Linux/WindowPresenter.h"
#include "Kavelin/Platform/Platform.h"
#include "Kavelin/VideoPlayerBridgging.h"
#include "Kavelin/VideoPlayerService.h"
#include "Kavelin/log/VPLogger.h"
#include "support/MainQueueWait.h"
#include "support/TestMedia.h"
#include "support/XvfbDisplay.h"

using namespace kavelin;
namespace fs = std::filesystem;

using kavelin::testing::waitOnMainQueue;

namespace {

double processCpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// CPU seconds per thread name, so the library's cost can be told from mpv's own.
std::map<std::string, double> cpuByThreadName() {
    std::map<std::string, double> out;
    for (const auto& task : fs::directory_iterator("/proc/self/task")) {
        std::ifstream comm(task.path() / "comm"), schedstat(task.path() / "schedstat");
        std::string name;
        double onCpuNs = 0;
        if (std::getline(comm, name) && schedstat >> onCpuNs) out[name] += onCpuNs / 1e9;
    }
    return out;
}

double percentile(std::vector<double> v, double p) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    size_t i =
        std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size() - 1) + 0.5));
    return v[i];
}

}  // namespace

int main() {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    test::XvfbDisplay display;
    if (!display.ok()) {
        std::fprintf(stderr, "no X server\n");
        return 1;
    }
    VPLogger::setSink([](const std::string&) {});  // keep the output to the numbers
    const fs::path dir =
        fs::temp_directory_path() / ("kavelin-bench-screen-" + std::to_string(getpid()));
    fs::create_directories(dir);
    const std::string clip = (dir / "clip.mp4").string();
    try {
        test::TestMedia::makeVideoClip(clip, "testsrc2=size=1280x720:rate=30:duration=120");
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }

    const std::string thumbs =
        std::string("file://") + KAVELIN_SOURCE_DIR + "/Resources/Thumbnails/";
    std::shared_ptr<VideoPlayerService> service;
    std::shared_ptr<WindowPresenter> window;
    mainQueue().sync([&] {
        window = std::dynamic_pointer_cast<WindowPresenter>(Platform::current().presenter);
        std::vector<Video> videos;
        for (int i = 1; i <= 8; ++i)
            videos.emplace_back(std::string("v") + std::to_string(i), "file://" + clip,
                                std::string("Test card ") + std::to_string(i), "pl",
                                thumbs + "sample-1-0" + std::to_string(i) + ".svg");
        playlists() = {Playlist("pl", "Bench", thumbs + "playlist-1.svg", std::nullopt, videos),
                       Playlist("pl-2", "Next", thumbs + "playlist-2.svg", std::nullopt, videos)};
        service = std::make_shared<VideoPlayerService>(Platform::current());
        currentVideoPlayerService() = service;
        service->playPlaylist("pl");
    });
    if (!window) return 1;
    auto pc = service->playerController;
    if (!waitOnMainQueue([&] { return pc->isPlaying && !pc->showLoading && pc->showPlaylist; }, 30))
        return 1;
    std::this_thread::sleep_for(std::chrono::seconds(1));  // thumbnails in, rail settled

    // Frame time while playing with the rail up: each frame draws the newest
    // video picture, the overlay and the rail. A frame asked for before a new
    // picture came is recorded but not drawn: counted apart.
    std::vector<double> ms, skippedMs;
    mainQueue().sync([&] {
        if (!pc->showPlaylist) pc->tapOnVideo();
        if (!pc->showControls) pc->toggleControls();
        pc->cancelAutoHide();
    });
    for (int i = 0; i < 600; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        mainQueue().sync([&] {
            pc->scheduleHalfScreenAutoReturn();  // the rail stays, as while it is touched
            window->waitUntilPresented();        // the recording only, not the swap before it
            const auto drawnBefore = window->framesRendered();
            auto start = std::chrono::steady_clock::now();
            window->renderNow();
            const double elapsed =
                std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                    .count();
            (window->framesRendered() > drawnBefore ? ms : skippedMs).push_back(elapsed);
        });
    }
    std::printf("screen_frames_not_drawn_share: %.3f\n", skippedMs.size() / 600.0);
    std::printf("screen_frame_ms_median: %.3f\n", percentile(ms, 0.5));
    std::printf("screen_frame_ms_p99: %.3f\n", percentile(ms, 0.99));

    // A paused screen with nothing animating should cost next to nothing.
    mainQueue().sync([&] { pc->pause(); });
    std::this_thread::sleep_for(std::chrono::seconds(2));
    uint64_t framesBefore = 0, framesAfter = 0;
    mainQueue().sync([&] { framesBefore = window->framesRendered(); });
    const double window_s = 20;
    const auto threads0 = cpuByThreadName();
    double cpu0 = processCpuSeconds();
    std::this_thread::sleep_for(std::chrono::duration<double>(window_s));
    double cpu1 = processCpuSeconds();
    // Threads that ended meanwhile are not counted here; the total above has them.
    for (const auto& [name, seconds] : cpuByThreadName()) {
        const double spent = seconds - (threads0.count(name) ? threads0.at(name) : 0);
        if (spent > 0)
            std::printf("paused_screen_cpu_per_minute_thread_%s: %.4f\n", name.c_str(),
                        spent * 60 / window_s);
    }
    mainQueue().sync([&] { framesAfter = window->framesRendered(); });
    std::printf("paused_screen_cpu_seconds_per_minute: %.4f\n", (cpu1 - cpu0) * 60 / window_s);
    std::printf("paused_screen_frames_per_minute: %.1f\n",
                static_cast<double>(framesAfter - framesBefore) * 60 / window_s);

    mainQueue().sync([&] {
        currentVideoPlayerService().reset();
        service.reset();
    });
    Platform::shutdown();
    fs::remove_all(dir);
    return 0;
}
