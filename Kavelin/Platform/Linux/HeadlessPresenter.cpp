#include "Kavelin/Platform/Linux/HeadlessPresenter.h"

namespace kavelin {

std::shared_ptr<HostingController> HeadlessPresenter::makeHostingController(
    const std::shared_ptr<PlayerController>&, const std::shared_ptr<PlaylistController>&) {
    return std::make_shared<HostingController>();
}

void HeadlessPresenter::finish(bool animated, std::function<void()> step) {
    // Completions never run inside the call that asked for them.
    if (animated)
        queue_->asyncAfter(kPresentationFadeSeconds, std::move(step));
    else
        queue_->async(std::move(step));
}

void HeadlessPresenter::present(const std::shared_ptr<HostingController>& screen, bool animated,
                                std::function<void()> completion) {
    ++presentCount_;
    std::weak_ptr<HostingController> weakScreen = screen;
    finish(animated, [weak = weak_from_this(), weakScreen, completion = std::move(completion)] {
        if (auto self = weak.lock()) self->presented_ = weakScreen;
        if (completion) completion();
    });
}

void HeadlessPresenter::dismiss(const std::shared_ptr<HostingController>& screen, bool animated,
                                std::function<void()> completion) {
    ++dismissCount_;
    std::weak_ptr<HostingController> weakScreen = screen;
    finish(animated, [weak = weak_from_this(), weakScreen, completion = std::move(completion)] {
        auto self = weak.lock();
        if (self && self->presented_.lock() == weakScreen.lock()) self->presented_.reset();
        if (completion) completion();
    });
}

}  // namespace kavelin
