// mpv's events, drained on the main queue when mpv wakes it, turned into the
// player's state and its observers' callbacks.
#include "Kavelin/Platform/Linux/MpvPlayerCore.h"
#include "Kavelin/log/VPLogger.h"

namespace kavelin {

using namespace mpv_detail;

void MpvMediaPlayer::Core::onWakeup(void* ctx) {
    auto* w = static_cast<Wakeup*>(ctx);
    if (w->scheduled.exchange(true)) return;
    w->queue->async([weak = w->core] {
        if (auto self = weak.lock()) self->drain();
    });
}

int64_t MpvMediaPlayer::Core::entryIdFrom(const mpv_node& node) {
    if (node.format != MPV_FORMAT_NODE_MAP) return 0;
    for (int i = 0; i < node.u.list->num; ++i)
        if (std::string(node.u.list->keys[i]) == "playlist_entry_id" &&
            node.u.list->values[i].format == MPV_FORMAT_INT64)
            return node.u.list->values[i].u.int64;
    return 0;
}

void MpvMediaPlayer::Core::drain() {
    wakeup_->scheduled = false;
    while (!closed_) {
        mpv_event* e = mpv_wait_event(mpv_, 0);
        if (e->event_id == MPV_EVENT_NONE) break;
        handle(*e);
    }
    if (closed_) return;
    if (failureError_ != 0) {
        std::string reason = firstError_.empty() ? mpv_error_string(failureError_) : firstError_;
        failureError_ = 0;
        VPLogger::warning("⚠️ Failed to load " + url_ + ": " + reason);
        failure_ = reason;
        updateStatus();
        notifyFailure();
        return;
    }
    updateStatus();
}

void MpvMediaPlayer::Core::handle(const mpv_event& e) {
    switch (e.event_id) {
        case MPV_EVENT_START_FILE: {
            auto* d = static_cast<mpv_event_start_file*>(e.data);
            startedEntry_ = d->playlist_entry_id;
            if (startedEntry_ == entryId_) firstError_.clear();
            break;
        }
        case MPV_EVENT_FILE_LOADED:
            onFileLoaded();
            break;
        case MPV_EVENT_END_FILE:
            onEndFile(*static_cast<mpv_event_end_file*>(e.data));
            break;
        case MPV_EVENT_LOG_MESSAGE: {
            auto* m = static_cast<mpv_event_log_message*>(e.data);
            if (firstError_.empty() && m->log_level <= MPV_LOG_LEVEL_WARN)
                firstError_ = trimLine(m->text);
            break;
        }
        case MPV_EVENT_PROPERTY_CHANGE:
            onProperty(e.reply_userdata, *static_cast<mpv_event_property*>(e.data));
            break;
        case MPV_EVENT_PLAYBACK_RESTART: {
            // The first restart of an item may be its plain start rather than a
            // seek asked for while it opened; only a landing nearer the target
            // than the start counts then.
            const bool first = !restartSeen_;
            restartSeen_ = true;
            if (pendingSeek_ && pendingSeek_->acknowledged &&
                (!first || landedNearerTargetThanStart()))
                seekLanded();
            break;
        }
        case MPV_EVENT_COMMAND_REPLY:
        case MPV_EVENT_SET_PROPERTY_REPLY:
            onReply(e);
            break;
        case MPV_EVENT_GET_PROPERTY_REPLY:
            if (e.reply_userdata == kDurationReply && loaded_ && durationAskedFor_ == entryId_) {
                auto* p = static_cast<mpv_event_property*>(e.data);
                if (e.error >= 0 && p && p->format == MPV_FORMAT_DOUBLE)
                    duration_ = *static_cast<double*>(p->data);
                notifyDuration();
            }
            break;
        case MPV_EVENT_SHUTDOWN:
            closed_ = true;
            break;
        default:
            break;
    }
}

void MpvMediaPlayer::Core::onFileLoaded() {
    // mpv announces the start of each entry before loading it; only the load of
    // our latest replacement counts (an older one may still finish first).
    if (!hasItem_ || entryId_ == 0 || startedEntry_ != entryId_) return;
    loaded_ = true;
    failed_ = false;
    eofReached_ = false;
    // Its change may have come before the load counted. Read without waiting: mpv
    // holds its lock while it sets the item up, and the host's calls would wait.
    durationAskedFor_ = entryId_;
    if (mpv_get_property_async(mpv_, kDurationReply, "duration", MPV_FORMAT_DOUBLE) < 0)
        notifyDuration();
    if (pendingSeek_ && !pendingSeek_->issued) issueSeek();
    // "loadfile replace" left the current item alone in mpv's playlist.
    handOverNext();
}

void MpvMediaPlayer::Core::onEndFile(const mpv_event_end_file& d) {
    if (d.playlist_entry_id != entryId_ || !hasItem_) return;
    switch (d.reason) {
        case MPV_END_FILE_REASON_ERROR: {
            // mpv hands out its events before its log lines, so the line naming
            // the cause may still be queued; the warning waits for the drain's end.
            failureError_ = d.error;
            failed_ = true;
            loaded_ = false;
            abandonSeek();
            break;
        }
        case MPV_END_FILE_REASON_REDIRECT:
            // A playlist file: its first entry plays in its place.
            entryId_ = d.playlist_insert_id;
            break;
        case MPV_END_FILE_REASON_EOF:
            // keep-open normally holds the last frame instead; if mpv closed the
            // file anyway, the item still played to its end.
            if (loaded_) reportEnd();
            loaded_ = false;
            break;
        default:
            break;
    }
}

void MpvMediaPlayer::Core::onProperty(uint64_t id, const mpv_event_property& p) {
    auto flag = [&] { return p.format == MPV_FORMAT_FLAG && *static_cast<int*>(p.data) != 0; };
    auto number = [&] {
        return p.format == MPV_FORMAT_DOUBLE ? *static_cast<double*>(p.data) : kNaN;
    };
    switch (id) {
        case kTimePos:
            // The old item's last position may still be in flight after a replace.
            if (loaded_ && !(pendingSeek_ && !pendingSeek_->acknowledged)) {
                double t = number();
                if (std::isfinite(t)) timePos_ = t;
                handOverNext();
            }
            break;
        case kDuration:
            if (loaded_) {
                double before = duration_;
                duration_ = number();
                if (!(before == duration_)) notifyDuration();
            }
            break;
        case kPause:
            if (pauseRequests_ == 0) paused_ = flag();
            break;
        case kCoreIdle:
            coreIdle_ = flag();
            break;
        case kPausedForCache:
            pausedForCache_ = flag();
            break;
        case kSeeking:
            seeking_ = flag();
            break;
        case kIdleActive:
            idleActive_ = flag();
            break;
        case kEofReached: {
            bool eof = flag();
            bool reached = eof && !eofReached_ && loaded_;
            eofReached_ = eof;
            if (!eof) endReported_ = false;
            if (reached) {
                if (pendingSeek_ && pendingSeek_->acknowledged) seekLanded();
                // Observers of the end see the player already stopped.
                updateStatus();
                reportEnd();
            }
            break;
        }
        default:
            break;
    }
}

void MpvMediaPlayer::Core::reportEnd() {
    if (endReported_ || !hasItem_) return;
    endReported_ = true;
    auto gen = itemGen_;
    for (auto id : keys(endObservers_)) {
        auto it = endObservers_.find(id);
        if (it == endObservers_.end() || it->second.gen != gen || closed_) continue;
        auto cb = it->second.callback;
        cb();
    }
}

void MpvMediaPlayer::Core::notifyFailure() {
    if (!failure_) return;
    const std::string reason = *failure_;
    auto gen = itemGen_;
    for (auto id : keys(failureObservers_)) {
        auto it = failureObservers_.find(id);
        if (it == failureObservers_.end() || it->second.gen != gen || closed_ || itemGen_ != gen)
            continue;
        auto cb = it->second.callback;
        cb(reason);
    }
}

void MpvMediaPlayer::Core::notifyDuration() {
    double d = knownDuration();
    auto gen = itemGen_;
    for (auto id : keys(durationObservers_)) {
        auto it = durationObservers_.find(id);
        if (it == durationObservers_.end() || it->second.gen != gen || closed_) continue;
        auto cb = it->second.callback;
        cb(d);
    }
}

void MpvMediaPlayer::Core::scheduleStatusUpdate() {
    queue_->async([weak = weak_from_this()] {
        auto self = weak.lock();
        if (self && !self->closed_) self->updateStatus();
    });
}

void MpvMediaPlayer::Core::updateStatus() {
    auto now = status();
    if (now == reportedStatus_) return;
    auto old = reportedStatus_;
    reportedStatus_ = now;
    for (auto& [id, obs] : timeObservers_) {
        if (obs.timer) obs.timer->cancel();
        obs.timer = nullptr;
    }
    if (now == TimeControlStatus::playing)
        for (auto id : keys(timeObservers_)) armTick(id);
    for (auto id : keys(statusObservers_)) {
        auto it = statusObservers_.find(id);
        if (it == statusObservers_.end() || closed_) continue;
        auto cb = it->second;
        cb(old, now);
    }
}

void MpvMediaPlayer::Core::armTick(ObserverId id) {
    auto& obs = timeObservers_.at(id);
    if (obs.timer) obs.timer->cancel();
    obs.timer = makeWorkItem([weak = weak_from_this(), id] {
        auto self = weak.lock();
        if (!self || self->closed_) return;
        auto it = self->timeObservers_.find(id);
        if (it == self->timeObservers_.end()) return;
        it->second.timer = nullptr;
        if (self->reportedStatus_ != TimeControlStatus::playing) return;
        self->armTick(id);
        auto cb = it->second.callback;
        cb(self->currentTime());
    });
    queue_->asyncAfter(obs.interval, obs.timer);
}

}  // namespace kavelin
