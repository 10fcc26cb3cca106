#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "Kavelin/Platform/VideoRenderer.h"

namespace kavelin {

class PlayerController;
class PlaylistController;

// Presenting and dismissing take this long with or without a display, so a host
// hears its events at the same moments either way.
inline constexpr double kPresentationFadeSeconds = 0.35;

// The presented player screen, as the platform's hosting view controller: it owns
// the view tree while shown. A presenter that draws calls it on the main queue; one
// without a display calls nothing.
class HostingController {
  public:
    enum class Key { space, left, right, escape };

    virtual ~HostingController() = default;
    // Draws one frame of `width` x `height` points into the current ImGui frame,
    // over black; true while it wants another frame soon (an animation runs).
    virtual bool drawFrame(double now, float width, float height) {
        (void)now, (void)width, (void)height;
        return false;
    }
    virtual void handleKey(Key key) { (void)key; }
    virtual void sizeChanged(int width, int height) { (void)width, (void)height; }
    virtual void becameActive() {}
    // The user closed the window.
    virtual void closeRequested() {}
};

// What an open window lends the screen drawn in it: pictures uploaded as textures
// of its graphics context, and a way to ask it for a frame.
struct WindowResources {
    std::function<TextureHandle(int width, int height, const uint8_t* rgba)> upload;
    std::function<void(TextureHandle)> release;
    std::function<void()> setNeedsDisplay;
};

// What the layer above gives a presenter that draws: the screen for a pair of
// controllers, and a holder for what the window lends while it is open.
class ScreenViews {
  public:
    virtual ~ScreenViews() = default;
    // `invalidate` is called whenever what the screen shows changed.
    virtual std::shared_ptr<HostingController> makeScreen(
        const std::shared_ptr<PlayerController>& player,
        const std::shared_ptr<PlaylistController>& playlist, std::function<void()> invalidate) = 0;
    // The window opened; its graphics context is current.
    virtual void windowOpened(WindowResources resources) = 0;
    // The window is about to close, its context current: give back every texture.
    virtual void windowClosing() = 0;
};

// Puts the player screen over the host's interface and takes it down again. Both
// completions run on the main queue once the animation is over.
class ScreenPresenter {
  public:
    virtual ~ScreenPresenter() = default;

    // Builds the screen for these controllers (not yet shown).
    virtual std::shared_ptr<HostingController> makeHostingController(
        const std::shared_ptr<PlayerController>& player,
        const std::shared_ptr<PlaylistController>& playlist) = 0;

    // Whether there is a top-most view controller to present on.
    virtual bool hasTopMostViewController() const = 0;

    virtual void present(const std::shared_ptr<HostingController>& screen, bool animated,
                         std::function<void()> completion) = 0;
    virtual void dismiss(const std::shared_ptr<HostingController>& screen, bool animated,
                         std::function<void()> completion) = 0;

    // The queue's thread is about to end: let go of what belongs to it (a window and
    // its GL contexts). The next presentation makes them again.
    virtual void releaseThreadResources() {}
    // Whether releasing must be over before the host goes on (any thread may ask).
    virtual bool releaseHoldsHost() const { return false; }

    // The process is exiting: stop every thread of the presenter's own that could
    // still be drawing, before the GL driver's exit handlers tear it down.
    virtual void stopBackgroundWork() {}
};

}  // namespace kavelin
