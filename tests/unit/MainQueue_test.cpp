#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <future>
#include <limits>
#include <thread>

#include "Kavelin/Platform/Linux/FileUserDefaults.h"
#include "Kavelin/Platform/Linux/HeadlessPresenter.h"
#include "Kavelin/Platform/Linux/ThreadMainQueue.h"
#include "Kavelin/Platform/Platform.h"
#include "Kavelin/VideoPlayerBridgging.h"
#include "support/VirtualMainQueue.h"
#include "support/VirtualPlatform.h"

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
}

TEST(VirtualMainQueue, CancelledItemsNeverRunAndReleaseTheirCaptures) {
    VirtualMainQueue q;
    auto witness = std::make_shared<int>(0);
    std::weak_ptr<int> weak = witness;
    bool ran = false;
    auto item = makeWorkItem([&ran, witness = std::move(witness)] { ran = true; });
    q.asyncAfter(1.0, item);
    EXPECT_EQ(q.pendingCount(), 1u);
    item->cancel();
    EXPECT_TRUE(weak.expired()) << "cancelling drops the block and what it holds";
    EXPECT_EQ(q.pendingCount(), 0u);
    q.advance(2);
    EXPECT_FALSE(ran);
}

// Polls `done` for at most `seconds` of real time: a thread queue has no virtual clock.
template <class Pred>
bool waitUntil(Pred done, double seconds = 5) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!done() && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return done();
}

TEST(ThreadMainQueue, SyncHopsOntoTheQueueWaitsNestsInlineAndStopsAtShutdown) {
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
    EXPECT_TRUE(ranOn != std::this_thread::get_id() && wasCurrent && !q.isCurrent());
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));

    EXPECT_THROW(q.sync([] { throw std::runtime_error("boom"); }), std::runtime_error);
    std::atomic<int> ran{0};
    q.sync([&] { ran = 1; });
    EXPECT_EQ(ran.load(), 1) << "the queue keeps serving after a failed task";
    // Shutdown runs what is queued, then drops later posts.
    q.async([&] { ran += 10; });
    q.shutdown();
    EXPECT_EQ(ran.load(), 11);
    q.async([&] { ran += 100; });
    q.sync([&] { ran += 1000; });  // must return, not hang
    EXPECT_EQ(ran.load(), 11);
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

// The window pumps input from the idle hook, so it must run on the queue whether
// the queue is idle or kept busy by frames and clock ticks (keys were lost on a
// loaded machine), and stop once cleared.
TEST(ThreadMainQueue, IdleHookRunsOnTheQueueIdleOrBusyUntilCleared) {
    ThreadMainQueue q;
    std::atomic<int> calls{0}, busyCalls{0};
    std::atomic<bool> onQueue{true}, busy{true}, spinning{false};
    q.setIdleHook(
        [&] {
            if (!q.isCurrent()) onQueue = false;
            ++calls;
            if (spinning) ++busyCalls;
        },
        0.005);
    ASSERT_TRUE(waitUntil([&] { return calls >= 3; }));
    std::function<void()> work = [&] {
        spinning = busy.load();
        if (busy) q.async(work);  // the next task is always ready before this one ends
    };
    q.async(work);
    EXPECT_TRUE(waitUntil([&] { return busyCalls >= 3; }));
    busy = false;
    q.setIdleHook(nullptr, 0);
    q.sync([] {});
    const int settled = calls.load();
    q.sync([] {});
    EXPECT_TRUE(onQueue && calls <= settled + 1);
}

// The idle window sleeps on its display connection: the hook must come when the
// descriptor turns readable and once after other work (which may have read it
// dry), not on the interval; a descriptor that hangs up must not spin the loop.
TEST(ThreadMainQueue, IdleHookWakesOnItsDescriptorAndAfterLiveWorkOnly) {
    int fds[2];
    ASSERT_EQ(::pipe2(fds, O_NONBLOCK), 0);
    ThreadMainQueue q;
    std::atomic<int> calls{0};
    std::atomic<bool> onQueue{true};
    q.setIdleHook(
        [&] {
            if (!q.isCurrent()) onQueue = false;
            char buffer[16];
            while (::read(fds[0], buffer, sizeof buffer) == sizeof buffer) {
            }
            ++calls;
        },
        60.0, fds[0]);
    auto callsReach = [&](int n, double seconds = 5) {
        return waitUntil([&] { return calls >= n; }, seconds);
    };
    ASSERT_TRUE(callsReach(1));
    const int first = calls.load();
    ASSERT_EQ(::write(fds[1], "x", 1), 1);
    EXPECT_TRUE(callsReach(first + 1));
    const int afterByte = calls.load();
    q.sync([] {});
    EXPECT_TRUE(callsReach(afterByte + 1));
    // Timers cancelled before they are due wake nothing.
    q.sync([&] {
        for (int i = 1; i <= 20; ++i) {
            auto item = makeWorkItem([] {});
            q.asyncAfter(0.01 * i, item);
            item->cancel();
        }
    });
    EXPECT_TRUE(callsReach(afterByte + 2));
    const int afterTimers = calls.load();
    EXPECT_FALSE(callsReach(afterTimers + 1, 0.3)) << "woken by cancelled timers";
    ::close(fds[1]);
    q.sync([] {});
    EXPECT_FALSE(callsReach(afterTimers + 5, 0.2)) << "a spinning loop would count thousands";
    EXPECT_TRUE(onQueue.load());
    q.setIdleHook(nullptr, 0);
    ::close(fds[0]);
}

