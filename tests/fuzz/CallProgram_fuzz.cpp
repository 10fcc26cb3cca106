#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
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
bool flag(const std::string& text) {
    return text == "1" || text == "true";
}

void setURLSFrom(const std::string& arg) {
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
}

using Arg = const std::string&;
// clang-format off
#define KAVELIN_TEXT(name) {#name, [](Arg a) { name(a.c_str()); }}
#define KAVELIN_NUMBER(name) {#name, [](Arg a) { name(number(a)); }}
#define KAVELIN_FLAG(name) {#name, [](Arg a) { name(flag(a)); }}
#define KAVELIN_NONE(name) {#name, [](Arg) { name(); }}
const std::map<std::string_view, void (*)(Arg)> kCalls = {
    {"registerUnityCallback", [](Arg a) { registerUnityCallback(a.empty() ? nullptr : onEvent); }},
    {"pause", [](Arg) { kavelin_pause(); }},
    {"setURLS", setURLSFrom},
    KAVELIN_TEXT(loadVideo), KAVELIN_TEXT(SetPlaylists), KAVELIN_TEXT(SetEpisodes),
    KAVELIN_TEXT(PlayPlaylist), KAVELIN_TEXT(SetMidRollAdConfig),
    KAVELIN_NUMBER(seekForward), KAVELIN_NUMBER(seekBackward), KAVELIN_NUMBER(seekTo),
    KAVELIN_NONE(play), KAVELIN_NONE(stop), KAVELIN_NONE(cleanup),
    KAVELIN_NONE(AdCompletedResumePlayback), KAVELIN_FLAG(SetPremium), KAVELIN_FLAG(SetAdRequired),
    KAVELIN_FLAG(setShowForwardButton), KAVELIN_FLAG(setShowBackwordButton),
    KAVELIN_FLAG(setShowBack10Button), KAVELIN_FLAG(setShowFor10Button),
    KAVELIN_FLAG(setShowPlayPauseButton), KAVELIN_FLAG(setShowBackButton), KAVELIN_FLAG(setShowLogo),
    KAVELIN_FLAG(setShowSeekbar), KAVELIN_FLAG(setShowTimeDuration)};
// clang-format on

void call(std::string_view name, const std::string& arg, kavelin::testing::VirtualPlatform& p) {
    if (name == "wait") {
        const double seconds = number(arg);
        // Long enough to finish any clip or ad time-out, short enough to stay fast.
        p.advance(std::isfinite(seconds) ? std::fmin(std::fabs(seconds), 120.0) : 1.0);
    } else if (auto it = kCalls.find(name); it != kCalls.end()) {
        it->second(arg);
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
