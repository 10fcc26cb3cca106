#pragma once

#include <functional>
#include <memory>

#include "Kavelin/Platform/WorkItem.h"

namespace kavelin {

// Longest delay a queue honours (about a century). Delays come from remote
// documents, so a larger one, infinity or NaN must not overflow a clock's integer
// ticks: longer is "never", negative or NaN is "now".
inline constexpr double kMaxQueueDelaySeconds = 3.0e9;
inline constexpr double clampQueueDelay(double seconds) {
    if (!(seconds > 0)) return 0;
    return seconds < kMaxQueueDelaySeconds ? seconds : kMaxQueueDelaySeconds;
}

// The library's main queue: one serial queue that owns every piece of controller
// state. Timers, posted tasks, media callbacks and (with a window) rendering all
// run on it.
class MainQueue {
  public:
    virtual ~MainQueue() = default;

    // Runs the task after everything already queued for now.
    virtual void async(std::function<void()> task) = 0;
    // Runs the item `seconds` from now unless it is cancelled first.
    virtual void asyncAfter(double seconds, WorkItemPtr item) = 0;
    void asyncAfter(double seconds, std::function<void()> task) {
        asyncAfter(seconds, makeWorkItem(std::move(task)));
    }
    // Runs the task on the queue and waits for it; inline when already on the
    // queue, so a host callback may call back into the library.
    virtual void sync(const std::function<void()>& task) = 0;
    // True on the queue's own thread.
    virtual bool isCurrent() const = 0;
    // Monotonic seconds on the queue's clock (virtual in tests).
    virtual double now() const = 0;

    // How long park() holds its caller.
    enum class ParkWait {
        UntilEnded,  // the thread is joined
        // The ready work has run and `last` has begun: the host has had every event,
        // while `last` (closing a window) finishes without it.
        UntilLast,
    };
    // For a queue served by a thread of its own: runs the ready work, then `last`,
    // ends the thread; the next sync starts a fresh one. A queue without a thread of
    // its own (tests drive it) has nothing to end and drops `last`.
    virtual void park(std::function<void()> last = {}, ParkWait wait = ParkWait::UntilEnded) {
        (void)last;
        (void)wait;
    }
    // Stops the queue's own thread for good, before exit tears the process down.
    virtual void shutdown() {}
};

}  // namespace kavelin
