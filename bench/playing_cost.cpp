// What playing costs next to bare libmpv: the same 720p stream for 20 s in a
// 1280x720 window (Xvfb when there is no display), once through the library's
// screen (loaded with dlopen, as a game does) and once through a window of our own
// that only draws mpv's frames with its render API. Each runs in a child process
// that reports its own CPU seconds over the same stretch of playback.
// Prints `name: value` lines.
#include <SDL2/SDL.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <mpv/client.h>
#include <mpv/render_gl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "Kavelin/Platform/Linux/MpvMediaPlayer.h"
#include "support/TestMedia.h"
#include "support/XvfbDisplay.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kWidth = 1280, kHeight = 720;
constexpr auto kWarmUp = std::chrono::seconds(3);  // window, decoder and first frame
constexpr auto kMeasured = std::chrono::seconds(20);

double processCpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// Runs `frame` (which must not block long) until the measured stretch is over, and
// prints the CPU seconds of that stretch alone.
template <class Frame>
int measure(Frame&& frame) {
    const auto start = Clock::now();
    while (Clock::now() - start < kWarmUp) frame();
    const double before = processCpuSeconds();
    const auto measuredStart = Clock::now();
    while (Clock::now() - measuredStart < kMeasured) frame();
    // The parent reads the figure on descriptor 3; standard output carries logs.
    FILE* figure = fdopen(3, "w");
    if (!figure) return 1;
    std::fprintf(figure, "%.3f\n", processCpuSeconds() - before);
    std::fclose(figure);
    return 0;
}

int playThroughLibrary(const std::string& clip) {
    void* lib = dlopen(KAVELIN_LIB_PATH, RTLD_NOW | RTLD_LOCAL);
    if (!lib) return 1;
    auto call = [&](const char* name, auto... args) {
        using F = void (*)(decltype(args)...);
        reinterpret_cast<F>(dlsym(lib, name))(args...);
    };
    const std::string playlists = R"([{"id":"p","name":"P","thumbnail":""}])";
    const std::string episodes = R"([{"id":"p","episodes":[{"index":"a","url":")" + clip +
                                 R"(","thumbnail":"","title":"A","isActive":1,"length":60}]}])";
    call("SetPlaylists", playlists.c_str());
    call("SetEpisodes", episodes.c_str());
    call("SetPremium", true);
    call("PlayPlaylist", "p");
    return measure([] { std::this_thread::sleep_for(std::chrono::milliseconds(100)); });
}

