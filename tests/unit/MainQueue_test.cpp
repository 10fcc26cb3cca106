#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "Kavelin/Platform/ThreadMainQueue.h"
#include "Kavelin/Platform/VirtualMainQueue.h"

namespace kavelin {
namespace {

TEST(VirtualMainQueue, WorkRunsInTimeThenPostingOrderOnlyWhenDriven) {
    VirtualMainQueue q;
    std::vector<std::string> ran;
    auto note = [&](std::string what) { ran.push_back(what + "@" + std::to_string(q.now())); };
    q.asyncAfter(2.0, [&] { note("b"); });
    q.asyncAfter(1.0, [&] { note("a"); });
    for (int i = 0; i < 3; ++i) q.asyncAfter(0.5, [&, i] { note("same" + std::to_string(i)); });
    q.async([&] { note("now"); });
    // A task posting a task: each runs at its own time within one advance.
    std::function<void()> tick = [&] {
        note("tick");
        if (ran.size() < 8) q.asyncAfter(0.25, tick);
    };
    q.asyncAfter(0.9, tick);
    EXPECT_TRUE(ran.empty()) << "nothing runs before the test drives the queue";

    for (int i = 0; i < 15; ++i) q.advance(0.1);  // tenths add up to exactly 1.5
    EXPECT_EQ(ran, (std::vector<std::string>{"now@0.000000", "same0@0.500000", "same1@0.500000",
                                             "same2@0.500000", "tick@0.900000", "a@1.000000",
                                             "tick@1.150000", "tick@1.400000"}));
    EXPECT_DOUBLE_EQ(q.now(), 1.5);
    q.advance(0.5);
    EXPECT_EQ(ran.back(), "b@2.000000");

    int depth = 0;  // sync runs inline, also from inside sync
    q.sync([&] { q.sync([&] { ++depth; }); });
    EXPECT_EQ(depth, 1);
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

TEST(ThreadMainQueue, SyncHopsOntoTheQueueWaitsAndNestsInline) {
    ThreadMainQueue q;
    std::thread::id ranOn;
    bool wasCurrent = false;
    std::vector<int> order;
    q.sync([&] {
        ranOn = std::this_thread::get_id();
        wasCurrent = q.isCurrent();
        order.push_back(1);
        // A host callback calling back into the library lands here.
        q.sync([&] { order.push_back(2); });
        order.push_back(3);
    });
    EXPECT_NE(ranOn, std::this_thread::get_id());
    EXPECT_TRUE(wasCurrent);
    EXPECT_FALSE(q.isCurrent());
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));

    EXPECT_THROW(q.sync([] { throw std::runtime_error("boom"); }), std::runtime_error);
    int after = 0;
    q.sync([&] { after = 1; });
    EXPECT_EQ(after, 1) << "the queue keeps serving after a failed task";
}

TEST(ThreadMainQueue, DelayedWorkRunsInOrderAndCancellationHolds) {
    ThreadMainQueue q;
    std::vector<int> ran;  // touched on the queue only
    std::promise<void> last;
    auto cancelled = makeWorkItem([&] { ran.push_back(99); });
    q.sync([&] {
        q.asyncAfter(0.06, [&] {
            ran.push_back(3);
            last.set_value();
        });
        q.asyncAfter(0.02, [&] { ran.push_back(1); });
        q.asyncAfter(0.04, cancelled);
        q.asyncAfter(0.04, [&] { ran.push_back(2); });
        cancelled->cancel();
    });
    ASSERT_EQ(last.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
    q.sync([&] { EXPECT_EQ(ran, (std::vector<int>{1, 2, 3})); });
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
    q.sync([] {});
    const int settled = calls.load();
    q.sync([] {});
    EXPECT_TRUE(onQueue.load());
    EXPECT_LE(calls.load(), settled + 1);
}

// Delays come from remote documents (ad time-outs, cue points). Whatever number
// arrives, a delay too large for the clock means "not for a very long time",
// never an overflowed tick count that fires at once; negative or NaN means now.
struct Delay {
    const char* name;
    double seconds;
    bool runsNow;
};

class HostileDelayTest : public ::testing::TestWithParam<Delay> {};

TEST_P(HostileDelayTest, BothQueuesSaturate) {
    VirtualMainQueue virtualQueue;
    bool ran = false;
    virtualQueue.asyncAfter(GetParam().seconds, [&] { ran = true; });
    virtualQueue.advance(1e6);  // eleven days later
    EXPECT_EQ(ran, GetParam().runsNow);
    // Advancing by the same hostile amount must not wrap the clock backwards.
    const double before = virtualQueue.now();
    virtualQueue.advance(GetParam().seconds);
    EXPECT_GE(virtualQueue.now(), before);

    ThreadMainQueue q;
    bool threadRan = false;  // written and read on the queue only
    q.asyncAfter(GetParam().seconds, [&] { threadRan = true; });
    // A wrapped deadline would lie in the past and fire before this marker.
    std::promise<bool> seen;
    q.asyncAfter(0.05, [&] { seen.set_value(threadRan); });
    auto future = seen.get_future();
    ASSERT_EQ(future.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(future.get(), GetParam().runsNow);
}

constexpr double kInf = std::numeric_limits<double>::infinity();
INSTANTIATE_TEST_SUITE_P(
    Values, HostileDelayTest,
    ::testing::Values(Delay{"huge", 1e300, false}, Delay{"pastInt64Nanos", 1e10, false},
                      Delay{"infinity", kInf, false},
                      Delay{"nan", std::numeric_limits<double>::quiet_NaN(), true},
                      Delay{"minusInfinity", -kInf, true}, Delay{"negative", -1e300, true}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace kavelin
