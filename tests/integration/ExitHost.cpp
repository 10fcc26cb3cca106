// A host that plays with the player window open and leaves at the moment it is told,
// without calling cleanup: by returning from main, by exit() from its own thread, or
// by exit() from inside the event callback, on the library's thread.
//   kavelin-exit-host LIBRARY PLAYLISTS_JSON EPISODES_JSON DELAY_MS return|exit|callback
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "support/HostLibrary.h"

namespace {

std::atomic<bool> gExitInCallback{false};

void onEvent(const char* message) {
    if (gExitInCallback && std::strcmp(message, "OnVideoPlay:Started") == 0) {
        std::printf("[exit-host] exit from the callback\n");
        std::fflush(stdout);
        std::exit(0);
    }
    HostEvents::record(message);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::fprintf(stderr, "usage: kavelin-exit-host LIB PLAYLISTS EPISODES DELAY_MS MODE\n");
        return 2;
    }
    HostLibrary lib(argv[1]);
    if (!lib.ok()) {
        std::fprintf(stderr, "[exit-host] %s\n", lib.missing.c_str());
        return 2;
    }
    const std::string mode = argv[5];
    lib.registerUnityCallback(onEvent);
    lib.SetPlaylists(argv[2]);
    lib.SetEpisodes(argv[3]);
    lib.SetPremium(true);
    lib.PlayPlaylist("pl-exit");
    if (!HostEvents::waitFor("OnVideoPlay:true", 0, 20)) {
        std::fprintf(stderr, "[exit-host] playback never started\n");
        return 3;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(std::atoi(argv[4])));
    std::printf("[exit-host] leaving by %s after %s ms\n", mode.c_str(), argv[4]);
    std::fflush(stdout);
    if (mode == "exit") std::exit(0);
    if (mode == "callback") {
        gExitInCallback = true;
        lib.play();
        return 4;  // the callback should have exited
    }
    return 0;
}
