#pragma once

#include <memory>

#include "Kavelin/Platform/MainQueue.h"
#include "Kavelin/Platform/ScreenPresenter.h"

namespace kavelin {

// The presenter used when there is no display: nothing is drawn, but presenting
// and dismissing complete after the same animation time as with a window, so the
// host hears its events in the same order and at the same moments.
class HeadlessPresenter final : public ScreenPresenter,
                                public std::enable_shared_from_this<HeadlessPresenter> {
  public:
    explicit HeadlessPresenter(std::shared_ptr<MainQueue> queue) : queue_(std::move(queue)) {}

    std::shared_ptr<HostingController> makeHostingController(
        const std::shared_ptr<PlayerController>& player,
        const std::shared_ptr<PlaylistController>& playlist) override;
    bool hasTopMostViewController() const override { return hasTopMost_; }
    void present(const std::shared_ptr<HostingController>& screen, bool animated,
                 std::function<void()> completion) override;
    void dismiss(const std::shared_ptr<HostingController>& screen, bool animated,
                 std::function<void()> completion) override;

    // Simulates a host with nothing to present on.
    void setHasTopMostViewController(bool has) { hasTopMost_ = has; }
    // The screen on top now (after its presentation finished), if any.
    std::shared_ptr<HostingController> presented() const { return presented_.lock(); }
    int presentCount() const { return presentCount_; }
    int dismissCount() const { return dismissCount_; }

  private:
    void finish(bool animated, std::function<void()> step);

    std::shared_ptr<MainQueue> queue_;
    bool hasTopMost_ = true;
    std::weak_ptr<HostingController> presented_;
    int presentCount_ = 0;
    int dismissCount_ = 0;
};

}  // namespace kavelin
