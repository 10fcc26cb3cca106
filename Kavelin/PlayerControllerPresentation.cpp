#include "Kavelin/Platform/MainQueueCheck.h"
#include "Kavelin/PlayerController.h"
#include "Kavelin/VideoPlayerBridgging.h"
#include "Kavelin/log/VPLogger.h"

namespace kavelin {
namespace {

constexpr double kAutoHideSeconds = 5.0;
constexpr double kHalfScreenSeconds = 5.0;
// Lets the dismissal start before the item is torn down under it.
constexpr double kTeardownDelay = 0.1;

}  // namespace

void PlayerController::toggleControls() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    showControls = !showControls;
    if (!showControls)
        cancelAutoHide();
    else
        autoHideControls();
}

void PlayerController::autoHideControls() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (hideControlsWorkItem.get()) hideControlsWorkItem.get()->cancel();
    auto item = makeWorkItem([weak = weak_from_this()] {
        auto self = weak.lock();
        if (self && !self->isScrubbing) self->showControls = false;
    });
    hideControlsWorkItem = item;
    platform_.queue->asyncAfter(kAutoHideSeconds, item);
}

void PlayerController::cancelAutoHide() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (auto item = hideControlsWorkItem.get()) {
        item->cancel();
        hideControlsWorkItem = nullptr;
    }
}

void PlayerController::startAutoHideTimer() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    showPlaylist = true;
    // Deliberately strong and not stored: this one always runs.
    platform_.queue->asyncAfter(kAutoHideSeconds, [self = shared_from_this()] {
        if (self->isPlaying && self->showPlaylist) self->showPlaylist = false;
    });
}

void PlayerController::scheduleHalfScreenAutoReturn() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (halfScreenAutoReturnWorkItem) halfScreenAutoReturnWorkItem->cancel();
    halfScreenAutoReturnWorkItem = makeWorkItem([weak = weak_from_this()] {
        auto self = weak.lock();
        if (self && self->isPlaying && self->showPlaylist && !self->isScrubbing)
            self->showPlaylist = false;
    });
    platform_.queue->asyncAfter(kHalfScreenSeconds, halfScreenAutoReturnWorkItem);
}

void PlayerController::markCountdownRailDismissed() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    dismissedCountdownRail = true;
}

void PlayerController::clearCountdownRailDismissal() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    dismissedCountdownRail = false;
}

void PlayerController::presentVideoPlayer() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    auto playlist = playlistController.lock();
    if (!playlist) {
        VPLogger::error("❌ playlistController not found");
        return;
    }
    auto presenter = platform_.presenter;
    hostingController = presenter ? presenter->makeHostingController(shared_from_this(), playlist)
                                  : std::make_shared<HostingController>();
    if (!presenter || !presenter->hasTopMostViewController()) return;
    presenter->present(hostingController, true, [weak = weak_from_this()] {
        auto self = weak.lock();
        if (!self || self->hasShownInitialHalfScreen) return;
        self->hasShownInitialHalfScreen = true;
        self->showPlaylist = true;
        self->scheduleHalfScreenAutoReturn();
    });
}

void PlayerController::switchScreenBack_and_forth() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    std::weak_ptr<PlayerController> weak = weak_from_this();
    ++adClosingSteps_;
    platform_.queue->asyncAfter(kTeardownDelay, [weak] {
        if (auto self = weak.lock()) {
            self->cleanup();
            self->adClosingStepDone();
        }
    });
    if (!hostingController) return;
    ++adClosingSteps_;
    auto done = [weak, screen = std::weak_ptr<HostingController>(hostingController)] {
        VPLogger::log("View Dismissed — waiting for ad");
        sendUnityMessage("OnViewDismissed", "ad_required");
        auto self = weak.lock();
        if (!self) return;
        if (self->hostingController == screen.lock()) self->hostingController = nullptr;
        self->adClosingStepDone();
    };
    if (platform_.presenter)
        platform_.presenter->dismiss(hostingController, true, done);
    else
        platform_.queue->async(done);
}

void PlayerController::backToHome() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    const auto keepAlive = shared_from_this();  // the event reaches host code
    sendUnityMessage("OnVideoClosed", "back");
    std::weak_ptr<PlayerController> weak = weak_from_this();
    platform_.queue->asyncAfter(kTeardownDelay, [weak] {
        if (auto self = weak.lock()) self->cleanup();
    });
    if (!hostingController) return;
    auto done = [weak] {
        sendUnityMessage("OnViewDismissed", "user_exit");
        auto self = weak.lock();
        if (!self) return;
        self->hostingController = nullptr;
        // The next load makes a fresh player.
        self->player = nullptr;
        self->currentIndex = 0;
        self->hasShownInitialHalfScreen = false;
        self->dismissedCountdownRail = false;
    };
    if (platform_.presenter)
        platform_.presenter->dismiss(hostingController, true, done);
    else
        platform_.queue->async(done);
}

}  // namespace kavelin
