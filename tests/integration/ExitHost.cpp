// A host that plays with the player window open and leaves at the moment it is told,
// without calling cleanup: by returning from main, by exit() from its own thread, or
// by exit() from inside the event callback, on the library's thread.
//   kavelin-exit-host LIBRARY PLAYLISTS_JSON EPISODES_JSON DELAY_MS return|exit|callback
#include <dlfcn.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

namespace {

std::mutex gMutex;
std::condition_variable gPlaying;
bool gStarted = false;
std::atomic<bool> gExitInCallback{false};

void onEvent(const char* message) {
    if (gExitInCallback && std::strcmp(message, "OnVideoPlay:Started") == 0) {
        std::printf("[exit-host] exit from the callback\n");
        std::fflush(stdout);
        std::exit(0);
    }
    if (std::strcmp(message, "OnVideoPlay:true") == 0) {
        std::lock_guard lock(gMutex);
        gStarted = true;
        gPlaying.notify_all();
    }
}

template <typename F>
F entry(void* lib, const char* name) {
    auto* symbol = reinterpret_cast<F>(dlsym(lib, name));
    if (!symbol) {
        std::fprintf(stderr, "[exit-host] missing %s\n", name);
        std::_Exit(2);
    }
    return symbol;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::fprintf(stderr, "usage: kavelin-exit-host LIB PLAYLISTS EPISODES DELAY_MS MODE\n");
        return 2;
    }
    void* lib = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (!lib) {
        std::fprintf(stderr, "[exit-host] %s\n", dlerror());
        return 2;
    }
    const std::string mode = argv[5];
    entry<void (*)(void (*)(const char*))>(lib, "registerUnityCallback")(onEvent);
    entry<void (*)(const char*)>(lib, "SetPlaylists")(argv[2]);
    entry<void (*)(const char*)>(lib, "SetEpisodes")(argv[3]);
    entry<void (*)(bool)>(lib, "SetPremium")(true);
    entry<void (*)(const char*)>(lib, "PlayPlaylist")("pl-exit");
    {
        std::unique_lock lock(gMutex);
        if (!gPlaying.wait_for(lock, std::chrono::seconds(20), [] { return gStarted; })) {
            std::fprintf(stderr, "[exit-host] playback never started\n");
            return 3;
        }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(std::atoi(argv[4])));
    std::printf("[exit-host] leaving by %s after %s ms\n", mode.c_str(), argv[4]);
    std::fflush(stdout);
    if (mode == "exit") std::exit(0);
    if (mode == "callback") {
        gExitInCallback = true;
        entry<void (*)()>(lib, "play")();
        return 4;  // the callback should have exited
    }
    return 0;
}
