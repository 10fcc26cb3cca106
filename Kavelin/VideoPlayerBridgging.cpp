// The exported C entry points, the process-wide state behind them, and the event
// channel back to the host. Every entry point hops onto the library's main queue
// synchronously and never lets an exception cross the C boundary.
#include "Kavelin/VideoPlayerBridgging.h"

#include <Kavelin/Kavelin.h>
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <optional>

#include "Kavelin/Extentions/NumberFormatting.h"
#include "Kavelin/Platform/Immortal.h"
#include "Kavelin/Platform/MainQueueCheck.h"
#include "Kavelin/VideoPlayerService.h"
#include "Kavelin/log/VPLogger.h"

namespace kavelin {
namespace {

using UnityCallback = void (*)(const char*);
using UnitySendMessageFunc = void (*)(const char*, const char*, const char*);

UnityCallback _unityCallbackFunc = nullptr;
std::optional<UnitySendMessageFunc> _unitySendMessageFunc;  // resolved once, found or not
EventObserver& eventObserver() {
    static Immortal<EventObserver> observer;
    return observer.get();
}

UnitySendMessageFunc unitySendMessageFunc() {
    if (!_unitySendMessageFunc) {
        UnitySendMessageFunc found = nullptr;
        if (void* self = dlopen(nullptr, RTLD_LAZY)) {
            found = reinterpret_cast<UnitySendMessageFunc>(dlsym(self, "UnitySendMessage"));
            // The handle of the running image stays valid for the whole process.
        }
        _unitySendMessageFunc = found;
    }
    return *_unitySendMessageFunc;
}

// Runs `body` on the main queue and keeps every failure on this side of the ABI.
template <typename Body>
void onMainQueue(const char* entryPoint, Body&& body) noexcept {
    try {
        mainQueue().sync(std::forward<Body>(body));
    } catch (const std::exception& e) {
        VPLogger::error(std::string("❌ ") + entryPoint + " failed: " + e.what());
    } catch (...) {
        VPLogger::error(std::string("❌ ") + entryPoint + " failed");
    }
}

VideoPlayerService* existingService() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    return currentVideoPlayerService().get();
}

VideoPlayerService& serviceCreatingIfNeeded() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    auto& service = currentVideoPlayerService();
    if (!service) service = std::make_shared<VideoPlayerService>();
    return *service;
}

// A null string from the host is a programming error on its side; say so and skip.
bool isNull(const char* text, const char* entryPoint) {
    if (text) return false;
    VPLogger::warning(std::string("⚠️ ") + entryPoint + " called with a null string; ignored");
    return true;
}

}  // namespace

std::shared_ptr<VideoPlayerService>& currentVideoPlayerService() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    // Never destroyed: the library thread may still use it while the process exits.
    static auto* service = new std::shared_ptr<VideoPlayerService>();
    return *service;
}

void sendUnityMessage(std::string_view methodName, std::string_view message) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    std::string combined;
    combined.reserve(methodName.size() + 1 + message.size());
    combined.append(methodName).append(":").append(message);
    VPLogger::log("📤 sendUnityMessage: " + combined);
    if (auto& observe = eventObserver()) observe(methodName, message);

    if (_unityCallbackFunc) {
        _unityCallbackFunc(combined.c_str());
        return;
    }
    if (auto send = unitySendMessageFunc()) {
        const std::string method(methodName), payload(message);
        send("ZelkinVideoPlayer", method.c_str(), payload.c_str());
        return;
    }
    VPLogger::log("⚠️ No Unity callback available for: " + combined);
}

std::vector<std::string> urlsFromHost(const char* const* urls, int32_t count) {
    std::vector<std::string> list;
    if (!urls) {
        if (count > 0)
            VPLogger::warning("⚠️ setURLS called with a null list; treated as empty");
        return list;
    }
    list.reserve(static_cast<size_t>(count));
    for (int32_t i = 0; i < count; ++i)
        if (urls[i]) list.emplace_back(urls[i]);
    return list;
}

void setEventObserverForTesting(EventObserver observer) {
    eventObserver() = std::move(observer);
}

}  // namespace kavelin

using namespace kavelin;

