#include "Kavelin/Platform/Linux/ThreadMainQueue.h"

#include <future>
#include <utility>

namespace kavelin {

namespace {
std::chrono::steady_clock::duration clampedDelay(double seconds) {
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(clampQueueDelay(seconds)));
}
}  // namespace

ThreadMainQueue::ThreadMainQueue() {
    std::lock_guard lock(mutex_);
    startLocked();
}

ThreadMainQueue::~ThreadMainQueue() {
    shutdown();
}

void ThreadMainQueue::startLocked() {
    // A thread that parked itself has left run() and only needs joining.
    if (thread_.joinable()) thread_.join();
    running_ = true;
    ++generation_;
    thread_ = std::thread([this] { run(); });
    threadId_ = thread_.get_id();
}

void ThreadMainQueue::park(std::function<void()> last) {
    std::unique_lock lock(mutex_);
    if (running_) {
        if (!parking_) parkAt_ = Clock::now();
        parking_ = true;
        if (last) lastBeforePark_.push_back(std::move(last));
        wake_.notify_all();
        if (isCurrent()) return;
        const uint64_t generation = generation_;
        ended_.wait(lock, [&] { return !running_ || generation_ != generation; });
    }
    if (running_ || !thread_.joinable() || isCurrent()) return;
    auto ended = std::move(thread_);
    lock.unlock();
    ended.join();
}

bool ThreadMainQueue::hasThread() const {
    std::lock_guard lock(mutex_);
    return running_;
}

void ThreadMainQueue::shutdown() {
    std::thread ending;
    {
        std::lock_guard lock(mutex_);
        if (stopping_) return;
        stopping_ = true;
        ending = std::move(thread_);
    }
    wake_.notify_all();
    if (!ending.joinable()) return;
    // Stopping from a task on the queue itself (e.g. a host callback that exits the
    // process) cannot join its own thread.
    if (ending.get_id() == std::this_thread::get_id())
        ending.detach();
    else
        ending.join();
}

void ThreadMainQueue::async(std::function<void()> task) {
    {
        std::lock_guard lock(mutex_);
        if (stopping_) return;
        ready_.push_back(std::move(task));
    }
    wake_.notify_one();
}

void ThreadMainQueue::asyncAfter(double seconds, WorkItemPtr item) {
    const auto delay = clampedDelay(seconds);
    {
        std::lock_guard lock(mutex_);
        if (stopping_) return;
        timers_.push({Clock::now() + delay, seq_++, std::move(item)});
    }
    wake_.notify_one();
}

void ThreadMainQueue::sync(const std::function<void()>& task) {
    if (isCurrent()) {
        task();
        return;
    }
    std::promise<void> done;
    auto finished = done.get_future();
    {
        std::lock_guard lock(mutex_);
        if (stopping_) return;
        if (!running_) startLocked();
        ready_.push_back([&] {
            try {
                task();
            } catch (...) {
                done.set_exception(std::current_exception());
                return;
            }
            done.set_value();
        });
    }
    wake_.notify_one();
    finished.get();
}

bool ThreadMainQueue::isCurrent() const {
    return std::this_thread::get_id() == threadId_.load();
}

double ThreadMainQueue::now() const {
    return std::chrono::duration<double>(Clock::now() - start_).count();
}

void ThreadMainQueue::setIdleHook(std::function<void()> hook, double intervalSeconds) {
    {
        std::lock_guard lock(mutex_);
        idleHook_ = std::move(hook);
        idleInterval_ = clampedDelay(intervalSeconds);
    }
    wake_.notify_one();
}

void ThreadMainQueue::run() {
    std::unique_lock lock(mutex_);
    auto nextIdle = Clock::now();
    for (;;) {
        const auto now = Clock::now();
        // Due timers join the ready tasks in time order. A parking thread takes only
        // those due when it was asked to end, so a chain of timers cannot hold it.
        const auto horizon = parking_ && !stopping_ ? std::min(now, parkAt_) : now;
        while (!timers_.empty() && timers_.top().when <= horizon) {
            auto item = timers_.top().item;
            timers_.pop();
            ready_.push_back([item] { item->perform(); });
        }
        // Due between tasks too: a queue that never goes idle must not starve input.
        if (idleHook_ && now >= nextIdle && !parking_ && !stopping_) {
            auto hook = idleHook_;
            nextIdle = now + idleInterval_;
            lock.unlock();
            hook();
            lock.lock();
            continue;
        }
        if (!ready_.empty()) {
            auto task = std::move(ready_.front());
            ready_.pop_front();
            lock.unlock();
            task();
            lock.lock();
            continue;
        }
        if (parking_ && !lastBeforePark_.empty()) {
            auto last = std::exchange(lastBeforePark_, {});
            lock.unlock();
            for (auto& task : last) task();
            lock.lock();
            continue;
        }
        if (parking_ || stopping_) {
            parking_ = false;
            running_ = false;
            threadId_ = std::thread::id();
            ended_.notify_all();
            return;
        }
        auto deadline = Clock::time_point::max();
        if (!timers_.empty()) deadline = timers_.top().when;
        if (idleHook_) deadline = std::min(deadline, nextIdle);
        if (deadline == Clock::time_point::max())
            wake_.wait(lock);
        else
            wake_.wait_until(lock, deadline);
    }
}

}  // namespace kavelin
