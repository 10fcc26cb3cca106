#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <queue>
#include <thread>
#include <vector>

#include "Kavelin/Platform/MainQueue.h"

namespace kavelin {

// The real main queue: a library-owned thread with a timer heap.
class ThreadMainQueue final : public MainQueue {
  public:
    ThreadMainQueue();
    ~ThreadMainQueue() override;

    void async(std::function<void()> task) override;
    void asyncAfter(double seconds, WorkItemPtr item) override;
    using MainQueue::asyncAfter;
    void sync(const std::function<void()>& task) override;
    bool isCurrent() const override;
    double now() const override;

    // Runs what is queued, then stops the thread; later posts are dropped.
    void shutdown();

    // While set, the loop wakes at least this often and calls the hook on the
    // queue thread (the window uses it to pump input events).
    void setIdleHook(std::function<void()> hook, double intervalSeconds);

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

    void run();

    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> ready_;
    std::priority_queue<Timed, std::vector<Timed>, std::greater<>> timers_;
    uint64_t seq_ = 0;
    bool stopping_ = false;
    std::function<void()> idleHook_;
    Clock::duration idleInterval_{};
    Clock::time_point start_ = Clock::now();
    std::thread thread_;
    std::thread::id threadId_;
};

}  // namespace kavelin
