#include "Kavelin/Platform/Platform.h"

#include <cstdlib>
#include <mutex>

#include "Kavelin/Platform/ThreadMainQueue.h"

namespace kavelin {
namespace {

std::mutex gMutex;
Platform* gPlatform = nullptr;  // leaked on purpose: lives until process exit

void shutdownAtExit() {
    Platform::shutdown();
}

}  // namespace

Platform& Platform::current() {
    std::lock_guard lock(gMutex);
    if (!gPlatform) {
        gPlatform = new Platform(makeRealPlatform());
        std::atexit(shutdownAtExit);
    }
    return *gPlatform;
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
    {
        std::lock_guard lock(gMutex);
        if (!gPlatform) return;
        queue = gPlatform->queue;
    }
    // Stop the library thread before static destructors run under it. The store
    // writes its own pending changes at exit.
    if (auto* thread = dynamic_cast<ThreadMainQueue*>(queue.get())) thread->shutdown();
}

}  // namespace kavelin
