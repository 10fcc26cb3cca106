// kavelin-demo: a host that embeds libKavelin.so the way a game does. It loads
// the library with dlopen, registers an event callback, sends a catalogue, a tier
// and a mid-roll policy, plays a playlist as a free viewer, and "shows" every ad it
// is asked for by waiting two seconds before reporting it done.
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

using Callback = void (*)(const char*);

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

const char* kPlaylists = R"([{"id":"demo-1","name":"Shapes and Colours","thumbnail":""},)"
                         R"({"id":"demo-2","name":"Counting","thumbnail":""}])";

const char* kPolicy = R"({
  "version": 1,
  "adTimeoutSeconds": 8,
  "globalConstraints": {"minGapSeconds": 6, "noAdZoneStartSeconds": 4,
                        "noAdZoneEndSeconds": 3, "minSecondsBetweenAnyAds": 0},
  "durationBuckets": [{"minSeconds": 0, "maxSeconds": 3600, "maxBreaks": 1, "placements": [0.5]}]
})";

std::string episodes(const std::string& sampleUrlBase) {
    auto ep = [&](const char* index, const char* title, int seconds, const char* pattern) {
        char buf[512];
        std::snprintf(
            buf, sizeof buf,
            R"({"index":"%s","url":"%s%s=duration=%d:size=640x360:rate=25","thumbnail":"",)"
            R"("title":"%s","isActive":1,"length":%d})",
            index, sampleUrlBase.c_str(), pattern, seconds, title, seconds);
        return std::string(buf);
    };
    return "[{\"id\":\"demo-1\",\"episodes\":[" + ep("1", "Bars", 16, "smptebars") + "," +
           ep("2", "Test card", 14, "testsrc2") + "," + ep("3", "Rainbow", 12, "rgbtestsrc") +
           "]},{\"id\":\"demo-2\",\"episodes\":[" + ep("1", "Counting", 12, "testsrc") + "]}]";
}

}  // namespace

int main(int argc, char** argv) {
    double seconds = 45;
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

    lib.get<void (*)(Callback)>("registerUnityCallback")(onEvent);
    lib.get<void (*)(const char*)>("SetPlaylists")(kPlaylists);
    lib.get<void (*)(const char*)>("SetEpisodes")(episodes("av://lavfi:").c_str());
    lib.get<void (*)(bool)>("SetPremium")(false);
    lib.get<void (*)(const char*)>("SetMidRollAdConfig")(kPolicy);
    lib.get<void (*)(const char*)>("PlayPlaylist")("demo-1");

    auto adCompleted = lib.get<void (*)()>("AdCompletedResumePlayback");
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
    lib.get<void (*)()>("cleanup")();
    std::printf("[demo] done\n");
    return 0;
}
