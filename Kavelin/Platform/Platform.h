#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "Kavelin/Platform/MainQueue.h"
#include "Kavelin/Platform/MediaPlayer.h"
#include "Kavelin/Platform/ScreenPresenter.h"
#include "Kavelin/Platform/UserDefaults.h"

namespace kavelin {

// The platform services the controllers use. The real set (library thread, libmpv,
// window or headless presenter, file-backed defaults) is made on first use; tests
// install a virtual-time set before touching anything else.
struct Platform {
    std::shared_ptr<MainQueue> queue;
    std::shared_ptr<MediaPlayerFactory> players;
    std::shared_ptr<ScreenPresenter> presenter;
    std::shared_ptr<UserDefaults> defaults;
    std::function<std::chrono::system_clock::time_point()> wallClock;

    static Platform& current();
    // The installed platform's queue, or null before anything made one; never
    // creates the platform.
    static std::shared_ptr<MainQueue> installedQueue();
    static void install(Platform platform);
    // Stops the library thread the real platform started; safe to call twice.
    static void shutdown();
    // Ends the library thread once the work queued now has run (the store writes its
    // pending changes, the window closes) and joins it; the next entry point starts a
    // fresh one. On the library thread itself it ends after the current task instead.
    static void releaseThread();
    // Makes the exit hook run before the exit handlers that libraries initialised
    // since have registered, so the library thread stops before they tear down.
    static void rearmExitHook();
};

// The real platform for this machine, assembled above both the implementations
// and the views that the window draws.
Platform makeRealPlatform();

inline MainQueue& mainQueue() {
    return *Platform::current().queue;
}

}  // namespace kavelin
