#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <utility>

#include "Kavelin/Platform/MainQueue.h"

namespace kavelin {

// A main queue on virtual time for deterministic tests: nothing runs until the
// test drains or advances it, and every call is treated as being on the queue.
class VirtualMainQueue final : public MainQueue {
  public:
    void async(std::function<void()> task) override;
    void asyncAfter(double seconds, WorkItemPtr item) override;
    using MainQueue::asyncAfter;
    void sync(const std::function<void()>& task) override { task(); }
    bool isCurrent() const override { return true; }
    double now() const override { return static_cast<double>(nowMicros_) / 1e6; }

    // Runs every task due by now (including ones they post for now).
    void runUntilIdle();
    // Moves time forward, running each delayed task at its own time, in order.
    void advance(double seconds);
    // Number of tasks and uncancelled delayed items still waiting.
    size_t pendingCount() const;

  private:
    // Whole microseconds, so that ten 0.1 s steps land exactly on 1 s.
    static int64_t toMicros(double seconds);
    int64_t nowMicros_ = 0;
    uint64_t seq_ = 0;
    std::map<std::pair<int64_t, uint64_t>, WorkItemPtr> scheduled_;
};

}  // namespace kavelin
