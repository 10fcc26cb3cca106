#pragma once

#include <functional>
#include <memory>

namespace kavelin {

class PlayerController;
class PlaylistController;

// Presenting and dismissing take this long with or without a display, so a host
// hears its events at the same moments either way.
inline constexpr double kPresentationFadeSeconds = 0.35;

// The presented player screen, as the platform's hosting view controller: it owns
// the view tree while shown.
class HostingController {
  public:
    virtual ~HostingController() = default;
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
};

}  // namespace kavelin