extern "C" {

const double KavelinVersionNumber = 1.1;
const unsigned char KavelinVersionString[] = "@(#)PROGRAM:Kavelin  PROJECT:Kavelin-1.1.0\n";

void registerUnityCallback(kavelin_event_callback callback) {
    onMainQueue("registerUnityCallback", [&] {
        _unityCallbackFunc = callback;
        VPLogger::log("✅ Unity delegate callback registered successfully.");
        sendUnityMessage("CallBack_registered", "registered");
    });
}

void loadVideo(const char* urlString) {
    if (isNull(urlString, "loadVideo")) return;
    std::string url(urlString);
    onMainQueue("loadVideo", [&] { serviceCreatingIfNeeded().loadVideo(url); });
}

void play(void) {
    onMainQueue("play", [] {
        if (auto* s = existingService()) s->play();
        sendUnityMessage("OnVideoPlay", "Started");
    });
}

void kavelin_pause(void) {
    onMainQueue("pause", [] {
        if (auto* s = existingService()) s->pause();
        sendUnityMessage("OnVideoPause", "Paused");
    });
}

void stop(void) {
    onMainQueue("stop", [] {
        if (auto* s = existingService()) s->stop();
        sendUnityMessage("OnVideoStop", "Stopped");
    });
}

void seekForward(double seconds) {
    onMainQueue("seekForward", [&] {
        if (auto* s = existingService()) s->seekForward(seconds);
        sendUnityMessage("OnVideoSeekForward", doubleDescription(seconds));
    });
}

void seekBackward(double seconds) {
    onMainQueue("seekBackward", [&] {
        if (auto* s = existingService()) s->seekBackward(seconds);
        sendUnityMessage("OnVideoSeekBackward", doubleDescription(seconds));
    });
}

void seekTo(double value) {
    onMainQueue("seekTo", [&] {
        if (auto* s = existingService()) s->seekTo(value);
        sendUnityMessage("OnVideoSeekTo", doubleDescription(value));
    });
}

void cleanup(void) {
    onMainQueue("cleanup", [] {
        if (auto* s = existingService()) s->cleanup();
    });
    // A managed runtime waits at exit for every thread that has called into it, so
    // the library thread ends here; the next entry point starts a fresh one.
    try {
        Platform::releaseThread();
    } catch (const std::exception& e) {
        VPLogger::error(std::string("❌ cleanup failed: ") + e.what());
    }
}

void setURLS(const char** urls, int32_t count) {
    if (count < 0) {
        // Reading on would leave the host's array; closing the game would be worse.
        onMainQueue("setURLS", [&] {
            VPLogger::error("❌ setURLS called with a negative count (" + std::to_string(count) +
                            "); ignored, the play order is unchanged");
        });
        return;
    }
    auto list = urlsFromHost(urls, count);
    onMainQueue("setURLS", [&] { serviceCreatingIfNeeded().setURLS(std::move(list)); });
}

#define KAVELIN_FLAG_ENTRY(name)                            \
    void name(bool show) {                                  \
        onMainQueue(#name, [&] {                            \
            if (auto* s = existingService()) s->name(show); \
        });                                                 \
    }

KAVELIN_FLAG_ENTRY(setShowForwardButton)
KAVELIN_FLAG_ENTRY(setShowBackwordButton)
KAVELIN_FLAG_ENTRY(setShowBack10Button)
KAVELIN_FLAG_ENTRY(setShowFor10Button)
KAVELIN_FLAG_ENTRY(setShowPlayPauseButton)
KAVELIN_FLAG_ENTRY(setShowBackButton)
KAVELIN_FLAG_ENTRY(setShowLogo)
KAVELIN_FLAG_ENTRY(setShowSeekbar)
KAVELIN_FLAG_ENTRY(setShowTimeDuration)
#undef KAVELIN_FLAG_ENTRY

void SetPlaylists(const char* json) {
    if (isNull(json, "SetPlaylists")) return;
    std::string text(json);
    onMainQueue("SetPlaylists", [&] {
        auto& service = serviceCreatingIfNeeded();
        VPLogger::log("📥 Received Playlist JSON from Unity");
        service.setPlaylistsFromUnity(text);
    });
}

void SetEpisodes(const char* json) {
    if (isNull(json, "SetEpisodes")) return;
    std::string text(json);
    onMainQueue("SetEpisodes", [&] {
        auto& service = serviceCreatingIfNeeded();
        VPLogger::log("📥 Received Episodes JSON from Unity");
        service.setEpisodesFromUnity(text);
    });
}

void PlayPlaylist(const char* playlistId) {
    if (isNull(playlistId, "PlayPlaylist")) return;
    std::string id(playlistId);
    onMainQueue("PlayPlaylist", [&] {
        if (auto* s = existingService()) s->playPlaylist(id);
    });
}

void SetPremium(bool isPremium) {
    onMainQueue("SetPremium", [&] { serviceCreatingIfNeeded().setPremium(isPremium); });
}

void SetAdRequired(bool required) {
    onMainQueue("SetAdRequired", [&] {
        if (auto* s = existingService())
            if (s->playerController) s->playerController->setAdRequired(required);
    });
}

void SetMidRollAdConfig(const char* json) {
    if (isNull(json, "SetMidRollAdConfig")) return;
    std::string text(json);
    onMainQueue("SetMidRollAdConfig", [&] { serviceCreatingIfNeeded().setMidRollAdConfig(text); });
}

void AdCompletedResumePlayback(void) {
    onMainQueue("AdCompletedResumePlayback", [] {
        if (auto* s = existingService()) s->AdCompletedResumePlayback();
    });
}

}  // extern "C"
