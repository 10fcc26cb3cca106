// kavelin-demo: a host that embeds libKavelin.so the way a game does. It loads
// the library with dlopen, registers an event callback, sends a catalogue, a tier
// and a mid-roll policy, plays a playlist as a free viewer, and "shows" every ad it
// is asked for by waiting two seconds before reporting it done.
#include <Kavelin/Kavelin.h>
#include <dlfcn.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

namespace {

struct Library {
    void* handle = nullptr;
    template <typename F>
    F get(const char* name) {
        void* sym = dlsym(handle, name);
        if (!sym) {
            std::fprintf(stderr, "kavelin-demo: missing export %s\n", name);
            std::exit(1);
        }
        return reinterpret_cast<F>(sym);
    }
};

// Looks an entry point up with the type the public header declares for it.
#define KAVELIN_ENTRY(lib, name) (lib).get<decltype(&::name)>(#name)

// Events arrive on the library's thread; ads are "shown" on the demo's own thread
// so the library is never blocked by the host.
std::mutex gMutex;
std::condition_variable gWake;
std::deque<std::string> gAdRequests;
std::atomic<bool> gClosed{false};

void onEvent(const char* message) {
    std::printf("[demo] event %s\n", message);
    std::fflush(stdout);
    std::string text(message);
    const std::string method = text.substr(0, text.find(':'));
    if (method == "OnNextVideoAdRequired" || method == "OnMidRollAdRequired" ||
        method == "OnVideoTileClicked") {
        std::lock_guard lock(gMutex);
        gAdRequests.push_back(method);
        gWake.notify_one();
    } else if (text == "OnViewDismissed:user_exit") {
        gClosed = true;
        gWake.notify_one();
    }
}

std::string thumbnail(const std::string& name) {
    return "file://" KAVELIN_SOURCE_DIR "/Resources/Thumbnails/" + name + ".svg";
}

std::string playlistsDocument() {
    return R"([{"id":"demo-1","name":"Shapes and Colours","thumbnail":")" +
           thumbnail("playlist-1") + R"("},{"id":"demo-2","name":"Counting","thumbnail":")" +
           thumbnail("playlist-2") + R"("}])";
}

// One mid-roll break, 8 s into each playlist's first video. A mid-roll reloads its
// video from the start, so the cooldown must outlast the rest of that video or the
// same break would ask again; it has passed by the end of the next one, which then
// gets an end-of-video ad.
const char* kPolicy = R"({
  "version": 1,
  "adTimeoutSeconds": 8,
  "globalConstraints": {"minGapSeconds": 6, "noAdZoneStartSeconds": 4,
                        "noAdZoneEndSeconds": 3, "minSecondsBetweenAnyAds": 20},
  "durationBuckets": [],
  "videoOverrides": {"1": {"cuePointSeconds": [8.0]}}
})";

// Generated test patterns: they play with no network. The edit list gives mpv an
// exact length for a source that would otherwise run forever.
std::string episodesDocument() {
    auto ep = [](const char* index, const char* title, int seconds, const char* pattern,
                 const char* thumb) {
        return std::string(R"({"index":")") + index + R"(","url":"edl://file=av://lavfi:)" +
               pattern + "=size=640x360:rate=25,length=" + std::to_string(seconds) +
               R"(","thumbnail":")" + thumbnail(thumb) + R"(","title":")" + title +
               R"(","isActive":1,"length":)" + std::to_string(seconds) + "}";
    };
    return "[{\"id\":\"demo-1\",\"episodes\":[" +
           ep("1", "Colour bars", 16, "smptebars", "sample-1-01") + "," +
           ep("2", "Test card", 14, "testsrc2", "sample-1-02") + "," +
           ep("3", "Rainbow", 12, "rgbtestsrc", "sample-1-03") +
           "]},{\"id\":\"demo-2\",\"episodes\":[" +
           ep("1", "Counting", 12, "testsrc", "sample-2-01") + "]}]";
}

}  // namespace

int main(int argc, char** argv) {
    // Headless runs are bounded; with a window the demo runs until the viewer closes it.
    const char* headless = std::getenv("KAVELIN_HEADLESS");
    const bool hasDisplay = (std::getenv("DISPLAY") || std::getenv("WAYLAND_DISPLAY")) &&
                            !(headless && std::string(headless) == "1");
    double seconds = hasDisplay ? 24 * 3600.0 : 50;
    const char* libPath = KAVELIN_DEFAULT_LIB;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--seconds") && i + 1 < argc)
            seconds = std::atof(argv[++i]);
        else if (!std::strcmp(argv[i], "--library") && i + 1 < argc)
            libPath = argv[++i];
        else {
            std::fprintf(stderr, "usage: kavelin-demo [--seconds N] [--library PATH]\n");
            return 2;
        }
    }

    Library lib{dlopen(libPath, RTLD_NOW | RTLD_LOCAL)};
    if (!lib.handle) {
        std::fprintf(stderr, "kavelin-demo: %s\n", dlerror());
        return 1;
    }
    std::printf("[demo] loaded %s (version %s)\n", libPath,
                lib.get<const char*>("KavelinVersionString"));

    KAVELIN_ENTRY(lib, registerUnityCallback)(onEvent);
    KAVELIN_ENTRY(lib, SetPlaylists)(playlistsDocument().c_str());
    KAVELIN_ENTRY(lib, SetEpisodes)(episodesDocument().c_str());
    KAVELIN_ENTRY(lib, SetPremium)(false);
    KAVELIN_ENTRY(lib, SetMidRollAdConfig)(kPolicy);
    KAVELIN_ENTRY(lib, PlayPlaylist)("demo-1");

    auto adCompleted = KAVELIN_ENTRY(lib, AdCompletedResumePlayback);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    std::unique_lock lock(gMutex);
    while (!gClosed && std::chrono::steady_clock::now() < deadline) {
        gWake.wait_until(lock, deadline, [] { return gClosed || !gAdRequests.empty(); });
        if (gAdRequests.empty()) continue;
        std::string kind = gAdRequests.front();
        gAdRequests.pop_front();
        lock.unlock();
        std::printf("[demo] showing an ad for %s (2 s)\n", kind.c_str());
        std::fflush(stdout);
        std::this_thread::sleep_for(std::chrono::seconds(2));
        std::printf("[demo] ad done\n");
        adCompleted();
        lock.lock();
    }
    lock.unlock();
    KAVELIN_ENTRY(lib, cleanup)();
    std::printf("[demo] done\n");
    return 0;
}
