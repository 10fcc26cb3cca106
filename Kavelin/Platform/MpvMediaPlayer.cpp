#include "Kavelin/Platform/MpvMediaPlayer.h"

#include <mpv/client.h>

#include <atomic>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>
#include <map>
#include <vector>

#include "Kavelin/Extentions/NumberFormatting.h"
#include "Kavelin/log/VPLogger.h"

namespace kavelin {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Ids of the observed properties (mpv's reply_userdata space for observations).
enum PropertyId : uint64_t {
    kTimePos = 1,
    kDuration,
    kPause,
    kCoreIdle,
    kPausedForCache,
    kSeeking,
    kIdleActive,
    kEofReached,
};

bool envSet(const char* name) {
    const char* v = std::getenv(name);
    return v && *v;
}

// Keyframe landing is only acceptable when the caller tolerates a whole group of
// pictures either way; anything tighter is decoded to the exact frame.
constexpr double kKeyframeTolerance = 1.0;

std::string trimLine(const char* text) {
    std::string s = text ? text : "";
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r' || s.back() == ' ')) s.pop_back();
    return s;
}

// The audio outputs worth trying here. Sound libraries print straight to
// standard error when their server or card is missing, so only outputs that
// have one are listed; silence is the last resort.
std::string availableAudioOutputs() {
    namespace fs = std::filesystem;
    std::error_code ec;
    std::string list;
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    fs::path runtimeDir = runtime && *runtime ? fs::path(runtime) : fs::path();
    if (!runtimeDir.empty() && fs::exists(runtimeDir / "pipewire-0", ec)) list += "pipewire,";
    if (envSet("PULSE_SERVER") ||
        (!runtimeDir.empty() && fs::exists(runtimeDir / "pulse" / "native", ec)))
        list += "pulse,";
    if (fs::is_directory("/dev/snd", ec)) {
        for (const auto& entry : fs::directory_iterator("/dev/snd", ec)) {
            auto name = entry.path().filename().string();
            if (name.rfind("pcmC", 0) == 0 && name.back() == 'p') {
                list += "alsa,";
                break;
            }
        }
    }
    return list + "null";
}

// libmpv refuses to start under any numeric locale but "C" (it parses and prints
// numbers with the C library), and the setting is process-wide, so a host that
// adopted its user's locale would get no video at all.
void useCNumericLocale() {
    const char* current = std::setlocale(LC_NUMERIC, nullptr);
    if (current && std::strcmp(current, "C") == 0) return;
    const std::string previous = current ? current : "(unknown)";
    if (!std::setlocale(LC_NUMERIC, "C")) return;
    VPLogger::warning("⚠️ LC_NUMERIC was \"" + previous +
                      "\"; set to \"C\" for the whole process, as libmpv requires");
}

}  // namespace

MpvMediaPlayer::Options MpvMediaPlayer::Options::fromEnvironment() {
    Options o;
    o.audioOutput = availableAudioOutputs();
    const char* headless = std::getenv("KAVELIN_HEADLESS");
    bool noDisplay = !envSet("DISPLAY") && !envSet("WAYLAND_DISPLAY");
    o.videoOutput = (headless && std::string(headless) == "1") || noDisplay ? "null" : "libmpv";
    return o;
}

void MpvMediaPlayer::configure(mpv_handle* handle, const Options& options) {
    const std::string timeout = std::to_string(options.networkTimeoutSeconds);
    const std::pair<const char*, std::string> settings[] = {
        {"config", "no"},
        {"load-scripts", "no"},
        {"ytdl", "no"},
        {"osc", "no"},
        {"load-stats-overlay", "no"},
        {"load-osd-console", "no"},
        {"load-auto-profiles", "no"},
        {"input-default-bindings", "no"},
        {"input-vo-keyboard", "no"},
        {"input-terminal", "no"},
        {"terminal", "no"},
        {"msg-level", "all=error"},
        {"idle", "yes"},
        {"keep-open", "yes"},
        {"resume-playback", "no"},
        {"save-position-on-quit", "no"},
        {"sub-auto", "no"},
        {"audio-file-auto", "no"},
        {"audio-display", "no"},
        {"network-timeout", timeout},
        {"vo", options.videoOutput.empty() ? "null" : options.videoOutput},
        {"ao", options.audioOutput.empty() ? "null" : options.audioOutput},
        {"audio-fallback-to-null", "yes"},
    };
    // Options missing from this mpv build are skipped; none of them is essential
    // on its own.
    for (const auto& [name, value] : settings) mpv_set_option_string(handle, name, value.c_str());
}

// Everything the player knows lives here, shared with the tasks mpv's wake-ups
// post, which hold it weakly: once the player is gone they do nothing.
class MpvMediaPlayer::Core : public std::enable_shared_from_this<Core> {
  public:
    Core(std::shared_ptr<MainQueue> queue, const Options& options) : queue_(std::move(queue)) {
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

    ~Core() {
        if (!mpv_) return;
        // After this returns mpv no longer calls into wakeup_, so it may go.
        mpv_set_wakeup_callback(mpv_, nullptr, nullptr);
        mpv_terminate_destroy(mpv_);
    }

    // Wake-ups need a weak reference to this object, so they start after
    // construction.
    void start() {
        if (!mpv_) return;
        wakeup_ = std::make_unique<Wakeup>();
        wakeup_->core = weak_from_this();
        wakeup_->queue = queue_;
        mpv_set_wakeup_callback(mpv_, &Core::onWakeup, wakeup_.get());
    }

    // The player is going away: nothing is called back from now on.
    void close() {
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

    mpv_handle* handle() const { return mpv_; }

    void setVideoOutput(const std::string& vo) {
        if (mpv_) mpv_set_property_string(mpv_, "vo", vo.c_str());
    }

    // Item changes go to mpv synchronously, so they take effect in call order: an
    // asynchronous "stop" could land after the "loadfile" that follows it and stop
    // the new item before it started. mpv answers these at once, even while an item
    // is still opening. Only the pause flag is set without waiting: property
    // requests are queued in order with the commands.
    void replaceCurrentItem(std::optional<std::string> url) {
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
                    VPLogger::warning("⚠️ Failed to load " + *url +
                                      ": the address was refused");
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

    bool hasCurrentItem() const { return hasItem_; }

    void setPaused(bool paused) {
        paused_ = paused;
        if (mpv_) {
            // Not waited for: mpv's core may be busy decoding, and the host's call
            // must not wait with it. Requests stay in order with later commands.
            int flag = paused ? 1 : 0;
            mpv_set_property_async(mpv_, 0, "pause", MPV_FORMAT_FLAG, &flag);
        }
        scheduleStatusUpdate();
    }

    double currentTime() const {
        if (!hasItem_ || !std::isfinite(timePos_)) return 0;
        return timePos_;
    }

    TimeControlStatus status() const {
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

    ObserverId addStatusObserver(std::function<void(TimeControlStatus, TimeControlStatus)> f) {
        auto id = nextId_++;
        statusObservers_[id] = std::move(f);
        return id;
    }
    void removeStatusObserver(ObserverId id) { statusObservers_.erase(id); }

    ObserverId addTimeObserver(double interval, std::function<void(double)> f) {
        auto id = nextId_++;
        timeObservers_[id] = {interval > 0.01 ? interval : 0.01, std::move(f), nullptr};
        if (reportedStatus_ == TimeControlStatus::playing) armTick(id);
        return id;
    }
    void removeTimeObserver(ObserverId id) {
        auto it = timeObservers_.find(id);
        if (it == timeObservers_.end()) return;
        if (it->second.timer) it->second.timer->cancel();
        timeObservers_.erase(it);
    }

    ObserverId observeDuration(std::function<void(double)> f) {
        auto id = nextId_++;
        durationObservers_[id] = {itemGen_, f};
        f(knownDuration());
        return id;
    }
    void invalidateDurationObservation(ObserverId id) { durationObservers_.erase(id); }

    ObserverId addEndObserver(std::function<void()> f) {
        auto id = nextId_++;
        endObservers_[id] = {itemGen_, std::move(f)};
        return id;
    }
    void removeEndObserver(ObserverId id) { endObservers_.erase(id); }

    ObserverId addFailureObserver(std::function<void(const std::string&)> f) {
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
    void removeFailureObserver(ObserverId id) { failureObservers_.erase(id); }

    void seek(double seconds, double before, double after, std::function<void(bool)> completion) {
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

  private:
    struct Wakeup {
        std::weak_ptr<Core> core;
        std::shared_ptr<MainQueue> queue;
        std::atomic<bool> scheduled{false};
    };

    struct TimeObserver {
        double interval;
        std::function<void(double)> callback;
        WorkItemPtr timer;
    };
    template <class F>
    struct ItemObserver {
        uint64_t gen;
        F callback;
    };
    struct PendingSeek {
        uint64_t token;
        double target;
        bool exact;
        std::function<void(bool)> completion;
        bool issued = false;
        bool acknowledged = false;
    };

    // mpv's thread: only hands the work to the main queue, once per burst.
    static void onWakeup(void* ctx) {
        auto* w = static_cast<Wakeup*>(ctx);
        if (w->scheduled.exchange(true)) return;
        w->queue->async([weak = w->core] {
            if (auto self = weak.lock()) self->drain();
        });
    }

    static int64_t entryIdFrom(const mpv_node& node) {
        if (node.format != MPV_FORMAT_NODE_MAP) return 0;
        for (int i = 0; i < node.u.list->num; ++i)
            if (std::string(node.u.list->keys[i]) == "playlist_entry_id" &&
                node.u.list->values[i].format == MPV_FORMAT_INT64)
                return node.u.list->values[i].u.int64;
        return 0;
    }

    double knownDuration() const {
        if (!hasItem_ || !loaded_) return kNaN;
        return duration_;
    }

    void drain() {
        wakeup_->scheduled = false;
        while (!closed_) {
            mpv_event* e = mpv_wait_event(mpv_, 0);
            if (e->event_id == MPV_EVENT_NONE) break;
            handle(*e);
        }
        if (closed_) return;
        if (failureError_ != 0) {
            std::string reason =
                firstError_.empty() ? mpv_error_string(failureError_) : firstError_;
            failureError_ = 0;
            VPLogger::warning("⚠️ Failed to load " + url_ + ": " + reason);
            failure_ = reason;
            updateStatus();
            notifyFailure();
            return;
        }
        updateStatus();
    }

    void handle(const mpv_event& e) {
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
            case MPV_EVENT_SHUTDOWN:
                closed_ = true;
                break;
            default:
                break;
        }
    }

    void onFileLoaded() {
        // mpv announces the start of each entry before loading it; only the load of
        // our latest replacement counts (an older one may still finish first).
        if (!hasItem_ || entryId_ == 0 || startedEntry_ != entryId_) return;
        loaded_ = true;
        failed_ = false;
        eofReached_ = false;
        double d = kNaN;
        if (mpv_get_property(mpv_, "duration", MPV_FORMAT_DOUBLE, &d) >= 0) duration_ = d;
        notifyDuration();
        if (pendingSeek_ && !pendingSeek_->issued) issueSeek();
    }

    void onEndFile(const mpv_event_end_file& d) {
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

    void onProperty(uint64_t id, const mpv_event_property& p) {
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
                paused_ = flag();
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

    void issueSeek() {
        auto& s = *pendingSeek_;
        s.issued = true;
        const std::string target = formatDouble("%.6f", s.target);
        const char* cmd[] = {"seek", target.c_str(),
                             s.exact ? "absolute+exact" : "absolute+keyframes", nullptr};
        if (mpv_command(mpv_, cmd) < 0) {
            abandonSeek();
            return;
        }
        s.acknowledged = true;
    }

    bool landedNearerTargetThanStart() const {
        double t = 0;
        if (mpv_get_property(mpv_, "time-pos", MPV_FORMAT_DOUBLE, &t) < 0 || !std::isfinite(t))
            return false;
        const double target = std::max(pendingSeek_->target, 0.0);
        return std::abs(t - target) <= std::abs(t);
    }

    void seekLanded() {
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

    void finishSeek(bool finished) {
        auto completion = std::move(pendingSeek_->completion);
        pendingSeek_.reset();
        scheduleStatusUpdate();
        if (completion && !closed_) completion(finished);
    }

    // A newer seek or item supersedes the pending seek; its completion hears so on
    // a later turn of the queue, never inside the caller's own call.
    void abandonSeek() {
        if (!pendingSeek_) return;
        auto completion = std::move(pendingSeek_->completion);
        pendingSeek_.reset();
        finishLater(std::move(completion), false);
    }

    void finishLater(std::function<void(bool)> completion, bool finished) {
        if (!completion) return;
        queue_->async([weak = weak_from_this(), completion = std::move(completion), finished] {
            auto self = weak.lock();
            if (self && !self->closed_) completion(finished);
        });
    }

    void reportEnd() {
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

    void notifyFailure() {
        if (!failure_) return;
        const std::string reason = *failure_;
        auto gen = itemGen_;
        for (auto id : keys(failureObservers_)) {
            auto it = failureObservers_.find(id);
            if (it == failureObservers_.end() || it->second.gen != gen || closed_ ||
                itemGen_ != gen)
                continue;
            auto cb = it->second.callback;
            cb(reason);
        }
    }

    void notifyDuration() {
        double d = knownDuration();
        auto gen = itemGen_;
        for (auto id : keys(durationObservers_)) {
            auto it = durationObservers_.find(id);
            if (it == durationObservers_.end() || it->second.gen != gen || closed_) continue;
            auto cb = it->second.callback;
            cb(d);
        }
    }

    void scheduleStatusUpdate() {
        queue_->async([weak = weak_from_this()] {
            auto self = weak.lock();
            if (self && !self->closed_) self->updateStatus();
        });
    }

    void updateStatus() {
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

    void armTick(ObserverId id) {
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

    template <class Map>
    static std::vector<ObserverId> keys(const Map& m) {
        std::vector<ObserverId> out;
        out.reserve(m.size());
        for (const auto& [id, _] : m) out.push_back(id);
        return out;
    }

    std::shared_ptr<MainQueue> queue_;
    mpv_handle* mpv_ = nullptr;
    std::unique_ptr<Wakeup> wakeup_;
    bool closed_ = false;

    ObserverId nextId_ = 1;
    std::map<ObserverId, std::function<void(TimeControlStatus, TimeControlStatus)>>
        statusObservers_;
    std::map<ObserverId, TimeObserver> timeObservers_;
    std::map<ObserverId, ItemObserver<std::function<void(double)>>> durationObservers_;
    std::map<ObserverId, ItemObserver<std::function<void()>>> endObservers_;
    std::map<ObserverId, ItemObserver<std::function<void(const std::string&)>>> failureObservers_;

    // The current item.
    uint64_t itemGen_ = 0;
    bool hasItem_ = false;
    std::string url_;
    int64_t entryId_ = 0;
    int64_t startedEntry_ = 0;
    bool loaded_ = false;
    bool failed_ = false;
    bool endReported_ = false;
    std::string firstError_;
    int failureError_ = 0;                // mpv's error code of a failed load not yet logged
    std::optional<std::string> failure_;  // why the current item cannot play
    double timePos_ = 0;
    double duration_ = kNaN;

    // mpv's state as last observed (pause also follows our own requests at once).
    bool paused_ = true;
    bool coreIdle_ = true;
    bool pausedForCache_ = false;
    bool seeking_ = false;
    bool restartSeen_ = false;
    bool idleActive_ = true;
    bool eofReached_ = false;
    TimeControlStatus reportedStatus_ = TimeControlStatus::paused;

    std::optional<PendingSeek> pendingSeek_;
    uint64_t seekSeq_ = 0;
};

MpvMediaPlayer::MpvMediaPlayer(std::shared_ptr<MainQueue> queue, Options options)
    : core_(std::make_shared<Core>(std::move(queue), options)) {
    core_->start();
}

MpvMediaPlayer::~MpvMediaPlayer() {
    core_->close();
}

mpv_handle* MpvMediaPlayer::handle() const {
    return core_->handle();
}
void MpvMediaPlayer::setVideoOutput(const std::string& vo) {
    core_->setVideoOutput(vo);
}

void MpvMediaPlayer::replaceCurrentItem(std::optional<std::string> url) {
    core_->replaceCurrentItem(std::move(url));
}
bool MpvMediaPlayer::hasCurrentItem() const {
    return core_->hasCurrentItem();
}
void MpvMediaPlayer::play() {
    core_->setPaused(false);
}
void MpvMediaPlayer::pause() {
    core_->setPaused(true);
}
double MpvMediaPlayer::currentTime() const {
    return core_->currentTime();
}
TimeControlStatus MpvMediaPlayer::timeControlStatus() const {
    return core_->status();
}

MediaPlayer::ObserverId MpvMediaPlayer::addStatusObserver(
    std::function<void(TimeControlStatus, TimeControlStatus)> observer) {
    return core_->addStatusObserver(std::move(observer));
}
void MpvMediaPlayer::removeStatusObserver(ObserverId id) {
    core_->removeStatusObserver(id);
}

MediaPlayer::ObserverId MpvMediaPlayer::addPeriodicTimeObserver(
    double interval, std::function<void(double)> observer) {
    return core_->addTimeObserver(interval, std::move(observer));
}
void MpvMediaPlayer::removeTimeObserver(ObserverId id) {
    core_->removeTimeObserver(id);
}

MediaPlayer::ObserverId MpvMediaPlayer::observeDuration(std::function<void(double)> observer) {
    return core_->observeDuration(std::move(observer));
}
void MpvMediaPlayer::invalidateDurationObservation(ObserverId id) {
    core_->invalidateDurationObservation(id);
}

void MpvMediaPlayer::seek(double seconds, double toleranceBefore, double toleranceAfter,
                          std::function<void(bool)> completion) {
    core_->seek(seconds, toleranceBefore, toleranceAfter, std::move(completion));
}

MediaPlayer::ObserverId MpvMediaPlayer::addEndOfItemObserver(std::function<void()> observer) {
    return core_->addEndObserver(std::move(observer));
}
void MpvMediaPlayer::removeEndOfItemObserver(ObserverId id) {
    core_->removeEndObserver(id);
}
MediaPlayer::ObserverId MpvMediaPlayer::addFailureObserver(
    std::function<void(const std::string&)> observer) {
    return core_->addFailureObserver(std::move(observer));
}
void MpvMediaPlayer::removeFailureObserver(ObserverId id) {
    core_->removeFailureObserver(id);
}

}  // namespace kavelin
