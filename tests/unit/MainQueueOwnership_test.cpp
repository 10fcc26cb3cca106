// The test build checks main-queue ownership: an operation that skipped the hop
// stops at once, naming itself; on the queue it runs.
#include <gtest/gtest.h>

#include "Kavelin/Platform/Linux/ThreadMainQueue.h"
#include "Kavelin/Platform/Platform.h"
#include "Kavelin/VideoPlayerBridgging.h"

namespace kavelin {
namespace {

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