// mpv's own minimal embedding: draw whenever it has a new frame, nothing else.
int playBare(const std::string& clip) {
    if (SDL_Init(SDL_INIT_VIDEO) != 0) return 1;
    SDL_GL_SetAttribute(SDL_GL_CONTEXT_MAJOR_VERSION, 3);
    SDL_GL_SetAttribute(SDL_GL_CONTEXT_MINOR_VERSION, 2);
    SDL_GL_SetAttribute(SDL_GL_CONTEXT_PROFILE_MASK, SDL_GL_CONTEXT_PROFILE_CORE);
    SDL_GL_SetAttribute(SDL_GL_DOUBLEBUFFER, 1);
    SDL_Window* window =
        SDL_CreateWindow("bare", 0, 0, kWidth, kHeight, SDL_WINDOW_OPENGL | SDL_WINDOW_BORDERLESS);
    if (!window) return 1;
    SDL_GLContext gl = SDL_GL_CreateContext(window);
    if (!gl) return 1;
    SDL_GL_SetSwapInterval(0);

    mpv_handle* mpv = mpv_create();
    auto options = kavelin::MpvMediaPlayer::Options::fromEnvironment();
    options.videoOutput = "libmpv";
    kavelin::MpvMediaPlayer::configure(mpv, options);
    if (mpv_initialize(mpv) < 0) return 1;
    mpv_opengl_init_params glInit{
        [](void*, const char* name) { return SDL_GL_GetProcAddress(name); }, nullptr};
    mpv_render_param params[] = {
        {MPV_RENDER_PARAM_API_TYPE, const_cast<char*>(MPV_RENDER_API_TYPE_OPENGL)},
        {MPV_RENDER_PARAM_OPENGL_INIT_PARAMS, &glInit},
        {MPV_RENDER_PARAM_INVALID, nullptr},
    };
    mpv_render_context* render = nullptr;
    if (mpv_render_context_create(&render, mpv, params) < 0) return 1;
    static Uint32 redrawEvent = SDL_RegisterEvents(1);
    mpv_render_context_set_update_callback(
        render,
        [](void*) {
            SDL_Event e{};
            e.type = redrawEvent;
            SDL_PushEvent(&e);
        },
        nullptr);
    const char* load[] = {"loadfile", clip.c_str(), nullptr};
    mpv_command(mpv, load);

    int result = measure([&] {
        SDL_Event e;
        if (!SDL_WaitEventTimeout(&e, 100) || e.type != redrawEvent) return;
        while (mpv_wait_event(mpv, 0)->event_id != MPV_EVENT_NONE) {
        }
        if (!(mpv_render_context_update(render) & MPV_RENDER_UPDATE_FRAME)) return;
        mpv_opengl_fbo fbo{0, kWidth, kHeight, 0};
        int flip = 1;
        mpv_render_param frame[] = {{MPV_RENDER_PARAM_OPENGL_FBO, &fbo},
                                    {MPV_RENDER_PARAM_FLIP_Y, &flip},
                                    {MPV_RENDER_PARAM_INVALID, nullptr}};
        mpv_render_context_render(render, frame);
        SDL_GL_SwapWindow(window);
    });
    mpv_render_context_free(render);
    mpv_terminate_destroy(mpv);
    SDL_GL_DeleteContext(gl);
    SDL_DestroyWindow(window);
    SDL_Quit();
    return result;
}

// Runs this program again as `mode` and returns the CPU seconds it printed.
double runChild(const char* self, const char* mode, const std::string& clip) {
    int out[2];
    if (pipe(out) != 0) return -1;
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], 3);
        const int devNull = open("/dev/null", O_WRONLY);
        dup2(devNull, STDOUT_FILENO);
        dup2(devNull, STDERR_FILENO);
        execl(self, self, mode, clip.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    close(out[1]);
    char text[64] = {};
    size_t used = 0;
    ssize_t n;
    while (used < sizeof text - 1 && (n = read(out[0], text + used, sizeof text - 1 - used)) > 0)
        used += static_cast<size_t>(n);
    close(out[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 && used ? std::atof(text) : -1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "library") == 0) return playThroughLibrary(argv[2]);
    if (argc == 3 && std::strcmp(argv[1], "bare") == 0) return playBare(argv[2]);

    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    kavelin::test::XvfbDisplay display;
    if (!display.ok()) return 1;
    setenv("KAVELIN_WINDOW_SIZE", "1280x720", 1);
    const fs::path dir =
        fs::temp_directory_path() / ("kavelin-bench-playing-" + std::to_string(getpid()));
    fs::create_directories(dir);
    setenv("XDG_CONFIG_HOME", dir.c_str(), 1);
    const std::string clip = (dir / "clip720p.mp4").string();
    kavelin::test::TestMedia::makeVideoClip(clip, "testsrc2=size=1280x720:rate=25:duration=60");

    const double library = runChild(argv[0], "library", clip);
    const double bare = runChild(argv[0], "bare", clip);
    fs::remove_all(dir);
    std::printf("playing_library_cpu_s: %.3f\n", library);
    std::printf("playing_bare_mpv_cpu_s: %.3f\n", bare);
    if (library < 0 || bare <= 0) return 1;
    std::printf("playing_cpu_ratio: %.3f\n", library / bare);
    return 0;
}
