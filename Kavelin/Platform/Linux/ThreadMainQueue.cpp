#include "Kavelin/Platform/Linux/ThreadMainQueue.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <climits>
#include <future>
#include <utility>

#include "Kavelin/Extentions/ThreadName.h"

namespace kavelin {

namespace {
std::chrono::steady_clock::duration clampedDelay(double seconds) {
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(clampQueueDelay(seconds)));
}
}  // namespace

ThreadMainQueue::ThreadMainQueue() : wakeFd_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    std::lock_guard lock(mutex_);
    startLocked();
}

ThreadMainQueue::~ThreadMainQueue() {
    shutdown();
    if (wakeFd_ >= 0) ::close(wakeFd_);
}

void ThreadMainQueue::wake() {
    const uint64_t one = 1;
    // A full counter already means "awake"; nothing else can fail here.
    (void)!::write(wakeFd_, &one, sizeof one);
}

bool ThreadMainQueue::waitLocked(std::unique_lock<std::mutex>& lock, Clock::time_point deadline) {
    int timeoutMs = -1;
    if (deadline != Clock::time_point::max()) {
        const auto left = deadline - Clock::now();
        // Rounded up: waking a little early would only spin until the deadline.
        const auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
        timeoutMs = ms <= 0 ? 0 : static_cast<int>(std::min<long long>(ms, INT_MAX));
    }
    const int hookFd = idleHook_ ? idleFd_ : -1;
    lock.unlock();
    pollfd fds[2] = {{wakeFd_, POLLIN, 0}, {hookFd, POLLIN, 0}};
    const int ready = ::poll(fds, hookFd >= 0 ? 2 : 1, timeoutMs);
    if (ready > 0 && (fds[0].revents & POLLIN)) {
        uint64_t count = 0;
        (void)!::read(wakeFd_, &count, sizeof count);
    }
    lock.lock();
    if (ready <= 0 || hookFd < 0 || fds[1].revents == 0) return false;
    // A descriptor that hung up would be readable forever: the interval is left.
    if (fds[1].revents & (POLLHUP | POLLERR | POLLNVAL)) {
        if (idleFd_ == hookFd) idleFd_ = -1;
        return false;
    }
    return true;
}

void ThreadMainQueue::startLocked() {
    // A thread that parked itself has left run() and only needs joining.
    if (thread_.joinable()) thread_.join();
    running_ = true;
    ++generation_;
    thread_ = namedThread("kavelin-main", [this] { run(); });
    threadId_ = thread_.get_id();
}

void ThreadMainQueue::park(std::function<void()> last, ParkWait wait) {
    std::unique_lock lock(mutex_);
    if (running_) {
        if (!parking_) parkAt_ = Clock::now();
        parking_ = true;
        if (last) lastBeforePark_.push_back(std::move(last));
        wake();
        if (isCurrent()) return;
        const uint64_t generation = generation_;
        ended_.wait(lock, [&] {
            return !running_ || generation_ != generation ||
                   (wait == ParkWait::UntilLast && runningLast_);
        });
        if (running_ && generation_ == generation) return;
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
    wake();
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
    wake();
}

void ThreadMainQueue::asyncAfter(double seconds, WorkItemPtr item) {
    const auto delay = clampedDelay(seconds);
    {
        std::lock_guard lock(mutex_);
        if (stopping_) return;
        timers_.push({Clock::now() + delay, seq_++, std::move(item)});
    }
    wake();
}

void ThreadMainQueue::sync(const std::function<void()>& task) {
    if (isCurrent()) {
        task();
        return;
    }
    std::promise<void> done;
    auto finished = done.get_future();
    {
        std::unique_lock lock(mutex_);
        if (stopping_) return;
        if (parking_) {
            // A thread still ending (closing its window) is let finish: the next
            // one's window must not open beside it.
            const uint64_t generation = generation_;
            ended_.wait(lock, [&] { return !running_ || generation_ != generation; });
            if (stopping_) return;
        }
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
    wake();
    finished.get();
}

bool ThreadMainQueue::isCurrent() const {
    return std::this_thread::get_id() == threadId_.load();
}

double ThreadMainQueue::now() const {
    return std::chrono::duration<double>(Clock::now() - start_).count();
}

void ThreadMainQueue::setIdleHook(std::function<void()> hook, double intervalSeconds,
                                  int wakingFd) {
    {
        std::lock_guard lock(mutex_);
        idleHook_ = std::move(hook);
        idleInterval_ = clampedDelay(intervalSeconds);
        idleFd_ = idleHook_ ? wakingFd : -1;
    }
    wake();
}

void ThreadMainQueue::run() {
    std::unique_lock lock(mutex_);
    auto nextIdle = Clock::now();
    bool workSinceHook = false;
    auto callHook = [&] {
        auto hook = idleHook_;
        nextIdle = Clock::now() + idleInterval_;
        workSinceHook = false;
        lock.unlock();
        hook();
        lock.lock();
    };
    for (;;) {
        const auto now = Clock::now();
        // Due timers join the ready tasks in time order. A parking thread takes only
        // those due when it was asked to end, so a chain of timers cannot hold it.
        const auto horizon = parking_ && !stopping_ ? std::min(now, parkAt_) : now;
        while (!timers_.empty() && timers_.top().when <= horizon) {
            auto item = timers_.top().item;
            timers_.pop();
            if (!item->isCancelled()) ready_.push_back([item] { item->perform(); });
        }
        // Due between tasks too: a queue that never goes idle must not starve input.
        const bool hookAllowed = idleHook_ && !parking_ && !stopping_;
        if (hookAllowed && now >= nextIdle) {
            callHook();
            continue;
        }
        if (!ready_.empty() && !runningLast_) {
            auto task = std::move(ready_.front());
            ready_.pop_front();
            workSinceHook = true;
            lock.unlock();
            task();
            lock.lock();
            continue;
        }
        // What another thread's call read off the descriptor makes it no longer
        // readable: the hook looks once before sleeping whenever work has run.
        if (hookAllowed && idleFd_ >= 0 && workSinceHook) {
            callHook();
            continue;
        }
        if (parking_ && !lastBeforePark_.empty()) {
            auto last = std::exchange(lastBeforePark_, {});
            runningLast_ = true;
            ended_.notify_all();
            lock.unlock();
            for (auto& task : last) task();
            lock.lock();
            continue;
        }
        if (parking_ || stopping_) {
            parking_ = false;
            runningLast_ = false;
            running_ = false;
            threadId_ = std::thread::id();
            ended_.notify_all();
            return;
        }
        // A cancelled timer is no reason to wake: a timer re-armed on every frame
        // leaves a trail of them that would keep a paused screen busy for seconds.
        while (!timers_.empty() && timers_.top().item->isCancelled()) timers_.pop();
        auto deadline = Clock::time_point::max();
        if (!timers_.empty()) deadline = timers_.top().when;
        if (idleHook_) deadline = std::min(deadline, nextIdle);
        if (waitLocked(lock, deadline) && idleHook_ && !parking_ && !stopping_) callHook();
    }
}

}  // namespace kavelin
