// A game that puts the player screen up, for the tests that need a separate process:
//   kavelin-windowed-host LIBRARY CLIP grab OUT   the screen's top band as raw RGB in OUT
//   kavelin-windowed-host LIBRARY CLIP sdl        the host runs an SDL window and loop of
//                                                 its own; exits 0 when its key press and
//                                                 its quit both reached it
#include <SDL.h>
#include <dlfcn.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>

namespace {

std::mutex gMutex;
std::condition_variable gChanged;
bool gPlaying = false;

void onEvent(const char* message) {
    if (std::strcmp(message, "OnVideoPlay:true") != 0) return;
    std::lock_guard lock(gMutex);
    gPlaying = true;
    gChanged.notify_all();
}

template <typename F>
F entry(void* lib, const char* name) {
    auto* symbol = reinterpret_cast<F>(dlsym(lib, name));
    if (!symbol) {
        std::fprintf(stderr, "[host] missing %s\n", name);
        std::_Exit(2);
    }
    return symbol;
}

bool startPlaying(void* lib, const std::string& clip) {
    const std::string episodes = R"([{"id":"p","episodes":[{"index":"a","url":")" + clip +
                                 R"(","thumbnail":"","title":"A","isActive":1,"length":30}]}])";
    entry<void (*)(void (*)(const char*))>(lib, "registerUnityCallback")(onEvent);
    entry<void (*)(const char*)>(lib, "SetPlaylists")(R"([{"id":"p","name":"P","thumbnail":""}])");
    entry<void (*)(const char*)>(lib, "SetEpisodes")(episodes.c_str());
    entry<void (*)(bool)>(lib, "SetPremium")(true);
    entry<void (*)(const char*)>(lib, "PlayPlaylist")("p");
    std::unique_lock lock(gMutex);
    return gChanged.wait_for(lock, std::chrono::seconds(60), [] { return gPlaying; });
}

// Keys and quit sent to the host's own window while the player screen is up; the
// host looks at its queue only after the library has pumped several times.
int runSdlHost(void* lib, const std::string& clip) {
    if (SDL_Init(SDL_INIT_VIDEO) != 0) return 3;
    SDL_Window* own = SDL_CreateWindow("host", 0, 0, 320, 240, SDL_WINDOW_SHOWN);
    if (!own || !startPlaying(lib, clip)) return 4;
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    SDL_Event key{};
    key.type = SDL_KEYDOWN;
    key.key.windowID = SDL_GetWindowID(own);
    key.key.keysym.sym = SDLK_a;
    SDL_PushEvent(&key);
    SDL_Event quit{};
    quit.type = SDL_QUIT;
    SDL_PushEvent(&quit);
    std::this_thread::sleep_for(std::chrono::milliseconds(800));
    bool gotKey = false, gotQuit = false;
    SDL_Event e;
    while (SDL_PollEvent(&e)) {
        gotKey |= e.type == SDL_KEYDOWN && e.key.keysym.sym == SDLK_a;
        gotQuit |= e.type == SDL_QUIT;
    }
    std::printf("[host] key %d quit %d\n", gotKey, gotQuit);
    entry<void (*)()>(lib, "cleanup")();
    SDL_DestroyWindow(own);
    SDL_Quit();
    return gotKey && gotQuit ? 0 : 1;
}

int grabScreen(void* lib, const std::string& clip, const std::string& out) {
    if (!startPlaying(lib, clip)) return 4;
    entry<void (*)()>(lib, "pause")();
    const char* display = std::getenv("DISPLAY");
    const std::string command = "ffmpeg -v error -y -f x11grab -video_size 1280x200 -i '" +
                                std::string(display ? display : ":0") +
                                "+0,0' -frames:v 1 -f rawvideo -pix_fmt rgb24 '" + out + "'";
    // The screen fades in and its controls settle at the pace of a loaded machine:
    // the picture counts once something is drawn and two grabs half a second apart agree.
    std::string previous;
    int rc = 5;
    for (int attempt = 0; attempt < 20; ++attempt) {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        if (std::system(command.c_str()) != 0) break;
        std::ifstream in(out, std::ios::binary);
        std::string grabbed{std::istreambuf_iterator<char>(in), {}};
        size_t lit = 0;  // before the first frame the window is black, and stays so
        for (size_t i = 0; i + 2 < grabbed.size(); i += 3)
            lit += uint8_t(grabbed[i]) + uint8_t(grabbed[i + 1]) + uint8_t(grabbed[i + 2]) > 96;
        if (lit > 500 && grabbed == previous) {
            rc = 0;
            break;
        }
        previous = std::move(grabbed);
    }
    entry<void (*)()>(lib, "cleanup")();
    return rc;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) return 2;
    void* lib = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (!lib) {
        std::fprintf(stderr, "[host] %s\n", dlerror());
        return 2;
    }
    const std::string mode = argv[3];
    if (mode == "sdl") return runSdlHost(lib, argv[2]);
    if (mode == "grab" && argc == 5) return grabScreen(lib, argv[2], argv[4]);
    return 2;
}
