// The screen as the window sees it: what the window calls reaches the views and
// controllers, and what the window lends lasts exactly while it is open.
#include "Kavelin/views/PlayerScreen.h"

#include "support/HeadlessImGui.h"
#include "support/PlayerControllerFixture.h"

namespace kavelin::testing {
namespace {

class PlayerScreenTest : public PlayerControllerTest {
  protected:
    void SetUp() override {
        PlayerControllerTest::SetUp();
        subscriptionStatus() = SubscriptionStatus::premium;
        startPlaylist("pl-1");
        vp.advance(0.5);
        screen = views->makeScreen(pc, playlist, [this] { ++invalidations; });
    }
    void TearDown() override {
        screen.reset();
        PlayerControllerTest::TearDown();
    }

    HeadlessImGui imgui{{390, 844}};
    std::shared_ptr<ScreenViews> views = makePlayerScreenViews(vp.queue);
    std::shared_ptr<HostingController> screen;
    int invalidations = 0;
};

TEST_F(PlayerScreenTest, WindowCallsReachTheViewsAndControllers) {
    screen->sizeChanged(844, 390);
    EXPECT_GT(invalidations, 0) << "a new orientation asks the window for a frame";

    int vertices = 0;
    imgui.frame(vp.queue->now(), [&](Frame&) {
        screen->drawFrame(vp.queue->now(), 844, 390);
        vertices = ImGui::GetBackgroundDrawList()->VtxBuffer.Size;
    });
    EXPECT_GT(vertices, 0) << "the screen draws into the frame the window set up";

    ASSERT_TRUE(pc->isPlaying);
    screen->handleKey(HostingController::Key::space);
    EXPECT_FALSE(pc->isPlaying);
    events.clear();
    screen->closeRequested();
    EXPECT_EQ(events.take(), (Events{{"OnVideoClosed", "back"}}));
}

TEST_F(PlayerScreenTest, TexturesAndRedrawsGoThroughTheOpenWindowOnly) {
    std::vector<std::pair<int, int>> uploaded;
    std::vector<TextureHandle> released;
    int redraws = 0;
    views->windowOpened(WindowResources{[&](int w, int h, const uint8_t*) {
                                            uploaded.emplace_back(w, h);
                                            return TextureHandle{42};
                                        },
                                        [&](TextureHandle t) { released.push_back(t); },
                                        [&] { ++redraws; }});
    auto image = std::make_shared<const Image>(Image{2, 3, std::vector<uint8_t>(24, 255)});
    EXPECT_EQ(reinterpret_cast<TextureHandle>(Textures::get(image)), TextureHandle{42});
    EXPECT_EQ(reinterpret_cast<TextureHandle>(Textures::get(image)), TextureHandle{42});
    Display::setNeedsDisplay();
    EXPECT_EQ(uploaded, (std::vector<std::pair<int, int>>{{2, 3}})) << "uploaded once";
    EXPECT_EQ(redraws, 1);
    views->windowClosing();
    EXPECT_EQ(released, std::vector<TextureHandle>{42});
    Display::setNeedsDisplay();
    EXPECT_EQ(redraws, 1);
    EXPECT_EQ(Textures::get(image), nullptr) << "nothing uploads without a window";
}

}  // namespace
}  // namespace kavelin::testing
