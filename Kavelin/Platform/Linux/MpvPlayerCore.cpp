// The player's item state machine: loading, pausing, seeking and observers.
#include "Kavelin/Platform/Linux/MpvPlayerCore.h"

#include <algorithm>
#include <utility>

#include "Kavelin/log/VPLogger.h"

namespace kavelin {

using namespace mpv_detail;

MpvMediaPlayer::Core::Core(std::shared_ptr<MainQueue> queue, const Options& options)
    : queue_(std::move(queue)), options_(options) {}

MpvMediaPlayer::Core::~Core() {
    if (!mpv_) return;
    // After this returns mpv no longer calls into wakeup_, so it may go.
    mpv_set_wakeup_callback(mpv_, nullptr, nullptr);
    runInBackground([handle = mpv_] { mpv_terminate_destroy(handle); });
}

void MpvMediaPlayer::Core::start() {
    useCNumericLocale();
    starting_ = true;
    createdWithOutput_ = options_.videoOutput;
    runInBackground([weak = weak_from_this(), queue = queue_, options = options_] {
        std::string error;
        mpv_handle* handle = createCore(options, error);
        queue->async([weak, handle, error] {
            auto self = weak.lock();
            if (self && !self->closed_) {
                self->started(handle, error);
            } else if (handle) {
                runInBackground([handle] { mpv_terminate_destroy(handle); });
            }
        });
    });
}

void MpvMediaPlayer::Core::started(mpv_handle* handle, const std::string& error) {
    starting_ = false;
    auto callbacks = std::exchange(startedCallbacks_, {});
    if (!handle) {
        VPLogger::error(error);
        return;
    }
    mpv_ = handle;
    if (options_.videoOutput != createdWithOutput_) setVideoOutput(options_.videoOutput);
    wakeup_ = std::make_unique<Wakeup>();
    wakeup_->core = weak_from_this();
    wakeup_->queue = queue_;
    mpv_set_wakeup_callback(mpv_, &Core::onWakeup, wakeup_.get());
    // Events queued before the callback was set would not wake us.
    onWakeup(wakeup_.get());
    for (auto& f : callbacks)
        if (!closed_) f();
    if (closed_) return;
    request({Request::Kind::pause, itemGen_, {}, paused_});
    if (hasItem_) issueItem();
    scheduleStatusUpdate();
}

void MpvMediaPlayer::Core::whenStarted(std::function<void()> f) {
    if (mpv_) {
        f();
    } else if (starting_) {
        startedCallbacks_.push_back(std::move(f));
    }
}

void MpvMediaPlayer::Core::close() {
    closed_ = true;
    startedCallbacks_.clear();
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
    nextUrl_.reset();  // a hint belongs to the item it follows
    nextHandedOver_ = false;
    if (mpv_) {
        request({Request::Kind::pause, itemGen_, {}, true});
        issueItem();
    }
    scheduleStatusUpdate();
}

void MpvMediaPlayer::Core::issueItem() {
    if (!hasItem_) {
        request({Request::Kind::stop, itemGen_, {}});
        return;
    }
    request({Request::Kind::load, itemGen_, url_});
}

// The prepared item sits behind the current one in mpv's playlist, where mpv opens
// it ahead; loading its address next reuses what was opened.
void MpvMediaPlayer::Core::prepareNextItem(std::optional<std::string> url) {
    if (url == nextUrl_) return;
    nextUrl_ = std::move(url);
    if (nextHandedOver_) {
        request({Request::Kind::clearNext, itemGen_, {}});
        nextHandedOver_ = false;
    }
    handOverNext();
}

// Only once the current item has played a while: opened as the current one starts,
// the next competed with its first frame and first buffering, and a viewer who
// starts one playlist after another paid for each one's abandoned opening.
void MpvMediaPlayer::Core::handOverNext() {
    if (!mpv_ || !loaded_ || !nextUrl_ || nextHandedOver_ || !(timePos_ >= kOpenNextAfterSeconds))
        return;
    nextHandedOver_ = true;
    request({Request::Kind::appendNext, itemGen_, *nextUrl_});
}

// Each request waits for the previous one's answer, so every one saved brings a
// new item's load a round trip sooner.
void MpvMediaPlayer::Core::request(Request r) {
    if (r.kind == Request::Kind::load || r.kind == Request::Kind::stop) {
        // Everything still waiting was for items this one replaces, but the pause
        // state it leaves.
        const auto waiting = requests_.begin() + (requestSent_ ? 1 : 0);
        std::optional<Request> pause;
        for (auto it = waiting; it != requests_.end(); ++it)
            if (it->kind == Request::Kind::pause) {
                pause = std::move(*it);
                --pauseRequests_;
            }
        requests_.erase(waiting, requests_.end());
        if (pause) queuePause(std::move(*pause));
    }
    if (r.kind == Request::Kind::pause)
        queuePause(std::move(r));
    else
        requests_.push_back(std::move(r));
    // Sent at the end of the turn, when the turn's later requests can still
    // replace the earlier ones.
    if (sendScheduled_) return;
    sendScheduled_ = true;
    queue_->async([weak = weak_from_this()] {
        auto self = weak.lock();
        if (!self) return;
        self->sendScheduled_ = false;
        self->sendNextRequest();
    });
}

// Of back-to-back pause requests only the last one counts, and pausing what is
// already being paused changes nothing: mpv itself only ever pauses, at an end.
void MpvMediaPlayer::Core::queuePause(Request r) {
    if (!requests_.empty() && requests_.back().kind == Request::Kind::pause) {
        Request& last = requests_.back();
        if (!(requestSent_ && requests_.size() == 1)) {
            last.flag = r.flag;
            return;
        }
        if (last.flag && r.flag) return;
    }
    // A new item is loaded paused only so that it waits for play(): when play()
    // comes before the load has even gone, it may start at once.
    const size_t waiting = requestSent_ ? 1 : 0;
    if (!r.flag && requests_.size() == waiting + 2 &&
        requests_[waiting].kind == Request::Kind::pause && requests_[waiting].flag &&
        requests_[waiting + 1].kind == Request::Kind::load) {
        requests_.erase(requests_.begin() + static_cast<std::ptrdiff_t>(waiting));
        --pauseRequests_;
    }
    ++pauseRequests_;
    requests_.push_back(std::move(r));
}

void MpvMediaPlayer::Core::sendNextRequest() {
    while (!requestSent_ && !requests_.empty() && mpv_ && holds_ == 0) {
        const Request& r = requests_.front();
        int rc = 0;
        switch (r.kind) {
            case Request::Kind::load: {
                const char* cmd[] = {"loadfile", r.argument.c_str(), "replace", nullptr};
                rc = mpv_command_async(mpv_, kRequestReply, cmd);
                break;
            }
            case Request::Kind::stop: {
                const char* cmd[] = {"stop", nullptr};
                rc = mpv_command_async(mpv_, kRequestReply, cmd);
                break;
            }
            case Request::Kind::pause: {
                int flag = r.flag ? 1 : 0;
                rc = mpv_set_property_async(mpv_, kRequestReply, "pause", MPV_FORMAT_FLAG, &flag);
                break;
            }
            case Request::Kind::seek: {
                const char* cmd[] = {"seek", r.argument.c_str(),
                                     r.flag ? "absolute+exact" : "absolute+keyframes", nullptr};
                rc = mpv_command_async(mpv_, kRequestReply, cmd);
                break;
            }
            case Request::Kind::clearNext: {
                const char* cmd[] = {"playlist-clear", nullptr};  // keeps the current entry
                rc = mpv_command_async(mpv_, kRequestReply, cmd);
                break;
            }
            case Request::Kind::appendNext: {
                const char* cmd[] = {"loadfile", r.argument.c_str(), "append", nullptr};
                rc = mpv_command_async(mpv_, kRequestReply, cmd);
                break;
            }
        }
        if (rc >= 0) {
            requestSent_ = true;
            return;
        }
        // Not even queued by mpv: answered at once, and the next one goes.
        Request refused = std::move(requests_.front());
        requests_.pop_front();
        answered(refused, rc, nullptr);
    }
}

void MpvMediaPlayer::Core::onReply(const mpv_event& e) {
    if (e.reply_userdata != kRequestReply || !requestSent_ || requests_.empty()) return;
    Request r = std::move(requests_.front());
    requests_.pop_front();
    requestSent_ = false;
    const mpv_node* result = nullptr;
    if (e.event_id == MPV_EVENT_COMMAND_REPLY && e.data)
        result = &static_cast<mpv_event_command*>(e.data)->result;
    answered(r, e.error, result);
    sendNextRequest();
}

void MpvMediaPlayer::Core::answered(const Request& r, int error, const mpv_node* result) {
    switch (r.kind) {
        case Request::Kind::pause:
            --pauseRequests_;
            break;
        case Request::Kind::stop:
        case Request::Kind::clearNext:
        case Request::Kind::appendNext:
            break;
        case Request::Kind::seek:
            if (!pendingSeek_ || pendingSeek_->token != r.seekToken) break;
            if (error < 0)
                abandonSeek();
            else
                pendingSeek_->acknowledged = true;
            break;
        case Request::Kind::load:
            if (r.gen != itemGen_ || closed_) break;  // replaced since
            if (error >= 0) {
                if (result) entryId_ = entryIdFrom(*result);
                break;
            }
            failed_ = true;
            VPLogger::warning("⚠️ Failed to load " + url_ + ": the address was refused");
            failure_ = "the address was refused";
            updateStatus();
            notifyFailure();
            break;
    }
}

void MpvMediaPlayer::Core::setPaused(bool paused) {
    paused_ = paused;
    if (mpv_) request({Request::Kind::pause, itemGen_, {}, paused});
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
    if ((!mpv_ && !starting_) || !hasItem_ || failed_) {
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
    request({Request::Kind::seek, itemGen_, formatDouble("%.6f", s.target), s.exact, s.token});
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
