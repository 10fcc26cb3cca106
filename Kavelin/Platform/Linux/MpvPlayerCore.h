#pragma once

// The libmpv player's inside, shared by the files that implement it: the item
// state machine (MpvPlayerCore.cpp) and mpv's event pump (MpvEventPump.cpp).
#include <mpv/client.h>

#include <cmath>
#include <cstring>
#include <deque>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Kavelin/Extentions/NumberFormatting.h"
#include "Kavelin/Platform/Linux/MpvMediaPlayer.h"

namespace kavelin::mpv_detail {

inline constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

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

// reply_userdata of our own requests (observations use their ids, events 0).
inline constexpr uint64_t kRequestReply = 0x4b56;
// Replies nothing waits on in order: a loaded item's duration, a switch of output.
inline constexpr uint64_t kDurationReply = 0x4b57;
inline constexpr uint64_t kVideoOutputReply = 0x4b58;

// Keyframe landing is only acceptable when the caller tolerates a whole group of
// pictures either way; anything tighter is decoded to the exact frame.
inline constexpr double kKeyframeTolerance = 1.0;

inline std::string trimLine(const char* text) {
    std::string s = text ? text : "";
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r' || s.back() == ' ')) s.pop_back();
    return s;
}

// libmpv refuses to start under any numeric locale but "C"; see MpvMediaPlayer.cpp.
void useCNumericLocale();

// A configured, initialised and observed mpv core, or null with `error` set to the
// line to log. Runs off the main queue (see MpvMediaPlayer.cpp).
mpv_handle* createCore(const MpvMediaPlayer::Options& options, std::string& error);

// mpv's creation and teardown run here, one at a time, off the main queue.
void runInBackground(std::function<void()> task);

}  // namespace kavelin::mpv_detail

namespace kavelin {

// Everything the player knows lives here, shared with the tasks mpv's wake-ups
// post, which hold it weakly: once the player is gone they do nothing.
class MpvMediaPlayer::Core : public std::enable_shared_from_this<Core> {
  public:
    Core(std::shared_ptr<MainQueue> queue, const Options& options);

    ~Core();

    // mpv is created in the background (tens of milliseconds a host call must
    // not wait for), which needs a weak reference to this object: it starts after
    // construction. Until mpv is up, the item, pause flag and seek are kept and
    // handed to it when it arrives.
    void start();

    // Runs `f` on the main queue once mpv is up, before the item kept so far
    // opens (at once when it is up already; never when it failed to start).
    void whenStarted(std::function<void()> f);

    void holdRequests() { ++holds_; }
    void releaseRequests() {
        if (holds_ > 0 && --holds_ == 0) sendNextRequest();
    }

    // The player is going away: nothing is called back from now on.
    void close();

    mpv_handle* handle() const { return mpv_; }

    // Not waited for: mpv opens the new output on its own thread (tens of
    // milliseconds); requests sent after it still come after it.
    void setVideoOutput(const std::string& vo) {
        options_.videoOutput = vo;
        if (!mpv_) return;
        const char* value = vo.c_str();
        mpv_set_property_async(mpv_, mpv_detail::kVideoOutputReply, "vo", MPV_FORMAT_STRING,
                               &value);
    }

    // Waited for: when it returns mpv's output has let go of the render context.
    void closeVideoOutput() {
        options_.videoOutput = "null";
        if (mpv_) mpv_set_property_string(mpv_, "vo", "null");
    }

    void replaceCurrentItem(std::optional<std::string> url);

    bool hasCurrentItem() const { return hasItem_; }

    void prepareNextItem(std::optional<std::string> url);

    void setPaused(bool paused);

    double currentTime() const {
        if (!hasItem_ || !std::isfinite(timePos_)) return 0;
        return timePos_;
    }

    TimeControlStatus status() const;

    ObserverId addStatusObserver(std::function<void(TimeControlStatus, TimeControlStatus)> f) {
        auto id = nextId_++;
        statusObservers_[id] = std::move(f);
        return id;
    }
    void removeStatusObserver(ObserverId id) { statusObservers_.erase(id); }

    ObserverId addTimeObserver(double interval, std::function<void(double)> f);
    void removeTimeObserver(ObserverId id);

    ObserverId observeDuration(std::function<void(double)> f);
    void invalidateDurationObservation(ObserverId id) { durationObservers_.erase(id); }

