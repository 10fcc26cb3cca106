// The display-less presenter completes like an animated window would.
#include "Kavelin/Platform/Linux/HeadlessPresenter.h"

#include <gtest/gtest.h>

#include "support/VirtualMainQueue.h"

namespace kavelin {
namespace {

TEST(HeadlessPresenter, CompletesAfterTheAnimationNeverInlineAndEvenWhenGone) {
    auto queue = std::make_shared<VirtualMainQueue>();
    auto presenter = std::make_shared<HeadlessPresenter>(queue);
    auto screen = presenter->makeHostingController(nullptr, nullptr);
    ASSERT_NE(screen, nullptr);

    int presented = 0, dismissed = 0;
    presenter->present(screen, true, [&] { ++presented; });
    queue->advance(kPresentationFadeSeconds - 0.01);
    EXPECT_TRUE(presented == 0 && presenter->presented() == nullptr);
    queue->advance(0.01);
    EXPECT_TRUE(presented == 1 && presenter->presented() == screen);
    presenter->dismiss(screen, false, [&] { ++dismissed; });
    EXPECT_EQ(dismissed, 0);  // even unanimated, it completes on a later turn
    queue->runUntilIdle();
    EXPECT_TRUE(dismissed == 1 && presenter->presented() == nullptr);
    EXPECT_EQ(std::make_pair(presenter->presentCount(), presenter->dismissCount()),
              std::make_pair(1, 1));
    // A completion outliving the presenter still runs.
    presenter->dismiss(screen, true, [&] { ++dismissed; });
    presenter.reset();
    queue->advance(1);
    EXPECT_EQ(dismissed, 2);
}

}  // namespace
}  // namespace kavelin