// Delays come from remote documents (ad time-outs, cue points). Whatever number
// arrives, a delay too large for the clock means "not for a very long time",
// never an overflowed tick count that fires at once; negative or NaN means now.
TEST(ThreadMainQueue, HostileDelaysSaturateOnBothQueues) {
    constexpr double kInf = std::numeric_limits<double>::infinity();
    const std::pair<double, bool> delays[] = {{1e300, false},       {1e10, false}, {kInf, false},
                                              {std::nan(""), true}, {-kInf, true}, {-1e300, true}};
    for (const auto& [seconds, runsNow] : delays) {
        SCOPED_TRACE(seconds);
        VirtualMainQueue virtualQueue;
        bool ran = false;
        virtualQueue.asyncAfter(seconds, [&] { ran = true; });
        virtualQueue.advance(1e6);  // eleven days later
        EXPECT_EQ(ran, runsNow);
        // Advancing by the same hostile amount must not wrap the clock backwards.
        const double before = virtualQueue.now();
        virtualQueue.advance(seconds);
        EXPECT_GE(virtualQueue.now(), before);

        ThreadMainQueue q;
        bool threadRan = false;  // written and read on the queue only
        q.asyncAfter(seconds, [&] { threadRan = true; });
        // A wrapped deadline would lie in the past and fire before this marker.
        std::promise<bool> seen;
        q.asyncAfter(0.05, [&] { seen.set_value(threadRan); });
        auto future = seen.get_future();
        ASSERT_EQ(future.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        EXPECT_EQ(future.get(), runsNow);
    }
}

bool threadAlive(pid_t tid) {
    return std::filesystem::exists("/proc/self/task/" + std::to_string(tid));
}
pid_t queueTid(ThreadMainQueue& q) {
    pid_t tid = 0;
    q.sync([&] { tid = static_cast<pid_t>(::syscall(SYS_gettid)); });
    return tid;
}

// The library thread can be ended and joined (so a managed host can exit) and comes
// back transparently on the next call, with nothing queued lost.
TEST(ThreadMainQueueRestart, ParkRunsReadyWorkThenItsLastTaskAndJoinsTheThread) {
    ThreadMainQueue q;
    const pid_t first = queueTid(q);
    std::vector<std::string> ran;  // touched on the queue only, read after the join
    std::atomic<bool> timerRan{false};
    q.sync([&] {
        q.async([&] { ran.push_back("ready"); });
        q.asyncAfter(0.3, [&] { timerRan = true; });
    });
    q.park([&] { ran.push_back("last"); });
    EXPECT_EQ(ran, (std::vector<std::string>{"ready", "last"}));
    EXPECT_FALSE(q.hasThread() || threadAlive(first)) << "park returns once the thread is gone";
    // Work posted while parked waits; the next sync starts a fresh thread for it.
    std::atomic<int> posted{0};
    q.async([&] { ++posted; });
    EXPECT_TRUE(!q.hasThread() && posted == 0) << "posting alone starts no thread";
    const pid_t second = queueTid(q);
    EXPECT_TRUE(second != first && posted == 1 && q.hasThread());
    // The timer that was not due at the park still fires on the new thread.
    EXPECT_TRUE(waitUntil([&] { return timerRan.load(); }, 1));
    // Parked from the queue itself (a host callback calling cleanup), park returns
    // at once and the thread ends after the current task.
    bool afterPark = false;
    std::atomic<bool> lastRan{false};
    q.sync([&] {
        q.park([&] { lastRan = true; });
        afterPark = true;
    });
    EXPECT_TRUE(afterPark);
    EXPECT_TRUE(waitUntil([&] { return !threadAlive(second); }, 1) && lastRan);
    EXPECT_NE(queueTid(q), second) << "the next call starts (and joins) a fresh thread";
}

TEST(ThreadMainQueueRestart, CallsRacingWithParksAllRunExactlyOnce) {
    ThreadMainQueue q;
    std::atomic<int> runs{0};
    std::atomic<bool> done{false};
    std::thread parker([&] {
        while (!done) {
            q.park();
            std::this_thread::yield();
        }
    });
    std::vector<std::thread> hosts;
    for (int h = 0; h < 4; ++h)
        hosts.emplace_back([&] {
            for (int i = 0; i < 300; ++i) q.sync([&] { ++runs; });
        });
    for (auto& t : hosts) t.join();
    done = true;
    parker.join();
    EXPECT_EQ(runs.load(), 1200);
    q.shutdown();
    q.sync([&] { ++runs; });  // after shutdown nothing restarts the thread
    EXPECT_EQ(runs.load(), 1200);
    EXPECT_FALSE(q.hasThread());
}

TEST(ThreadMainQueueRestart, ReleasingTheLibraryThreadWritesThePendingMarks) {
    ScratchDir dir;
    auto queue = std::make_shared<ThreadMainQueue>();
    auto store = std::make_shared<FileUserDefaults>(dir.path / "UserDefaults.json", queue);
    Platform::install({queue, nullptr, std::make_shared<HeadlessPresenter>(queue), store, {}});
    // A change is written about a second later unless the thread is released first.
    queue->sync([&] { store->setObject("watched", "v1"); });
    EXPECT_EQ(store->fileWriteCount(), 0u);
    // The release returns before the thread has written; the next call waits for it.
    Platform::releaseThread();
    queue->sync([&] {
        EXPECT_EQ(store->fileWriteCount(), 1u);
        store->setObject("watched", "v2");
    });
    EXPECT_TRUE(std::filesystem::exists(dir.path / "UserDefaults.json"));
    EXPECT_TRUE(queue->hasThread()) << "the next call brought a thread back";
    Platform::releaseThread();
    EXPECT_TRUE(waitUntil([&] { return !queue->hasThread(); }));
    EXPECT_EQ(store->fileWriteCount(), 2u);
    queue->shutdown();
}

// What a host's cleanup needs: it returns once the queued work has run, while the
// last task (closing a window) goes on; nothing posted meanwhile runs on the ending
// thread, and a call arriving then waits for the end and runs on a fresh thread.
TEST(ThreadMainQueueRestart, ParkUntilLastReturnsBeforeTheLastTaskEnds) {
    ThreadMainQueue q;
    const pid_t first = queueTid(q);
    std::atomic<int> ready{0};
    std::atomic<bool> lastEnded{false};
    std::promise<void> letLastEnd;
    q.sync([&] { q.async([&] { ++ready; }); });
    q.park(
        [&, gate = letLastEnd.get_future().share()] {
            gate.wait();
            lastEnded = true;
        },
        MainQueue::ParkWait::UntilLast);
    EXPECT_EQ(ready.load(), 1);
    EXPECT_TRUE(q.hasThread() && !lastEnded) << "park waited for the last task";

    std::atomic<pid_t> postedOn{0};
    q.async([&] { postedOn = static_cast<pid_t>(::syscall(SYS_gettid)); });
    std::atomic<bool> calling{false};
    bool sawLastEnded = false;
    pid_t callOn = 0;
    std::thread host([&] {
        calling = true;
        q.sync([&] {
            sawLastEnded = lastEnded;
            callOn = static_cast<pid_t>(::syscall(SYS_gettid));
        });
    });
    while (!calling) std::this_thread::yield();
    letLastEnd.set_value();
    host.join();
    EXPECT_TRUE(sawLastEnded) << "the call ran beside the ending thread's last task";
    EXPECT_NE(callOn, first);
    EXPECT_EQ(postedOn.load(), callOn) << "work posted during the last task ran on the new thread";
    EXPECT_FALSE(threadAlive(first));
}

// The test build checks main-queue ownership: an operation that skipped the hop
// stops at once, naming itself; on the queue it runs.

TEST(MainQueueOwnershipDeathTest, AnOperationOffTheQueueStopsNamingItselfAndRunsOnIt) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto queue = std::make_shared<ThreadMainQueue>();
    Platform::install({queue, nullptr, nullptr, nullptr, {}});
    EXPECT_DEATH(sendUnityMessage("OnVideoPlay", "true"),
                 "sendUnityMessage .*ran off the library's main queue");
    std::string seen;
    setEventObserverForTesting([&](std::string_view m, std::string_view p) {
        seen = std::string(m) + ":" + std::string(p);
    });
    queue->sync([] { sendUnityMessage("OnVideoPlay", "true"); });
    EXPECT_EQ(seen, "OnVideoPlay:true");
    setEventObserverForTesting(nullptr);
    queue->shutdown();
    Platform::install(Platform{});
}

}  // namespace
}  // namespace kavelin
