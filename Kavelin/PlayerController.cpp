#include "Kavelin/PlayerController.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "Kavelin/Extentions/URLString.h"
#include "Kavelin/Platform/MainQueueCheck.h"
#include "Kavelin/VideoPlayerBridgging.h"
#include "Kavelin/log/VPLogger.h"

namespace kavelin {
namespace {

// Stand-in play order until the host sends its own: a generated test pattern,
// so nothing reaches the network.
constexpr const char* kPlaceholderStream =
    "edl://file=av://lavfi:testsrc2=size=640x360:rate=25,length=30";

constexpr double kClockInterval = 0.1;
// Position changes smaller than this are not published (clock jitter).
constexpr double kPublishThreshold = 0.05;
constexpr double kSeekTolerance = 0.1;

}  // namespace

std::shared_ptr<PlayerController> PlayerController::make(const Platform& platform) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    std::shared_ptr<PlayerController> controller(new PlayerController(platform));
    if (platform.players) controller->player = platform.players->makePlayer();
    return controller;
}

PlayerController::PlayerController(Platform platform)
    : platform_(std::move(platform)), urls_(5, kPlaceholderStream) {}

PlayerController::~PlayerController() {
    VPLogger::log("🧼 PlayerController instance cleaned up – resources released successfully!");
}

void PlayerController::setURLS(std::vector<std::string> newURLs) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    urls_ = std::move(newURLs);
}

void PlayerController::attachPlaylist(const std::shared_ptr<PlaylistController>& playlist) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    playlistController_ = playlist;
    if (!playlist) return;
    const int index = currentIndex;
    if (index < 0 || index >= static_cast<int>(playlist->videos.size())) {
        VPLogger::warning("⚠️ attachPlaylist: current index " + std::to_string(index) +
                          " is outside the playlist's " + std::to_string(playlist->videos.size()) +
                          " videos; current video left unchanged");
        return;
    }
    playlist->currentVideoID = playlist->videos[static_cast<size_t>(index)].id;
}

std::string PlayerController::currentVideoID() const {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    auto playlist = playlistController_.lock();
    if (!playlist) return "";
    const int index = currentIndex;
    if (index < 0 || index >= static_cast<int>(playlist->videos.size())) return "";
    return playlist->videos[static_cast<size_t>(index)].id;
}

void PlayerController::loadVideo(const std::string& urlString) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    VPLogger::log("current index: " + std::to_string(currentIndex.get()));
    showLoadingUI(true);
    const auto address = playerAddress(urlString);
    if (!address) {
        VPLogger::warning("⚠️ Not a valid URL, nothing loaded: " + urlString);
        return;
    }
    // A host callback run from inside may drop the service's reference to us.
    const auto keepAlive = shared_from_this();
    struct DepthGuard {
        int& depth;
        explicit DepthGuard(int& d) : depth(d) { ++depth; }
        ~DepthGuard() { --depth; }
    } depthGuard(loadDepth_);
    cleanup();

    if (!player.get() && platform_.players) player = platform_.players->makePlayer();
    auto mediaPlayer = player.get();
    std::weak_ptr<PlayerController> weak = weak_from_this();
    loadedURL_ = urlString;
    if (mediaPlayer) {
        mediaPlayer->replaceCurrentItem(*address);
        // A premium viewer's next video follows without a gap when it was opened
        // ahead. A free viewer's waits for an ad of unknown length, which would
        // outlast the connection opened for it.
        if (subscriptionStatus() == SubscriptionStatus::premium)
            mediaPlayer->prepareNextItem(upcomingAddress());
        statusObservation_ = mediaPlayer->addStatusObserver(
            [weak](TimeControlStatus oldStatus, TimeControlStatus newStatus) {
                if (auto self = weak.lock()) self->onStatusChange(oldStatus, newStatus);
            });
        isObservingTimeControlStatus_ = true;
        failureObservation_ = mediaPlayer->addFailureObserver(
            [weak, generation = itemGeneration_](const std::string& reason) {
                auto self = weak.lock();
                if (self && self->itemGeneration_ == generation) self->playbackDidFail(reason);
            });
    }
    observeDuration();
    addPeriodicTimeObserver();

    const int index = currentIndex;
    const int last = static_cast<int>(urls_.size()) - 1;
    if (index == 0) {
        disableBackButton = true;
        disbleForwardButton = false;
    } else if (index == last) {
        disbleForwardButton = true;
        disableBackButton = false;
    } else {
        disableBackButton = false;
        disbleForwardButton = false;
    }

    if (mediaPlayer) {
        endOfItemObservation_ = mediaPlayer->addEndOfItemObserver([weak] {
            if (auto self = weak.lock()) self->playerDidFinishPlaying();
        });
    }

    if (!hostingController_) presentVideoPlayer();
    armNoProgressWatch();
    play();  // cleanup() above cleared any resume position: a load starts at 0
    autoHideControls();
    if (auto playlist = playlistController_.lock()) playlist->videoStarted(currentVideoID());
}

