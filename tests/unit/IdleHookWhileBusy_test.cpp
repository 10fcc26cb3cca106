// The window pumps input from the queue's idle hook, so a queue kept busy by frames
// and clock ticks must still call it: keys were lost on a loaded machine.
#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "Kavelin/Platform/ThreadMainQueue.h"

namespace kavelin {
namespace {

TEST(ThreadMainQueue, IdleHookRunsWhileTasksKeepComing) {
    ThreadMainQueue q;
    std::atomic<bool> busy{true};
    std::function<void()> work = [&] {
        if (busy) q.async(work);  // the next task is always ready before this one ends
    };
    q.async(work);
    std::promise<void> called;
    std::atomic<int> calls{0};
    q.setIdleHook(
        [&] {
            if (++calls == 1) called.set_value();
        },
        0.01);
    EXPECT_EQ(called.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
    busy = false;
    q.setIdleHook(nullptr, 0);
    q.sync([] {});
}

}  // namespace
}  // namespace kavelin
