#include "Kavelin/views/PlayerScreen.h"

#include <imgui.h>

#include <utility>
#include <vector>

#include "Kavelin/views/Frame.h"
#include "Kavelin/views/OrientationObserver.h"
#include "Kavelin/views/VideoPlayerView.h"

namespace kavelin {
namespace {

class PlayerScreen final : public HostingController {
  public:
    PlayerScreen(const std::shared_ptr<PlayerController>& player,
                 const std::shared_ptr<PlaylistController>& playlist,
                 std::shared_ptr<MainQueue> queue)
        : player_(player), view_(player, orientation_, playlist, std::move(queue)) {}

    void observe(const std::shared_ptr<PlaylistController>& playlist,
                 const std::function<void()>& invalidate) {
        subscriptions_.push_back(player_->onChange(invalidate));
        if (playlist) subscriptions_.push_back(playlist->onChange(invalidate));
        subscriptions_.push_back(orientation_->onChange(invalidate));
    }

    bool drawFrame(double now, float width, float height) override {
        Frame frame(ImGui::GetBackgroundDrawList(), now);
        view_.draw(frame, Rect{0, 0, width, height});
        return frame.needsAnotherFrame();
    }
    void handleKey(Key key) override { view_.handleKey(key); }
    void sizeChanged(int width, int height) override {
        orientation_->updateOrientation(std::make_pair(width, height));
    }
    void becameActive() override { view_.applicationDidBecomeActive(); }
    void closeRequested() override { player_->backToHome(); }

  private:
    std::shared_ptr<OrientationObserver> orientation_ = std::make_shared<OrientationObserver>();
    std::shared_ptr<PlayerController> player_;
    VideoPlayerView view_;
    std::vector<ObservableObject::Subscription> subscriptions_;
};

class PlayerScreenViews final : public ScreenViews {
  public:
    explicit PlayerScreenViews(std::shared_ptr<MainQueue> queue) : queue_(std::move(queue)) {}

    std::shared_ptr<HostingController> makeScreen(
        const std::shared_ptr<PlayerController>& player,
        const std::shared_ptr<PlaylistController>& playlist,
        std::function<void()> invalidate) override {
        auto screen = std::make_shared<PlayerScreen>(player, playlist, queue_);
        screen->observe(playlist, invalidate);
        return screen;
    }

    void windowOpened(WindowResources resources) override {
        Textures::install(
            [upload = std::move(resources.upload)](const Image& image) {
                return reinterpret_cast<ImTextureID>(
                    upload(image.width, image.height, image.rgba.data()));
            },
            [release = std::move(resources.release)](ImTextureID texture) {
                release(reinterpret_cast<TextureHandle>(texture));
            });
        Display::install(std::move(resources.setNeedsDisplay));
    }

    void windowClosing() override {
        Display::install(nullptr);
        Textures::uninstall();
    }

  private:
    std::shared_ptr<MainQueue> queue_;
};

}  // namespace

std::shared_ptr<ScreenViews> makePlayerScreenViews(std::shared_ptr<MainQueue> queue) {
    return std::make_shared<PlayerScreenViews>(std::move(queue));
}

}  // namespace kavelin