void PlayerController::play() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    const auto keepAlive = shared_from_this();  // the echo below reaches host code
    // Play on a failed item is the viewer's retry; the load plays (and echoes) itself.
    if (playbackFailed && loadDepth_ == 0 && !loadedURL_.empty()) {
        loadVideo(std::string(loadedURL_));
        return;
    }
    auto mediaPlayer = player.get();
    if (isPlaying && mediaPlayer && mediaPlayer->timeControlStatus() == TimeControlStatus::playing)
        return;
    sendUnityMessage("OnVideoPlay", "true");
    if (subscriptionStatus() == SubscriptionStatus::free && shouldWaitForAd) {
        VPLogger::log("⛔ Blocking playback until Ad finishes");
        return;
    }
    const int index = currentIndex;
    if (loadDepth_ == 0 && index >= 0 && index < static_cast<int>(urls_.size()) &&
        !hostingController_)
        loadVideo(urls_[static_cast<size_t>(index)]);

    isPlaying = true;
    showLoadingUI(false);
    autoHideControls();
    shouldBePlayingAfterResume_ = true;
    scheduleHalfScreenAutoReturn();
    if (auto p = player.get()) p->play();
}

void PlayerController::pause() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    auto mediaPlayer = player.get();
    // Without a player nothing reports paused, so the controls still come up.
    const bool playerPaused =
        mediaPlayer && mediaPlayer->timeControlStatus() == TimeControlStatus::paused;
    if (!isPlaying && playerPaused) return;
    isPlaying = false;
    cancelAutoHide();
    showControls = true;
    shouldBePlayingAfterResume_ = false;
    if (mediaPlayer) mediaPlayer->pause();
}

void PlayerController::stop() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    pause();
    autoHideControls();
    seekTo(0);
}

void PlayerController::beginScrub() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    isScrubbing = true;
    wasPlayingBeforeScrub_ = isPlaying;
    if (const auto& p = player.get()) p->pause();
    cancelAutoHide();
}

void PlayerController::scrubTo(double seconds) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    currentTime = seconds;
}

void PlayerController::endScrub() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    isScrubbing = false;
    seekTo(currentTime);
    if (wasPlayingBeforeScrub_) play();
    scheduleHalfScreenAutoReturn();
    autoHideControls();
}

void PlayerController::seekTo(double value) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (shouldWaitForAd) return;
    auto mediaPlayer = player.get();
    const double from = mediaPlayer ? mediaPlayer->currentTime() : 0;
    if (subscriptionStatus() == SubscriptionStatus::free) {
        if (auto cue = midRollCuePointState_.handleSeek(from, value)) {
            midRollCuePointState_.seekTargetAfterAd = value;
            triggerMidRollAd(*cue);
            return;
        }
    }
    if (mediaPlayer) mediaPlayer->seek(value, kSeekTolerance, kSeekTolerance);
}

void PlayerController::seekForward(double seconds) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    auto mediaPlayer = player.get();
    const double target = (mediaPlayer ? mediaPlayer->currentTime() : 0) + seconds;
    autoHideControls();
    seekTo(target);
}

void PlayerController::seekBackward(double seconds) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    auto mediaPlayer = player.get();
    const double target = std::max((mediaPlayer ? mediaPlayer->currentTime() : 0) - seconds, 0.0);
    autoHideControls();
    seekTo(target);
}

void PlayerController::showLoadingUI(bool show) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    showLoading = show;
}