    ObserverId addEndObserver(std::function<void()> f) {
        auto id = nextId_++;
        endObservers_[id] = {itemGen_, std::move(f)};
        return id;
    }
    void removeEndObserver(ObserverId id) { endObservers_.erase(id); }

    ObserverId addFailureObserver(std::function<void(const std::string&)> f);
    void removeFailureObserver(ObserverId id) { failureObservers_.erase(id); }

    void seek(double seconds, double before, double after, std::function<void(bool)> completion);

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
    // What we ask of mpv. A call waiting for mpv waits for its core, which can be
    // busy decoding for tens of milliseconds, so nothing is waited for; and mpv may
    // reorder requests it has not answered (a "stop" could land after the
    // "loadfile" that follows it), so they go out one at a time, each when the
    // previous one is answered.
    struct Request {
        enum class Kind { load, stop, pause, seek, clearNext, appendNext } kind;
        uint64_t gen = 0;      // the item it was made for
        std::string argument;  // address, or seek target
        bool flag = false;     // pause value, or an exact seek
        uint64_t seekToken = 0;
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
    static void onWakeup(void* ctx);

    static int64_t entryIdFrom(const mpv_node& node);

    double knownDuration() const {
        if (!hasItem_ || !loaded_) return mpv_detail::kNaN;
        return duration_;
    }

    // On the main queue with the core the background made (null when it failed).
    void started(mpv_handle* handle, const std::string& error);

    // Hands the current item to mpv: loadfile, or stop when there is none.
    void issueItem();
    void handOverNext();

    void request(Request r);
    void queuePause(Request r);
    void sendNextRequest();
    void onReply(const mpv_event& e);
    void answered(const Request& r, int error, const mpv_node* result);

    void drain();

    void handle(const mpv_event& e);

    void onFileLoaded();

    void onEndFile(const mpv_event_end_file& d);

    void onProperty(uint64_t id, const mpv_event_property& p);

    void issueSeek();

    bool landedNearerTargetThanStart() const;

    void seekLanded();

    void finishSeek(bool finished);

    // A newer seek or item supersedes the pending seek; its completion hears so on
    // a later turn of the queue, never inside the caller's own call.
    void abandonSeek();

    void finishLater(std::function<void(bool)> completion, bool finished);

    void reportEnd();

    void notifyFailure();

    void notifyDuration();

    void scheduleStatusUpdate();

    void updateStatus();

    void armTick(ObserverId id);

    template <class Map>
    static std::vector<ObserverId> keys(const Map& m) {
        std::vector<ObserverId> out;
        out.reserve(m.size());
        for (const auto& [id, _] : m) out.push_back(id);
        return out;
    }

    std::shared_ptr<MainQueue> queue_;
    MpvMediaPlayer::Options options_;
    mpv_handle* mpv_ = nullptr;
    bool starting_ = false;  // mpv is being created in the background
    std::string createdWithOutput_;
    std::vector<std::function<void()>> startedCallbacks_;
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
    int64_t durationAskedFor_ = 0;  // the entry whose duration is being read
    bool loaded_ = false;
    bool failed_ = false;
    bool endReported_ = false;
    std::string firstError_;
    int failureError_ = 0;                // mpv's error code of a failed load not yet logged
    std::optional<std::string> failure_;  // why the current item cannot play
    double timePos_ = 0;
    double duration_ = mpv_detail::kNaN;

    // mpv's state as last observed (pause also follows our own requests at once).
    bool paused_ = true;
    bool coreIdle_ = true;
    bool pausedForCache_ = false;
    bool seeking_ = false;
    bool restartSeen_ = false;
    bool idleActive_ = true;
    bool eofReached_ = false;
    TimeControlStatus reportedStatus_ = TimeControlStatus::paused;

    static constexpr double kOpenNextAfterSeconds = 1.0;
    std::optional<std::string> nextUrl_;  // prepared behind the current item
    bool nextHandedOver_ = false;         // nextUrl_ is in mpv's playlist
    std::deque<Request> requests_;        // the front one is with mpv when requestSent_
    bool requestSent_ = false;
    bool sendScheduled_ = false;
    int holds_ = 0;          // while above 0, requests wait (a render context being made)
    int pauseRequests_ = 0;  // not yet answered: mpv's pause reports are older

    std::optional<PendingSeek> pendingSeek_;
    uint64_t seekSeq_ = 0;
};

}  // namespace kavelin
