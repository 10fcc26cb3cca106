// cleanup() ends the library thread that has been calling the host (a managed
// runtime waits for such threads at exit), and the next call brings a fresh one
// with everything the host had sent. Real playback, headless, offline sources.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/HostLibrary.h"

namespace {

using namespace std::chrono_literals;

struct Event {
    std::string text;
    pid_t tid;
};

std::mutex gMutex;
std::condition_variable gChanged;
std::vector<Event> gEvents;
void (*gCleanup)() = nullptr;  // called from inside the callback on "OnVideoStop"

void recordEvent(const char* message) {
    {
        std::lock_guard lock(gMutex);
        gEvents.push_back({message, static_cast<pid_t>(::syscall(SYS_gettid))});
    }
    gChanged.notify_all();
    if (gCleanup && std::string(message) == "OnVideoStop:Stopped") gCleanup();
}

// The first event equal to `text` at or after `from`, waiting for it.
std::optional<Event> waitFor(const std::string& text, size_t& from,
                             std::chrono::seconds timeout = 20s) {
    std::unique_lock lock(gMutex);
    std::optional<Event> found;
    gChanged.wait_for(lock, timeout, [&] {
        for (size_t i = from; i < gEvents.size(); ++i)
            if (gEvents[i].text == text) {
                found = gEvents[i];
                from = i + 1;
                return true;
            }
        return false;
    });
    return found;
}

std::vector<std::string> eventsSince(size_t from) {
    std::lock_guard lock(gMutex);
    std::vector<std::string> out;
    for (size_t i = from; i < gEvents.size(); ++i) out.push_back(gEvents[i].text);
    return out;
}

bool threadAlive(pid_t tid) {
    return std::filesystem::exists("/proc/self/task/" + std::to_string(tid));
}

bool goneWithin(pid_t tid, std::chrono::milliseconds limit) {
    const auto until = std::chrono::steady_clock::now() + limit;
    while (threadAlive(tid) && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(10ms);
    return !threadAlive(tid);
}

const char* kPlaylists = R"([{"id":"pl-rel","name":"Release","thumbnail":"img/pl.png"}])";
const char* kEpisodes =
    R"([{"id":"pl-rel","episodes":[)"
    R"({"index":"r1","url":"edl://file=av://lavfi:testsrc2=size=160x90:rate=25,length=1",)"
    R"("thumbnail":"img/r1.png","title":"One","isActive":1,"length":1},)"
    R"({"index":"r2","url":"edl://file=av://lavfi:smptebars=size=160x90:rate=25,length=1",)"
    R"("thumbnail":"img/r2.png","title":"Two","isActive":1,"length":1}]}])";

class LibraryThreadRelease : public ::testing::Test {
  protected:
    void SetUp() override {
        char dir[] = "/tmp/kavelin-release-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        config_ = dir;
        setenv("XDG_CONFIG_HOME", dir, 1);
        setenv("KAVELIN_HEADLESS", "1", 1);
        lib.handle = dlopen(KAVELIN_LIB_PATH, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(lib.handle, nullptr) << dlerror();
        lib.registerCallback(recordEvent);
    }
    void TearDown() override {
        lib.call("cleanup");
        std::filesystem::remove_all(config_);
    }

    HostLibrary lib;
    std::string config_;
};

TEST_F(LibraryThreadRelease, CleanupJoinsTheThreadAndTheNextCallsKeepCatalogueAndTier) {
    lib.call("SetPlaylists", kPlaylists);
    lib.call("SetEpisodes", kEpisodes);
    lib.call("SetPremium", true);
    lib.call("PlayPlaylist", "pl-rel");
    size_t at = 0;
    auto first = waitFor("OnVideoPlay:true", at);
    ASSERT_TRUE(first);

    lib.call("cleanup");
    EXPECT_FALSE(threadAlive(first->tid)) << "cleanup returns once the thread is gone";

    // A fresh player (cleanup dropped it) on a fresh thread, same catalogue and tier:
    // the playlist is found, and a premium viewer goes on without an ad.
    lib.fn<void (*)(const char**, int32_t)>("setURLS")(nullptr, 0);
    lib.call("PlayPlaylist", "pl-rel");
    auto again = waitFor("OnVideoPlay:true", at);
    ASSERT_TRUE(again) << "the playlist was not played after the restart";
    EXPECT_NE(again->tid, first->tid);
    const size_t since = at;
    ASSERT_TRUE(waitFor("OnVideoFinished:0", at));
    ASSERT_TRUE(waitFor("OnVideoPlay:true", at));
    for (const auto& e : eventsSince(since))
        EXPECT_EQ(e.find("AdRequired"), std::string::npos) << e;
}

TEST_F(LibraryThreadRelease, CleanupFromInsideTheCallbackEndsTheThreadOnceTheCallbackReturns) {
    gCleanup = lib.fn<void (*)()>("cleanup");
    auto stopped = std::async(std::launch::async, [&] { lib.call("stop"); });
    if (stopped.wait_for(5s) != std::future_status::ready) {
        ADD_FAILURE() << "stop() never returned: cleanup waited for its own thread";
        std::_Exit(1);
    }
    gCleanup = nullptr;
    size_t at = 0;
    auto stop = waitFor("OnVideoStop:Stopped", at, 1s);
    ASSERT_TRUE(stop);
    EXPECT_TRUE(goneWithin(stop->tid, 1000ms));

    lib.call("play");
    auto play = waitFor("OnVideoPlay:Started", at, 1s);
    ASSERT_TRUE(play) << "the library answers after an inner cleanup";
    EXPECT_NE(play->tid, stop->tid);
}

}  // namespace
