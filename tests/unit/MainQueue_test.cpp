#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "Kavelin/Platform/ThreadMainQueue.h"
#include "Kavelin/Platform/VirtualMainQueue.h"

using namespace kavelin;

namespace {

// Posts from inside the queue and waits for a marker task, so the assertions run
// once everything queued before it has run.
void drain(ThreadMainQueue& q) {
    q.sync([] {});
}

}  // namespace

TEST(VirtualMainQueue, DelayedWorkRunsInTimeOrderAtItsTime) {
    VirtualMainQueue q;
    std::vector<std::string> ran;
    q.asyncAfter(2.0, [&] { ran.push_back("b@" + std::to_string(q.now())); });
    q.asyncAfter(1.0, [&] { ran.push_back("a@" + std::to_string(q.now())); });
    q.async([&] { ran.push_back("now"); });
    EXPECT_TRUE(ran.empty()) << "nothing runs before the test drives the queue";

    q.advance(1.5);
    ASSERT_EQ(ran.size(), 2u);
    EXPECT_EQ(ran[0], "now");
    EXPECT_EQ(ran[1], "a@1.000000");
    EXPECT_DOUBLE_EQ(q.now(), 1.5);

    q.advance(0.5);
    ASSERT_EQ(ran.size(), 3u);
    EXPECT_EQ(ran[2], "b@2.000000");
}

TEST(VirtualMainQueue, SameTimeTasksKeepPostingOrderAndTenthsAddUpExactly) {
    VirtualMainQueue q;
    std::vector<int> ran;
    for (int i = 0; i < 5; ++i) q.asyncAfter(1.0, [&, i] { ran.push_back(i); });
    for (int i = 0; i < 10; ++i) q.advance(0.1);
    EXPECT_EQ(ran, (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST(VirtualMainQueue, TasksPostedByTasksRunAtTheirOwnTimeWithinOneAdvance) {
    VirtualMainQueue q;
    std::vector<double> times;
    std::function<void()> tick = [&] {
        times.push_back(q.now());
        if (times.size() < 3) q.asyncAfter(0.1, tick);
    };
    q.asyncAfter(0.1, tick);
    q.advance(10);
    ASSERT_EQ(times.size(), 3u);
    EXPECT_DOUBLE_EQ(times[0], 0.1);
    EXPECT_DOUBLE_EQ(times[1], 0.2);
    EXPECT_DOUBLE_EQ(times[2], 0.3);
}

TEST(VirtualMainQueue, CancelledItemsNeverRunAndReleaseTheirCaptures) {
    VirtualMainQueue q;
    auto witness = std::make_shared<int>(0);
    std::weak_ptr<int> weak = witness;
    bool ran = false;
    auto item = makeWorkItem([&ran, witness] { ran = true; });
    witness.reset();
    q.asyncAfter(1.0, item);
    EXPECT_EQ(q.pendingCount(), 1u);
    item->cancel();
    EXPECT_TRUE(weak.expired()) << "cancelling drops the block and what it holds";
    EXPECT_EQ(q.pendingCount(), 0u);
    q.advance(2);
    EXPECT_FALSE(ran);
}

TEST(VirtualMainQueue, SyncRunsInlineAndReentrantly) {
    VirtualMainQueue q;
    int depth = 0;
    q.sync([&] {
        ++depth;
        q.sync([&] { ++depth; });
    });
    EXPECT_EQ(depth, 2);
}

TEST(ThreadMainQueue, SyncHopsOntoTheQueueThreadAndWaits) {
    ThreadMainQueue q;
    std::thread::id ranOn;
    bool wasCurrent = false;
    q.sync([&] {
        ranOn = std::this_thread::get_id();
        wasCurrent = q.isCurrent();
    });
    EXPECT_NE(ranOn, std::this_thread::get_id());
    EXPECT_TRUE(wasCurrent);
    EXPECT_FALSE(q.isCurrent());
}

TEST(ThreadMainQueue, NestedSyncFromTheQueueRunsInlineWithoutDeadlock) {
    ThreadMainQueue q;
    std::vector<int> order;
    q.sync([&] {
        order.push_back(1);
        // A host callback calling back into the library lands here.
        q.sync([&] { order.push_back(2); });
        order.push_back(3);
    });
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST(ThreadMainQueue, DelayedWorkRunsInOrderAndCancellationHolds) {
    ThreadMainQueue q;
    std::mutex m;
    std::vector<int> ran;
    std::promise<void> last;
    auto record = [&](int i) {
        std::lock_guard lock(m);
        ran.push_back(i);
    };
    auto cancelled = makeWorkItem([&] { record(99); });
    q.sync([&] {
        q.asyncAfter(0.06, [&] {
            record(3);
            last.set_value();
        });
        q.asyncAfter(0.02, [&] { record(1); });
        q.asyncAfter(0.04, cancelled);
        q.asyncAfter(0.04, [&] { record(2); });
        cancelled->cancel();
    });
    ASSERT_EQ(last.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
    drain(q);
    std::lock_guard lock(m);
    EXPECT_EQ(ran, (std::vector<int>{1, 2, 3}));
}

TEST(ThreadMainQueue, ExceptionsInSyncReachTheCaller) {
    ThreadMainQueue q;
    EXPECT_THROW(q.sync([] { throw std::runtime_error("boom"); }), std::runtime_error);
    int after = 0;
    q.sync([&] { after = 1; });
    EXPECT_EQ(after, 1) << "the queue keeps serving after a failed task";
}

TEST(ThreadMainQueue, ShutdownRunsQueuedWorkThenDropsLaterPosts) {
    auto q = std::make_unique<ThreadMainQueue>();
    std::atomic<int> ran{0};
    q->async([&] { ran += 1; });
    q->shutdown();
    EXPECT_EQ(ran.load(), 1);
    q->async([&] { ran += 10; });
    q->sync([&] { ran += 100; });  // must return, not hang
    EXPECT_EQ(ran.load(), 1);
}

TEST(ThreadMainQueue, IdleHookRunsOnTheQueueUntilCleared) {
    ThreadMainQueue q;
    std::atomic<int> calls{0};
    std::atomic<bool> onQueue{true};
    std::promise<void> thrice;
    q.setIdleHook(
        [&] {
            if (!q.isCurrent()) onQueue = false;
            if (++calls == 3) thrice.set_value();
        },
        0.005);
    ASSERT_EQ(thrice.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
    q.setIdleHook(nullptr, 0);
    drain(q);
    const int settled = calls.load();
    q.sync([] {});
    EXPECT_TRUE(onQueue.load());
    EXPECT_LE(calls.load(), settled + 1);
}
