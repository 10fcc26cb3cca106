// cleanup() ends the library thread that has been calling the host (a managed
// runtime waits for such threads at exit), and the next call brings a fresh one
// with everything the host had sent. Real playback, headless, offline sources.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <future>
#include <thread>

#include "support/HostLibrary.h"
#include "support/ScratchDir.h"

namespace {

using namespace std::chrono_literals;

bool threadAlive(pid_t tid) {
    return std::filesystem::exists("/proc/self/task/" + std::to_string(tid));
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
        setenv("KAVELIN_HEADLESS", "1", 1);
        config_.asConfigHome();
        ASSERT_TRUE(lib.ok()) << lib.missing;
        lib.registerUnityCallback(HostEvents::record);
    }
    void TearDown() override { lib.cleanup(); }

    ScratchDir config_{"kavelin-release"};
    HostLibrary lib{KAVELIN_LIB_PATH};
};

TEST_F(LibraryThreadRelease, CleanupEndsTheThreadWithNoLaterEventAndTheNextCallsKeepCatalogue) {
    lib.SetPlaylists(kPlaylists);
    lib.SetEpisodes(kEpisodes);
    lib.SetPremium(true);
    lib.PlayPlaylist("pl-rel");
    const auto first = HostEvents::waitFor("OnVideoPlay:true");
    ASSERT_TRUE(first) << HostEvents::dump();
    const pid_t firstThread = HostEvents::at(*first).thread;
    lib.cleanup();
    const size_t atReturn = HostEvents::texts().size();
    // Bounded: the thread ends on its own once the store is written.
    for (int i = 0; i < 200 && threadAlive(firstThread); ++i) std::this_thread::sleep_for(10ms);
    EXPECT_FALSE(threadAlive(firstThread));
    EXPECT_EQ(HostEvents::texts().size(), atReturn) << "an event after cleanup returned\n"
                                                    << HostEvents::dump();

    // A fresh player (cleanup dropped it) on a fresh thread, same catalogue and tier:
    // the playlist is found, and a premium viewer goes on without an ad.
    lib.setURLS(nullptr, 0);
    lib.PlayPlaylist("pl-rel");
    const auto again = HostEvents::waitFor("OnVideoPlay:true", *first + 1);
    ASSERT_TRUE(again) << "the playlist was not played after the restart\n" << HostEvents::dump();
    EXPECT_NE(HostEvents::at(*again).thread, firstThread);
    const auto finished = HostEvents::waitFor("OnVideoFinished:0", *again);
    ASSERT_TRUE(finished && HostEvents::waitFor("OnVideoPlay:true", *finished))
        << HostEvents::dump();
    for (const auto& e : HostEvents::texts(*again))
        EXPECT_EQ(e.find("AdRequired"), std::string::npos) << e;
}

TEST_F(LibraryThreadRelease, CleanupFromInsideTheCallbackEndsTheThreadOnceTheCallbackReturns) {
    static HostLibrary* self = &lib;
    lib.registerUnityCallback([](const char* message) {
        HostEvents::record(message);
        if (std::string(message) == "OnVideoStop:Stopped") self->cleanup();
    });
    auto stopped = std::async(std::launch::async, [&] { lib.stop(); });
    if (stopped.wait_for(5s) != std::future_status::ready) {
        ADD_FAILURE() << "stop() never returned: cleanup waited for its own thread";
        std::_Exit(1);
    }
    const auto stop = HostEvents::waitFor("OnVideoStop:Stopped", 0, 1);
    ASSERT_TRUE(stop) << HostEvents::dump();
    const pid_t stopThread = HostEvents::at(*stop).thread;
    // Bounded: the thread ends as soon as the callback has returned.
    for (int i = 0; i < 100 && threadAlive(stopThread); ++i) std::this_thread::sleep_for(10ms);
    EXPECT_FALSE(threadAlive(stopThread));

    lib.play();
    const auto play = HostEvents::waitFor("OnVideoPlay:Started", *stop, 1);
    ASSERT_TRUE(play) << "the library answers after an inner cleanup\n" << HostEvents::dump();
    EXPECT_NE(HostEvents::at(*play).thread, stopThread);
}

}  // namespace