void PlayerController::addPeriodicTimeObserver() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    auto mediaPlayer = player.get();
    if (!mediaPlayer) {
        timeObserverToken_ = 0;
        return;
    }
    if (timeObserverToken_) mediaPlayer->removeTimeObserver(timeObserverToken_);
    std::weak_ptr<PlayerController> weak = weak_from_this();
    timeObserverToken_ = mediaPlayer->addPeriodicTimeObserver(kClockInterval, [weak](double t) {
        if (auto self = weak.lock()) self->onClockTick(t);
    });
}

void PlayerController::onClockTick(double t) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (!std::isfinite(t)) return;
    if (!isScrubbing && std::abs(currentTime - t) > kPublishThreshold) currentTime = t;
    if (duration <= 0) return;

    if (subscriptionStatus() == SubscriptionStatus::free && isPlaying && !isScrubbing &&
        !shouldWaitForAd && adAllowedByTracker()) {
        if (auto cue = midRollCuePointState_.cuePointToTrigger(t)) {
            triggerMidRollAd(*cue);
            return;
        }
    }

    const double left = std::trunc(duration - currentTime);
    const int remaining = static_cast<int>(std::clamp(left, -1e9, 1e9));
    auto playlist = playlistController_.lock();
    if (!playlist || !playlist->currentVideoID.get()) return;
    const std::string id = *playlist->currentVideoID.get();
    playlist->videoCompleted(id, currentTime);
    playlist->triggerCountdownIfNeeded(id, remaining);
    if (remaining < 6 && !dismissedCountdownRail_) showPlaylist = true;
}

void PlayerController::observeDuration() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    auto mediaPlayer = player.get();
    if (!mediaPlayer || !mediaPlayer->hasCurrentItem()) return;
    if (durationObservation_) mediaPlayer->invalidateDurationObservation(durationObservation_);
    durationObservation_ = 0;
    std::weak_ptr<PlayerController> weak = weak_from_this();
    const uint64_t generation = itemGeneration_;
    durationObservation_ = mediaPlayer->observeDuration([weak, generation](double seconds) {
        if (!std::isfinite(seconds) || seconds <= 0) return;
        auto self = weak.lock();
        if (!self) return;
        self->platform_.queue->async([weak, generation, seconds] {
            auto self = weak.lock();
            if (!self || self->itemGeneration_ != generation) return;
            self->duration = seconds;
            if (subscriptionStatus() == SubscriptionStatus::free &&
                !self->midRollCuePointState_.hasCuePoints()) {
                std::optional<std::string> videoId;
                if (auto playlist = self->playlistController_.lock())
                    videoId = playlist->currentVideoID.get();
                self->midRollCuePointState_.computeCuePoints(seconds, videoId,
                                                             self->midRollConfig_);
            }
        });
    });
}

void PlayerController::onStatusChange(TimeControlStatus oldStatus, TimeControlStatus newStatus) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (newStatus == oldStatus) return;
    platform_.queue->async([weak = weak_from_this(), newStatus, generation = itemGeneration_] {
        auto self = weak.lock();
        if (!self || self->playbackFailed) return;
        const bool waiting = newStatus == TimeControlStatus::waitingToPlayAtSpecifiedRate;
        self->showLoadingUI(waiting);
        if (self->itemGeneration_ != generation) return;
        if (waiting)
            self->armNoProgressWatch();
        else if (self->noProgressWorkItem_)
            std::exchange(self->noProgressWorkItem_, nullptr)->cancel();
    });
}

void PlayerController::armNoProgressWatch() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    // A stalled server or an item that never opens must not spin forever; a slow
    // one that keeps making progress goes back to playing and disarms this.
    if (noProgressWorkItem_ || playbackFailed) return;
    const double limit = noProgressTimeout_;
    noProgressWorkItem_ = makeWorkItem([weak = weak_from_this(), limit] {
        auto self = weak.lock();
        if (!self) return;
        self->noProgressWorkItem_ = nullptr;
        auto mediaPlayer = self->player.get();
        if (!mediaPlayer || !mediaPlayer->hasCurrentItem() || !self->isPlaying ||
            mediaPlayer->timeControlStatus() != TimeControlStatus::waitingToPlayAtSpecifiedRate)
            return;
        char reason[64];
        std::snprintf(reason, sizeof reason, "no progress for %.0f s", limit);
        self->playbackDidFail(reason);
    });
    platform_.queue->asyncAfter(limit, noProgressWorkItem_);
}

void PlayerController::setFailureTimeouts(double noProgress, double leaveAfterFailure) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    noProgressTimeout_ = noProgress;
    leaveAfterFailureDelay_ = leaveAfterFailure;
}

