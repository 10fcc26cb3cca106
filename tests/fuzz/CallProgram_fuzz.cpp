#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Kavelin/Kavelin.h"
#include "Kavelin/Model/Catalogue.h"
#include "Kavelin/VideoPlayerBridgging.h"
#include "Kavelin/log/VPLogger.h"
#include "support/VirtualPlatform.h"

// Reads the input as a short program, one call a line: the exported function's
// name, a space, and its argument text ("a|b" for setURLS, "wait 2.5" moves
// virtual time). Runs it against the real library on the simulated player and the
// headless presenter, then tears everything down so inputs stay independent.
namespace {

void onEvent(const char* message) {
    if (!message) __builtin_trap();  // the host must always get text
}

double number(const std::string& text) {
    return std::strtod(text.c_str(), nullptr);
}

void call(std::string_view name, const std::string& arg, kavelin::testing::VirtualPlatform& p) {
    const char* text = arg.c_str();
    const bool flag = arg == "1" || arg == "true";
    if (name == "wait") {
        const double seconds = number(arg);
        // Long enough to finish any clip or ad time-out, short enough to stay fast.
        p.advance(std::isfinite(seconds) ? std::fmin(std::fabs(seconds), 120.0) : 1.0);
    } else if (name == "registerUnityCallback") {
        registerUnityCallback(arg.empty() ? nullptr : onEvent);
    } else if (name == "loadVideo") {
        loadVideo(text);
    } else if (name == "play") {
        play();
    } else if (name == "pause") {
        kavelin_pause();
    } else if (name == "stop") {
        stop();
    } else if (name == "seekForward") {
        seekForward(number(arg));
    } else if (name == "seekBackward") {
        seekBackward(number(arg));
    } else if (name == "seekTo") {
        seekTo(number(arg));
    } else if (name == "cleanup") {
        cleanup();
    } else if (name == "setURLS") {
        std::vector<std::string> parts;
        for (size_t start = 0;;) {
            const size_t bar = arg.find('|', start);
            parts.push_back(arg.substr(start, bar - start));
            if (bar == std::string::npos) break;
            start = bar + 1;
        }
        std::vector<const char*> urls;
        for (const auto& part : parts) urls.push_back(part == "NULL" ? nullptr : part.c_str());
        setURLS(urls.data(), static_cast<int32_t>(urls.size()));
    } else if (name == "setShowForwardButton") {
        setShowForwardButton(flag);
    } else if (name == "setShowBackwordButton") {
        setShowBackwordButton(flag);
    } else if (name == "setShowBack10Button") {
        setShowBack10Button(flag);
    } else if (name == "setShowFor10Button") {
        setShowFor10Button(flag);
    } else if (name == "setShowPlayPauseButton") {
        setShowPlayPauseButton(flag);
    } else if (name == "setShowBackButton") {
        setShowBackButton(flag);
    } else if (name == "setShowLogo") {
        setShowLogo(flag);
    } else if (name == "setShowSeekbar") {
        setShowSeekbar(flag);
    } else if (name == "setShowTimeDuration") {
        setShowTimeDuration(flag);
    } else if (name == "SetPlaylists") {
        SetPlaylists(text);
    } else if (name == "SetEpisodes") {
        SetEpisodes(text);
    } else if (name == "PlayPlaylist") {
        PlayPlaylist(text);
    } else if (name == "SetPremium") {
        SetPremium(flag);
    } else if (name == "SetAdRequired") {
        SetAdRequired(flag);
    } else if (name == "SetMidRollAdConfig") {
        SetMidRollAdConfig(text);
    } else if (name == "AdCompletedResumePlayback") {
        AdCompletedResumePlayback();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool quiet = (kavelin::VPLogger::setEnabled(false), true);
    (void)quiet;
    kavelin::testing::VirtualPlatform platform;
    const std::string_view program(reinterpret_cast<const char*>(data), size);
    size_t calls = 0;
    for (size_t start = 0; start < program.size() && calls < 64; ++calls) {
        size_t end = program.find('\n', start);
        if (end == std::string_view::npos) end = program.size();
        const auto line = program.substr(start, end - start);
        const size_t space = line.find(' ');
        const auto name = line.substr(0, space);
        const std::string arg(space == std::string_view::npos ? "" : line.substr(space + 1));
        call(name, arg, platform);
        platform.runUntilIdle();
        start = end + 1;
    }
    platform.advance(5);
    // Back to a fresh process's state: no service, no callback, the sample catalogue.
    cleanup();
    registerUnityCallback(nullptr);
    platform.runUntilIdle();
    kavelin::currentVideoPlayerService().reset();
    kavelin::playlists() = kavelin::Playlist::allPlaylists();
    kavelin::subscriptionStatus() = kavelin::SubscriptionStatus::free;
    platform.runUntilIdle();
    return 0;
}
