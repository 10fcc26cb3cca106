#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <queue>
#include <thread>
#include <vector>

#include "Kavelin/Platform/MainQueue.h"

namespace kavelin {

// The real main queue: a library-owned thread with a timer heap. The thread can be
// parked (ended and joined) and comes back on the next sync() from another thread,
// so a managed host that waits for every thread it has seen can still exit.
class ThreadMainQueue final : public MainQueue {
  public:
    ThreadMainQueue();
    ~ThreadMainQueue() override;

    // While parked, posted work waits for the next thread.
    void async(std::function<void()> task) override;
    void asyncAfter(double seconds, WorkItemPtr item) override;
    using MainQueue::asyncAfter;
    // From another thread while parked, starts a fresh thread first (once a thread
    // still ending has ended).
    void sync(const std::function<void()>& task) override;
    bool isCurrent() const override;
    double now() const override;

    // Runs the work that is ready, then `last` on the queue, ends the thread and
    // returns as `wait` says. Timers not yet due and work posted once `last` has
    // begun stay pending for the next thread. Called on the queue itself it cannot
    // wait for its own thread: the thread ends as soon as the current task returns,
    // and the next start (or shutdown) joins it.
    void park(std::function<void()> last = {}, ParkWait wait = ParkWait::UntilEnded) override;
    // True while a thread serves the queue (it may be about to park).
    bool hasThread() const;

    // Runs what is ready, then stops the thread for good; later posts are dropped.
    void shutdown() override;

    // While set, the loop calls the hook on the queue thread at least this often,
    // and with a `wakingFd`, whenever it is readable and before sleeping after work:
    // the window pumps input when the display has some, not ten times a second.
    void setIdleHook(std::function<void()> hook, double intervalSeconds, int wakingFd = -1);

  private:
    using Clock = std::chrono::steady_clock;
    struct Timed {
        Clock::time_point when;
        uint64_t seq;
        WorkItemPtr item;
        bool operator>(const Timed& o) const {
            return when != o.when ? when > o.when : seq > o.seq;
        }
    };

    // Joins a thread that has parked itself and starts a new one; needs `mutex_`.
    void startLocked();
    void run();
    void wake();
    // Sleeps, without `mutex_`, until woken or `deadline`; true when the idle hook's
    // descriptor is what woke it.
    bool waitLocked(std::unique_lock<std::mutex>& lock, Clock::time_point deadline);

    mutable std::mutex mutex_;
    // An eventfd rather than a condition variable, so that one wait covers both
    // posted work and the idle hook's descriptor.
    const int wakeFd_;
    std::deque<std::function<void()>> ready_;
    std::priority_queue<Timed, std::vector<Timed>, std::greater<>> timers_;
    uint64_t seq_ = 0;
    bool stopping_ = false;
    bool running_ = false;      // a thread is in run() and will serve `ready_`
    bool parking_ = false;      // ... until `ready_` is empty, then it ends
    bool runningLast_ = false;  // ... and runs `lastBeforePark_`, taking nothing new
    uint64_t generation_ = 0;   // threads started so far
    std::condition_variable ended_;
    Clock::time_point parkAt_{};
    std::vector<std::function<void()>> lastBeforePark_;
    std::function<void()> idleHook_;
    Clock::duration idleInterval_{};
    int idleFd_ = -1;
    Clock::time_point start_ = Clock::now();
    std::thread thread_;
    std::atomic<std::thread::id> threadId_{};
};

}  // namespace kavelin