void PlayerController::cancelFailureTimers() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (noProgressWorkItem_) std::exchange(noProgressWorkItem_, nullptr)->cancel();
    if (leaveAfterFailureWorkItem_) std::exchange(leaveAfterFailureWorkItem_, nullptr)->cancel();
}

void PlayerController::playbackDidFail(const std::string& reason) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (playbackFailed) return;
    cancelFailureTimers();
    char delay[32];
    std::snprintf(delay, sizeof delay, "%.0f", leaveAfterFailureDelay_);
    VPLogger::error("❌ Video can't be played (" + reason + "), leaving in " + delay +
                    " s unless the viewer retries: " + loadedURL_);
    playbackFailed = true;
    isPlaying = false;
    shouldBePlayingAfterResume_ = false;
    if (auto mediaPlayer = player.get()) mediaPlayer->pause();
    showLoadingUI(false);
    // The controls stay up: they hold the way back and the retry.
    cancelAutoHide();
    showControls = true;
    leaveAfterFailureWorkItem_ = makeWorkItem([weak = weak_from_this()] {
        auto self = weak.lock();
        if (!self || !self->playbackFailed) return;
        self->leaveAfterFailureWorkItem_ = nullptr;
        self->backToHome();
    });
    platform_.queue->asyncAfter(leaveAfterFailureDelay_, leaveAfterFailureWorkItem_);
}

std::string PlayerController::formatTime(double seconds) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (!std::isfinite(seconds)) return "00:00";
    // Clamp before converting: huge values would not fit an integer.
    const double whole = std::trunc(std::clamp(seconds, 0.0, 9.0e15));
    const auto s = static_cast<long long>(whole);
    char buf[48];
    std::snprintf(buf, sizeof buf, "%02lld:%02lld", s / 60, s % 60);
    return buf;
}

void PlayerController::cleanup() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    auto mediaPlayer = player.get();
    if (timeObserverToken_ && mediaPlayer) mediaPlayer->removeTimeObserver(timeObserverToken_);
    timeObserverToken_ = 0;
    if (isObservingTimeControlStatus_ && mediaPlayer)
        mediaPlayer->removeStatusObserver(statusObservation_);
    isObservingTimeControlStatus_ = false;
    statusObservation_ = 0;
    if (endOfItemObservation_ && mediaPlayer)
        mediaPlayer->removeEndOfItemObserver(endOfItemObservation_);
    endOfItemObservation_ = 0;
    if (durationObservation_ && mediaPlayer)
        mediaPlayer->invalidateDurationObservation(durationObservation_);
    durationObservation_ = 0;
    if (failureObservation_ && mediaPlayer) mediaPlayer->removeFailureObserver(failureObservation_);
    failureObservation_ = 0;
    cancelFailureTimers();
    playbackFailed = false;
    ++itemGeneration_;

    if (mediaPlayer) {
        mediaPlayer->pause();
        mediaPlayer->seek(0, 0, 0);
        mediaPlayer->replaceCurrentItem(std::nullopt);
    }

    currentTime = 0;
    duration = 0;
    isPlaying = false;
    isScrubbing = false;
    wasPlayingBeforeScrub_ = false;

    midRollCuePointState_.reset();
    midRollResumePosition_.reset();
    if (midRollFallbackWorkItem_) std::exchange(midRollFallbackWorkItem_, nullptr)->cancel();
}

bool PlayerController::adAllowedByTracker() const {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    auto tracker = adSessionTracker_.lock();
    return !tracker || tracker->canShowAd(midRollConfig_);
}

bool PlayerController::loadURLAt(int index, std::string_view caller) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (index < 0 || index >= static_cast<int>(urls_.size())) {
        VPLogger::warning("⚠️ " + std::string(caller) + ": index " + std::to_string(index) +
                          " is outside the " + std::to_string(urls_.size()) +
                          " stream addresses; ignored");
        return false;
    }
    return moveAndLoad(index, urls_[static_cast<size_t>(index)]);
}

bool PlayerController::moveAndLoad(int index, const std::string& urlString) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (!playerAddress(urlString)) {
        loadVideo(urlString);  // logs the refusal; the position stays
        return false;
    }
    currentIndex = index;
    loadVideo(urlString);
    return true;
}

}  // namespace kavelin
