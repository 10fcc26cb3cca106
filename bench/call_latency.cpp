// How long each exported call holds the game's thread, loading the built library as
// a game does, with the player screen in a real window (Xvfb when there is no
// display). first_call_ms: the slowest first call of an entry point (the first one
// makes the thread, the player and the window). call_p99_ms: all 26 entry points,
// called round after round while a clip plays, then cleanup (cleanup_ms, which no
// longer waits for the window to close). Prints `name: value` lines.
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/TestMedia.h"
#include "support/XvfbDisplay.h"

namespace fs = std::filesystem;

namespace {

void* gLib = nullptr;

// Looked up outside the timed calls, as a host does once after loading: dlsym
// takes the loader's lock, which the window's driver loading holds for tens of
// milliseconds.
template <typename F>
F fn(const char* name) {
    static std::map<std::string, void*> resolved;
    auto [it, added] = resolved.try_emplace(name, nullptr);
    if (added) it->second = dlsym(gLib, name);
    return reinterpret_cast<F>(it->second);
}

double timedMs(const std::function<void()>& call) {
    const auto start = std::chrono::steady_clock::now();
    call();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
}

void ignoreEvent(const char*) {}

}  // namespace

int main() {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    kavelin::test::XvfbDisplay display;
    const fs::path dir =
        fs::temp_directory_path() / ("kavelin-bench-calls-" + std::to_string(getpid()));
    fs::create_directories(dir);
    const std::string clip = (dir / "clip.mp4").string();
    kavelin::test::TestMedia::makeVideoClip(clip, "testsrc2=size=640x360:rate=25:duration=60");
    setenv("XDG_CONFIG_HOME", dir.c_str(), 1);
    // The library's log lines would drown the numbers.
    std::fflush(stdout);
    const int savedStdout = dup(STDOUT_FILENO);
    const int devNull = open("/dev/null", O_WRONLY);
    dup2(devNull, STDOUT_FILENO);
    gLib = dlopen(KAVELIN_LIB_PATH, RTLD_NOW | RTLD_LOCAL);
    if (!gLib) return 1;

    const std::string playlists = R"([{"id":"p","name":"P","thumbnail":""}])";
    const std::string episodes = R"([{"id":"p","episodes":[{"index":"a","url":")" + clip +
                                 R"(","thumbnail":"","title":"A","isActive":1,"length":60}]}])";
    const char* urls[] = {clip.c_str()};
    using Flag = void (*)(bool);
    std::vector<std::pair<const char*, std::function<void()>>> calls = {
        {"registerUnityCallback",
         [] { fn<void (*)(void (*)(const char*))>("registerUnityCallback")(ignoreEvent); }},
        {"SetPlaylists", [&] { fn<void (*)(const char*)>("SetPlaylists")(playlists.c_str()); }},
        {"SetEpisodes", [&] { fn<void (*)(const char*)>("SetEpisodes")(episodes.c_str()); }},
        {"SetPremium", [] { fn<Flag>("SetPremium")(true); }},
        {"SetMidRollAdConfig", [] { fn<void (*)(const char*)>("SetMidRollAdConfig")("{}"); }},
        {"PlayPlaylist", [] { fn<void (*)(const char*)>("PlayPlaylist")("p"); }},
        {"SetAdRequired", [] { fn<Flag>("SetAdRequired")(false); }},
        {"AdCompletedResumePlayback", [] { fn<void (*)()>("AdCompletedResumePlayback")(); }},
        {"pause", [] { fn<void (*)()>("pause")(); }},
        {"play", [] { fn<void (*)()>("play")(); }},
        {"seekForward", [] { fn<void (*)(double)>("seekForward")(10); }},
        {"seekBackward", [] { fn<void (*)(double)>("seekBackward")(10); }},
        {"seekTo", [] { fn<void (*)(double)>("seekTo")(5); }},
        {"stop", [] { fn<void (*)()>("stop")(); }},
        {"setURLS", [&] { fn<void (*)(const char**, int)>("setURLS")(urls, 1); }},
        {"loadVideo", [&] { fn<void (*)(const char*)>("loadVideo")(clip.c_str()); }},
    };
    for (const char* flag : {"setShowForwardButton", "setShowBackwordButton", "setShowBack10Button",
                             "setShowFor10Button", "setShowPlayPauseButton", "setShowBackButton",
                             "setShowLogo", "setShowSeekbar", "setShowTimeDuration"})
        calls.emplace_back(flag, [flag] { fn<Flag>(flag)(true); });

    for (const auto& [name, call] : calls) fn<void*>(name);
    fn<void*>("cleanup");
    double firstCall = 0;
    const char* slowestFirst = "";
    std::vector<std::pair<double, std::string>> firsts;
    for (auto& [name, call] : calls) {
        const double ms = timedMs(call);
        firsts.emplace_back(ms, name);
        if (ms > firstCall) firstCall = ms, slowestFirst = name;
    }
    // Each sample keeps its entry point and round, so the slowest can be told apart.
    std::vector<std::pair<double, std::string>> samples;
    for (int round = 0; round < 40; ++round) {
        for (auto& [name, call] : calls)
            samples.emplace_back(timedMs(call), std::string(name) + "#" + std::to_string(round));
        std::this_thread::sleep_for(
            std::chrono::milliseconds(50));  // let frames be drawn between rounds
    }
    const double cleanupMs = timedMs(fn<void (*)()>("cleanup"));
    samples.emplace_back(cleanupMs, "cleanup");
    std::sort(samples.begin(), samples.end());
    std::sort(firsts.rbegin(), firsts.rend());
    const double p99 =
        samples[static_cast<size_t>(0.99 * static_cast<double>(samples.size() - 1))].first;

    std::fflush(stdout);
    dup2(savedStdout, STDOUT_FILENO);
    std::printf("first_call_ms: %.2f\n", firstCall);
    std::printf("first_call_slowest: %s\n", slowestFirst);
    std::printf("call_p99_ms: %.2f\n", p99);
    std::printf("call_max_ms: %.2f\n", samples.back().first);
    for (size_t i = 0; i < 3 && i < firsts.size(); ++i)
        std::printf("first_call_slow_%zu: %s %.2f\n", i + 1, firsts[i].second.c_str(),
                    firsts[i].first);
    for (size_t i = 0; i < 8 && i < samples.size(); ++i) {
        const auto& [ms, what] = samples[samples.size() - 1 - i];
        std::printf("call_slow_%zu: %s %.2f\n", i + 1, what.c_str(), ms);
    }
    std::printf("cleanup_ms: %.2f\n", cleanupMs);
    // The window closes after cleanup returns; a call waits for that, so the X
    // server is not taken away from under it.
    fn<void (*)()>("cleanup")();
    fs::remove_all(dir);
    return 0;
}
