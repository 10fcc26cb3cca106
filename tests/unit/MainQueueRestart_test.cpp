// The library thread can be ended and joined (so a managed host can exit) and comes
// back transparently on the next call, with nothing queued lost.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "Kavelin/Platform/HeadlessPresenter.h"
#include "Kavelin/Platform/Platform.h"
#include "Kavelin/Platform/ThreadMainQueue.h"
#include "Kavelin/Platform/UserDefaults.h"
#include "support/VirtualPlatform.h"

using namespace kavelin;

namespace {

pid_t currentTid() {
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

bool threadAlive(pid_t tid) {
    return std::filesystem::exists("/proc/self/task/" + std::to_string(tid));
}

pid_t queueTid(ThreadMainQueue& q) {
    pid_t tid = 0;
    q.sync([&] { tid = currentTid(); });
    return tid;
}

}  // namespace

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
    EXPECT_FALSE(q.hasThread());
    EXPECT_FALSE(threadAlive(first)) << "park returns only once the thread is gone";

    // Work posted while parked waits; the next sync starts a fresh thread for it.
    std::atomic<int> posted{0};
    q.async([&] { ++posted; });
    EXPECT_FALSE(q.hasThread()) << "posting alone starts no thread";
    EXPECT_EQ(posted.load(), 0);
    const pid_t second = queueTid(q);
    EXPECT_NE(second, first);
    EXPECT_EQ(posted.load(), 1);
    EXPECT_TRUE(q.hasThread());

    // The timer that was not due at the park still fires on the new thread.
    for (int i = 0; i < 100 && !timerRan; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_TRUE(timerRan.load());
}

TEST(ThreadMainQueueRestart, ParkFromTheQueueEndsTheThreadAfterTheCurrentTask) {
    ThreadMainQueue q;
    pid_t tid = 0;
    bool afterPark = false;
    std::atomic<bool> lastRan{false};
    q.sync([&] {
        tid = currentTid();
        q.park([&] { lastRan = true; });  // a host callback calling cleanup lands here
        afterPark = true;                 // must return, not wait for itself
    });
    EXPECT_TRUE(afterPark);
    for (int i = 0; i < 100 && threadAlive(tid); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_FALSE(threadAlive(tid));
    EXPECT_TRUE(lastRan.load());
    EXPECT_NE(queueTid(q), tid) << "the next call starts (and joins) a fresh thread";
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
    kavelin::testing::TempDir dir;
    auto queue = std::make_shared<ThreadMainQueue>();
    Platform platform;
    platform.queue = queue;
    platform.presenter = std::make_shared<HeadlessPresenter>(queue);
    platform.defaults = std::make_shared<UserDefaults>(dir.path / "UserDefaults.json", queue);
    Platform::install(platform);

    // A change is written about a second later unless the thread is released first.
    queue->sync([&] { platform.defaults->setObject("watched", "v1"); });
    EXPECT_EQ(platform.defaults->fileWriteCount(), 0u);
    Platform::releaseThread();
    EXPECT_EQ(platform.defaults->fileWriteCount(), 1u);
    EXPECT_FALSE(queue->hasThread());
    EXPECT_TRUE(std::filesystem::exists(dir.path / "UserDefaults.json"));

    queue->sync([&] { platform.defaults->setObject("watched", "v2"); });
    EXPECT_TRUE(queue->hasThread()) << "the next call brought a thread back";
    Platform::releaseThread();
    EXPECT_EQ(platform.defaults->fileWriteCount(), 2u);
    queue->shutdown();
}
