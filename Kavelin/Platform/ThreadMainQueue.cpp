#include "Kavelin/Platform/ThreadMainQueue.h"

#include <future>

namespace kavelin {

namespace {
std::chrono::steady_clock::duration clampedDelay(double seconds) {
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(clampQueueDelay(seconds)));
}
}  // namespace

ThreadMainQueue::ThreadMainQueue() {
    std::promise<void> started;
    auto ready = started.get_future();
    thread_ = std::thread([this, &started] {
        threadId_ = std::this_thread::get_id();
        started.set_value();
        run();
    });
    ready.wait();
}

ThreadMainQueue::~ThreadMainQueue() {
    shutdown();
}

void ThreadMainQueue::shutdown() {
    {
        std::lock_guard lock(mutex_);
        if (stopping_) return;
        stopping_ = true;
    }
    wake_.notify_all();
    if (!thread_.joinable()) return;
    // Stopping from a task on the queue itself (e.g. a host callback that exits the
    // process) cannot join its own thread.
    if (isCurrent())
        thread_.detach();
    else
        thread_.join();
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
    bool accepted = true;
    {
        std::lock_guard lock(mutex_);
        if (stopping_) {
            accepted = false;
        } else {
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
    }
    if (!accepted) return;
    wake_.notify_one();
    finished.get();
}

bool ThreadMainQueue::isCurrent() const {
    return std::this_thread::get_id() == threadId_;
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
        auto now = Clock::now();
        // Due timers join the ready tasks in time order.
        while (!timers_.empty() && timers_.top().when <= now) {
            auto item = timers_.top().item;
            timers_.pop();
            ready_.push_back([item] { item->perform(); });
        }
        if (!ready_.empty()) {
            auto task = std::move(ready_.front());
            ready_.pop_front();
            lock.unlock();
            task();
            lock.lock();
            continue;
        }
        if (idleHook_ && now >= nextIdle) {
            auto hook = idleHook_;
            nextIdle = now + idleInterval_;
            lock.unlock();
            hook();
            lock.lock();
            continue;
        }
        if (stopping_) return;
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
