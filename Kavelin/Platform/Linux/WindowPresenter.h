#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "Kavelin/Platform/Linux/ThreadMainQueue.h"
#include "Kavelin/Platform/MediaPlayer.h"
#include "Kavelin/Platform/ScreenPresenter.h"

struct SDL_Window;
struct ImDrawData;
union SDL_Event;

namespace kavelin {

class MpvVideoRenderer;

// The player screen in a borderless full-screen SDL2 window with an OpenGL 3
// context: libmpv draws the video, Dear ImGui the overlay. Everything (window
// events, rendering, completions) runs on the library's main-queue thread. It
// draws only when something changed: a controller published, an animation runs,
// input arrived or mpv has a new picture.
class WindowPresenter final : public ScreenPresenter,
                              public std::enable_shared_from_this<WindowPresenter> {
  public:
    static constexpr double activeFrameInterval = 1.0 / 60;
    // How often input is looked for while nothing changes on screen, when the
    // display cannot wake the queue itself (no X11 connection to wait on).
    static constexpr double idlePollInterval = 0.1;
    // With one, input wakes the queue, and the queue looks before it sleeps after
    // work (a swap or a new video frame may have read input off the connection);
    // the host's own pump wakes it through the inbox. This is a backstop only.
    static constexpr double fallbackPollInterval = 10.0;

    // `views` builds the screens this window draws.
    WindowPresenter(std::shared_ptr<ThreadMainQueue> queue, std::shared_ptr<ScreenViews> views);
    ~WindowPresenter() override;

    std::shared_ptr<HostingController> makeHostingController(
        const std::shared_ptr<PlayerController>& player,
        const std::shared_ptr<PlaylistController>& playlist) override;
    bool hasTopMostViewController() const override;
    void present(const std::shared_ptr<HostingController>& screen, bool animated,
                 std::function<void()> completion) override;
    void dismiss(const std::shared_ptr<HostingController>& screen, bool animated,
                 std::function<void()> completion) override;
    void releaseThreadResources() override;
    bool releaseHoldsHost() const override { return hostVideo_; }
    void stopBackgroundWork() override;

    // Wraps the platform's player factory so every new libmpv player gets its
    // render context before its first item opens.
    std::shared_ptr<MediaPlayerFactory> wrapFactory(std::shared_ptr<MediaPlayerFactory> inner);

    // --- for tests and benchmarks; main queue only ---
    struct Capture {
        int width = 0;
        int height = 0;
        std::vector<uint8_t> rgba;  // top row first
    };
    // Draws a frame now and reads it back.
    Capture capture();
    // Players whose pictures the window draws (each holds a render context).
    size_t attachedPlayers() const;
    // Draws a frame now, as if something had changed, once the frame before it is
    // out.
    void renderNow();
    // Returns once the frame being presented (if any) is out.
    void waitUntilPresented();
    uint64_t framesRendered() const { return frames_; }
    // Video pictures mpv presented straight into the window.
    uint64_t picturesShownDirectly() const;
    bool isShown() const { return shown_; }
    SDL_Window* window() const { return window_; }

    // Anything that changes what is on screen asks for a frame here.
    void setNeedsDisplay();

    struct Opened;

  private:
    // True once the window is there; otherwise starts opening it in the background.
    bool ensureWindow();
    void finishOpening();
    void waitForOpening();
    void showWindow(bool animated);
    // Makes the window's GL context current here, once a frame being presented is out.
    void acquireGl();
    void swapFinished();
    void destroyWindow();
    void pump();
    void handleEvent(const SDL_Event& event);
    void renderFrame(Capture* capture = nullptr);
    // True when the frame recorded in `data` is not to be drawn here: the video
    // presents the window itself, or is handing it back.
    bool videoPresentsWindow(const ImDrawData* data);
    void endDirectVideo();
    void finishFrame(double now, bool animating);
    void scheduleFrame();
    void updatePolling();
    float fadeValue(double now) const;

    struct Inbox;
    struct Swapper;
    std::shared_ptr<ThreadMainQueue> queue_;
    std::shared_ptr<ScreenViews> views_;
    SDL_Window* window_ = nullptr;
    std::unique_ptr<Inbox> inbox_;
    std::mutex openerMutex_;  // the opening thread, also joined at exit
    std::thread opener_;
    std::unique_ptr<Opened> opened_;
    std::vector<std::weak_ptr<MediaPlayer>> pendingPlayers_;
    bool pendingShow_ = false;
    void* glContext_ = nullptr;
    bool glCurrent_ = false;            // on the queue's thread
    std::unique_ptr<Swapper> swapper_;  // presents frames on a thread of its own
    bool frameAfterSwap_ = false;
    void* renderGlContext_ = nullptr;  // shares textures; mpv's render thread owns it
    void* imgui_ = nullptr;            // ImGuiContext
    bool windowFailed_ = false;
    // SDL's video was up before ours: the host has SDL of its own and may quit it
    // (process-wide, not thread-safe) as soon as cleanup returns.
    std::atomic<bool> hostVideo_{false};
    std::shared_ptr<MpvVideoRenderer> renderer_;
    uint64_t presentations_ = 0;
    // Whether mpv presents the window while the frame is the video alone.
    enum class Direct { off, on, leaving };
    Direct direct_ = Direct::off;

    std::shared_ptr<HostingController> screen_;
    bool shown_ = false;
    // Fade from `fadeFrom` to `fadeTo` starting at `fadeStart`.
    float fadeFrom_ = 0, fadeTo_ = 0;
    double fadeStart_ = 0;
    bool dirty_ = false;
    bool frameScheduled_ = false;
    int extraFrames_ = 0;
    double lastFrame_ = -1;
    uint64_t frames_ = 0;
    double pollInterval_ = 0;
    int pollFd_ = -1;                // the display connection while it is waited on
    bool exitHookRearmed_ = false;   // since this window opened
    uint64_t shownFingerprint_ = 0;  // of what the window shows; 0 when unknown
};

}  // namespace kavelin
