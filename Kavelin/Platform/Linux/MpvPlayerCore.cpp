// The player's item state machine: loading, pausing, seeking and observers.
#include "Kavelin/Platform/Linux/MpvPlayerCore.h"

#include "Kavelin/log/VPLogger.h"

namespace kavelin {

using namespace mpv_detail;

MpvMediaPlayer::Core::Core(std::shared_ptr<MainQueue> queue, const Options& options)
    : queue_(std::move(queue)) {
    useCNumericLocale();
    mpv_ = mpv_create();
    if (!mpv_) {
        VPLogger::error("❌ mpv could not be created");
        return;
    }
    configure(mpv_, options);
    if (mpv_initialize(mpv_) < 0) {
        VPLogger::error("❌ mpv could not be initialised");
        mpv_terminate_destroy(mpv_);
        mpv_ = nullptr;
        return;
    }
    // Warnings and errors: the first one of a failed load names the cause.
    mpv_request_log_messages(mpv_, "warn");
    mpv_observe_property(mpv_, kTimePos, "time-pos", MPV_FORMAT_DOUBLE);
    mpv_observe_property(mpv_, kDuration, "duration", MPV_FORMAT_DOUBLE);
    mpv_observe_property(mpv_, kPause, "pause", MPV_FORMAT_FLAG);
    mpv_observe_property(mpv_, kCoreIdle, "core-idle", MPV_FORMAT_FLAG);
    mpv_observe_property(mpv_, kPausedForCache, "paused-for-cache", MPV_FORMAT_FLAG);
    mpv_observe_property(mpv_, kSeeking, "seeking", MPV_FORMAT_FLAG);
    mpv_observe_property(mpv_, kIdleActive, "idle-active", MPV_FORMAT_FLAG);
    mpv_observe_property(mpv_, kEofReached, "eof-reached", MPV_FORMAT_FLAG);
}

MpvMediaPlayer::Core::~Core() {
    if (!mpv_) return;
    // After this returns mpv no longer calls into wakeup_, so it may go.
    mpv_set_wakeup_callback(mpv_, nullptr, nullptr);
    mpv_terminate_destroy(mpv_);
}

void MpvMediaPlayer::Core::start() {
    if (!mpv_) return;
    wakeup_ = std::make_unique<Wakeup>();
    wakeup_->core = weak_from_this();
    wakeup_->queue = queue_;
    mpv_set_wakeup_callback(mpv_, &Core::onWakeup, wakeup_.get());
}

void MpvMediaPlayer::Core::close() {
    closed_ = true;
    statusObservers_.clear();
    for (auto& [id, obs] : timeObservers_)
        if (obs.timer) obs.timer->cancel();
    timeObservers_.clear();
    durationObservers_.clear();
    endObservers_.clear();
    failureObservers_.clear();
    pendingSeek_.reset();
}

void MpvMediaPlayer::Core::replaceCurrentItem(std::optional<std::string> url) {
    abandonSeek();
    ++itemGen_;
    hasItem_ = url.has_value();
    url_ = url.value_or("");
    entryId_ = 0;
    loaded_ = false;
    failed_ = false;
    eofReached_ = false;
    endReported_ = false;
    firstError_.clear();
    failureError_ = 0;
    failure_.reset();
    timePos_ = 0;
    duration_ = kNaN;
    restartSeen_ = false;
    paused_ = true;
    if (mpv_) {
        int yes = 1;
        mpv_set_property(mpv_, "pause", MPV_FORMAT_FLAG, &yes);
        if (url) {
            const char* cmd[] = {"loadfile", url->c_str(), "replace", nullptr};
            mpv_node result{};
            if (mpv_command_ret(mpv_, cmd, &result) >= 0) {
                entryId_ = entryIdFrom(result);
                mpv_free_node_contents(&result);
            } else {
                failed_ = true;
                VPLogger::warning("⚠️ Failed to load " + *url + ": the address was refused");
                failure_ = "the address was refused";
                // Observers are attached after this call returns.
                queue_->async([weak = weak_from_this(), gen = itemGen_] {
                    auto self = weak.lock();
                    if (self && !self->closed_ && self->itemGen_ == gen) self->notifyFailure();
                });
            }
        } else {
            const char* cmd[] = {"stop", nullptr};
            mpv_command(mpv_, cmd);
        }
    }
    scheduleStatusUpdate();
}

void MpvMediaPlayer::Core::setPaused(bool paused) {
    paused_ = paused;
    if (mpv_) {
        // Not waited for: mpv's core may be busy decoding, and the host's call must
        // not wait with it. Property requests stay in order with later commands.
        int flag = paused ? 1 : 0;
        mpv_set_property_async(mpv_, 0, "pause", MPV_FORMAT_FLAG, &flag);
    }
    scheduleStatusUpdate();
}

TimeControlStatus MpvMediaPlayer::Core::status() const {
    // At the end mpv holds the last frame and pauses; the pause itself may be
    // reported a moment after the end.
    if (paused_ || (eofReached_ && loaded_)) return TimeControlStatus::paused;
    // A seek counts from the request, not from when mpv reports it: until it
    // lands the old position must not be ticked out as progress.
    if (!hasItem_ || !loaded_ || failed_ || idleActive_ || pausedForCache_ || seeking_ ||
        pendingSeek_ || coreIdle_)
        return TimeControlStatus::waitingToPlayAtSpecifiedRate;
    return TimeControlStatus::playing;
}

MediaPlayer::ObserverId MpvMediaPlayer::Core::addTimeObserver(double interval,
                                                              std::function<void(double)> f) {
    auto id = nextId_++;
    timeObservers_[id] = {interval > 0.01 ? interval : 0.01, std::move(f), nullptr};
    if (reportedStatus_ == TimeControlStatus::playing) armTick(id);
    return id;
}

void MpvMediaPlayer::Core::removeTimeObserver(ObserverId id) {
    auto it = timeObservers_.find(id);
    if (it == timeObservers_.end()) return;
    if (it->second.timer) it->second.timer->cancel();
    timeObservers_.erase(it);
}

MediaPlayer::ObserverId MpvMediaPlayer::Core::observeDuration(std::function<void(double)> f) {
    auto id = nextId_++;
    durationObservers_[id] = {itemGen_, f};
    f(knownDuration());
    return id;
}

MediaPlayer::ObserverId MpvMediaPlayer::Core::addFailureObserver(
    std::function<void(const std::string&)> f) {
    auto id = nextId_++;
    failureObservers_[id] = {itemGen_, std::move(f)};
    if (failure_) {
        queue_->async([weak = weak_from_this(), id, gen = itemGen_] {
            auto self = weak.lock();
            if (!self || self->closed_ || self->itemGen_ != gen || !self->failure_) return;
            auto it = self->failureObservers_.find(id);
            if (it == self->failureObservers_.end()) return;
            auto cb = it->second.callback;
            cb(*self->failure_);
        });
    }
    return id;
}

void MpvMediaPlayer::Core::seek(double seconds, double before, double after,
                                std::function<void(bool)> completion) {
    abandonSeek();
    if (!mpv_ || !hasItem_ || failed_) {
        finishLater(std::move(completion), false);
        return;
    }
    bool exact = !(before >= kKeyframeTolerance && after >= kKeyframeTolerance);
    pendingSeek_ = PendingSeek{++seekSeq_, seconds, exact, std::move(completion)};
    // Like the platform player, the position reads as the target at once.
    timePos_ = seconds;
    if (loaded_) issueSeek();
    scheduleStatusUpdate();
}

void MpvMediaPlayer::Core::issueSeek() {
    auto& s = *pendingSeek_;
    s.issued = true;
    const std::string target = formatDouble("%.6f", s.target);
    const char* cmd[] = {"seek", target.c_str(), s.exact ? "absolute+exact" : "absolute+keyframes",
                         nullptr};
    if (mpv_command(mpv_, cmd) < 0) {
        abandonSeek();
        return;
    }
    s.acknowledged = true;
}

bool MpvMediaPlayer::Core::landedNearerTargetThanStart() const {
    double t = 0;
    if (mpv_get_property(mpv_, "time-pos", MPV_FORMAT_DOUBLE, &t) < 0 || !std::isfinite(t))
        return false;
    const double target = std::max(pendingSeek_->target, 0.0);
    return std::abs(t - target) <= std::abs(t);
}

void MpvMediaPlayer::Core::seekLanded() {
    double t = kNaN;
    if (mpv_get_property(mpv_, "time-pos", MPV_FORMAT_DOUBLE, &t) >= 0 && std::isfinite(t))
        timePos_ = t;
    auto seekToken = pendingSeek_->token;
    // Periodic observers hear the new position once, then the seek completes.
    for (auto id : keys(timeObservers_)) {
        auto it = timeObservers_.find(id);
        if (it == timeObservers_.end() || closed_) continue;
        auto cb = it->second.callback;
        cb(currentTime());
    }
    if (pendingSeek_ && pendingSeek_->token == seekToken) finishSeek(true);
}

void MpvMediaPlayer::Core::finishSeek(bool finished) {
    auto completion = std::move(pendingSeek_->completion);
    pendingSeek_.reset();
    scheduleStatusUpdate();
    if (completion && !closed_) completion(finished);
}

void MpvMediaPlayer::Core::abandonSeek() {
    if (!pendingSeek_) return;
    auto completion = std::move(pendingSeek_->completion);
    pendingSeek_.reset();
    finishLater(std::move(completion), false);
}

void MpvMediaPlayer::Core::finishLater(std::function<void(bool)> completion, bool finished) {
    if (!completion) return;
    queue_->async([weak = weak_from_this(), completion = std::move(completion), finished] {
        auto self = weak.lock();
        if (self && !self->closed_) completion(finished);
    });
}

}  // namespace kavelin
