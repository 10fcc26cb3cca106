// cleanup() ends the library thread, whose GL contexts die with it: the window is
// closed as it ends, and the next playlist opens a new one that draws again.
#include <Kavelin/Kavelin.h>
#include <gtest/gtest.h>

#include <thread>

#include "Kavelin/Platform/Linux/ThreadMainQueue.h"
#include "Kavelin/Platform/Linux/WindowPresenter.h"
#include "Kavelin/Platform/Platform.h"
#include "support/MainQueueWait.h"
#include "support/ScratchDir.h"
#include "support/XvfbDisplay.h"

namespace kavelin {
namespace {

using kavelin::testing::waitOnMainQueue;
using namespace std::chrono_literals;

const char* kPlaylists = R"([{"id":"pl-win","name":"Window","thumbnail":"img/pl.png"}])";
const char* kEpisodes =
    R"([{"id":"pl-win","episodes":[)"
    R"({"index":"w1","url":"edl://file=av://lavfi:testsrc2=size=320x180:rate=25,length=20",)"
    R"("thumbnail":"img/w1.png","title":"One","isActive":1,"length":20}]}])";

TEST(WindowAcrossCleanup, CleanupClosesTheWindowAndTheNextPlaylistDrawsInANewOne) {
    test::XvfbDisplay display;
    ASSERT_TRUE(display.ok()) << "no X server for the window";
    ScratchDir config("kavelin-window");
    config.asConfigHome();

    SetPlaylists(kPlaylists);
    SetEpisodes(kEpisodes);
    SetPremium(true);
    auto window = std::dynamic_pointer_cast<WindowPresenter>(Platform::current().presenter);
    auto queue = std::dynamic_pointer_cast<ThreadMainQueue>(Platform::current().queue);
    ASSERT_TRUE(window && queue) << "the real platform did not choose the window presenter";
    for (int session = 1; session <= 2; ++session) {
        if (session == 2) setURLS(nullptr, 0);  // cleanup dropped the player
        PlayPlaylist("pl-win");
        uint64_t before = 0;
        ASSERT_TRUE(waitOnMainQueue(
            [&] {
                if (!window->isShown() || !window->window()) return false;
                if (before == 0) before = window->framesRendered() + 1;
                return window->framesRendered() > before + 5;
            },
            15))
            << "session " << session << " drew no frames";

        cleanup();
        // The window closes on the ending thread after cleanup has returned.
        for (int i = 0; i < 500 && queue->hasThread(); ++i) std::this_thread::sleep_for(10ms);
        EXPECT_FALSE(queue->hasThread());
        // Parked: nothing runs on the queue, so the presenter can be read here.
        EXPECT_EQ(window->window(), nullptr) << "session " << session;
        EXPECT_FALSE(window->isShown());
    }
    Platform::shutdown();
}

}  // namespace
}  // namespace kavelin
