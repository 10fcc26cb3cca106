#include "Kavelin/Platform/Platform.h"

#include <unistd.h>

#include <cstdlib>
#include <mutex>

namespace kavelin {
namespace {

std::mutex gMutex;
Platform* gPlatform = nullptr;  // leaked on purpose: lives until process exit

void shutdownAtExit() {
    Platform::shutdown();
}

// exit() runs the exiting thread's thread_local destructors before any exit handler
// or static destructor, whoever registered it and whenever; the GL driver keeps
// registering its own as it compiles shaders, after any hook of ours. Armed on the
// process's main thread, where a game returns from main or calls exit, this stops
// the library thread before anything else begins tearing down.
struct StopAtMainThreadExit {
    ~StopAtMainThreadExit() { Platform::shutdown(); }
};

void armMainThreadExit() {
    if (::gettid() != ::getpid()) return;
    static thread_local StopAtMainThreadExit sentinel;
    (void)sentinel;
}

}  // namespace

Platform& Platform::current() {
    armMainThreadExit();
    std::lock_guard lock(gMutex);
    if (!gPlatform) {
        gPlatform = new Platform(makeRealPlatform());
        std::atexit(shutdownAtExit);
    }
    return *gPlatform;
}

std::shared_ptr<MainQueue> Platform::installedQueue() {
    std::lock_guard lock(gMutex);
    return gPlatform ? gPlatform->queue : nullptr;
}

void Platform::install(Platform platform) {
    std::lock_guard lock(gMutex);
    if (gPlatform)
        *gPlatform = std::move(platform);
    else
        gPlatform = new Platform(std::move(platform));
}

void Platform::shutdown() {
    std::shared_ptr<MainQueue> queue;
    std::shared_ptr<ScreenPresenter> presenter;
    std::shared_ptr<MediaPlayerFactory> players;
    {
        std::lock_guard lock(gMutex);
        if (!gPlatform) return;
        queue = gPlatform->queue;
        presenter = gPlatform->presenter;
        players = gPlatform->players;
    }
    // Stop the library thread, then whatever still draws for it, before static
    // destructors and the GL driver's exit handlers run. The store writes its own
    // pending changes at exit.
    if (queue) queue->shutdown();
    if (presenter) presenter->stopBackgroundWork();
    if (players) players->finishBackgroundWork();
}

void Platform::releaseThread() {
    Platform platform;
    {
        std::lock_guard lock(gMutex);
        if (!gPlatform) return;
        platform = *gPlatform;
    }
    if (!platform.queue) return;
    // Closing the window (mpv's video output, GL, SDL) takes tens of milliseconds
    // under software GL; the host waits for it only when it shares SDL with us.
    const bool hold = platform.presenter && platform.presenter->releaseHoldsHost();
    platform.queue->park(
        [defaults = platform.defaults, presenter = platform.presenter] {
            if (defaults) defaults->flush();
            if (presenter) presenter->releaseThreadResources();
        },
        hold ? MainQueue::ParkWait::UntilEnded : MainQueue::ParkWait::UntilLast);
}

void Platform::rearmExitHook() {
    // Handlers run in reverse order of registration; registering again moves ours
    // ahead of everything registered since. Running it twice is harmless.
    std::atexit(shutdownAtExit);
}

}  // namespace kavelin
