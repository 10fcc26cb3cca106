#include <cmath>

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

void PlayerController::tapOnVideo() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    showControls = true;
    if (showPlaylist) {
        if (isCountdownPhase(currentTime, duration)) markCountdownRailDismissed();
        showPlaylist = false;
        return;
    }
    clearCountdownRailDismissal();
    showPlaylist = true;
    scheduleHalfScreenAutoReturn();
}

bool PlayerController::isCountdownPhase(double currentTime, double duration) {
    const double remaining = duration - currentTime;
    return std::isfinite(remaining) && remaining <= PlaylistController::kCountdownSeconds;
}

PlayerController::ReadOnly<bool>* PlayerController::flagFor(Control control) {
    switch (control) {
        case Control::forwardButton:
            return &showForwardButton;
        case Control::backwordButton:
            return &showBackwordButton;
        case Control::back10Button:
            return &showBack10Button;
        case Control::for10Button:
            return &showFor10Button;
        case Control::playPauseButton:
            return &showPlayPauseButton;
        case Control::backButton:
            return &showBackButton;
        case Control::logo:
            return &showLogo;
        case Control::seekbar:
            return &showSeekbar;
        case Control::timeDuration:
            return &showTimeDration;
    }
    return nullptr;  // a value cast from outside the enumeration
}

void PlayerController::setControlShown(Control control, bool shown) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (auto* flag = flagFor(control))
        *flag = shown;
    else
        VPLogger::error("❌ Unknown control " + std::to_string(static_cast<int>(control)) +
                        " ignored");
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
    if (halfScreenAutoReturnWorkItem_) halfScreenAutoReturnWorkItem_->cancel();
    halfScreenAutoReturnWorkItem_ = makeWorkItem([weak = weak_from_this()] {
        auto self = weak.lock();
        if (self && self->isPlaying && self->showPlaylist && !self->isScrubbing)
            self->showPlaylist = false;
    });
    platform_.queue->asyncAfter(kHalfScreenSeconds, halfScreenAutoReturnWorkItem_);
}

void PlayerController::markCountdownRailDismissed() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    dismissedCountdownRail_ = true;
}

void PlayerController::clearCountdownRailDismissal() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    dismissedCountdownRail_ = false;
}

void PlayerController::presentVideoPlayer() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    auto playlist = playlistController_.lock();
    if (!playlist) {
        VPLogger::error("❌ playlistController not found");
        return;
    }
    auto presenter = platform_.presenter;
    hostingController_ = presenter ? presenter->makeHostingController(shared_from_this(), playlist)
                                   : std::make_shared<HostingController>();
    if (!presenter || !presenter->hasTopMostViewController()) return;
    presenter->present(hostingController_, true, [weak = weak_from_this()] {
        auto self = weak.lock();
        if (!self || self->hasShownInitialHalfScreen_) return;
        self->hasShownInitialHalfScreen_ = true;
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
    if (!hostingController_) return;
    ++adClosingSteps_;
    auto done = [weak, screen = std::weak_ptr<HostingController>(hostingController_)] {
        VPLogger::log("View Dismissed — waiting for ad");
        sendUnityMessage("OnViewDismissed", "ad_required");
        auto self = weak.lock();
        if (!self) return;
        if (self->hostingController_ == screen.lock()) self->hostingController_ = nullptr;
        self->adClosingStepDone();
    };
    if (platform_.presenter)
        platform_.presenter->dismiss(hostingController_, true, done);
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
    if (!hostingController_) return;
    auto done = [weak] {
        sendUnityMessage("OnViewDismissed", "user_exit");
        auto self = weak.lock();
        if (!self) return;
        self->hostingController_ = nullptr;
        // The next load makes a fresh player.
        self->player = nullptr;
        self->currentIndex = 0;
        self->hasShownInitialHalfScreen_ = false;
        self->dismissedCountdownRail_ = false;
    };
    if (platform_.presenter)
        platform_.presenter->dismiss(hostingController_, true, done);
    else
        platform_.queue->async(done);
}

}  // namespace kavelin
