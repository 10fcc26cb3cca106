#pragma once

#include <memory>
#include <string>

#include "Kavelin/views/Frame.h"

namespace kavelin {

class MainQueue;

// Shows one thumbnail: a spinner while it loads, the "photo" symbol when it
// failed (or before it started), the picture once it arrived. A fetched picture
// goes into ImageCache so later views with the same address show it at once.
class CachedAsyncImage {
  public:
    // A fetched picture is handed over on `queue`, the one the views run on.
    CachedAsyncImage(std::string urlString, std::shared_ptr<MainQueue> queue);
    CachedAsyncImage(CachedAsyncImage&&) = default;
    CachedAsyncImage& operator=(CachedAsyncImage&&) = default;

    // Starts loading the first time the view is drawn (appears).
    void draw(Frame& frame, const Rect& r, RoundedCorner shape = {});

    const std::string& urlString() const { return urlString_; }
    std::shared_ptr<const Image> image() const { return state_->image; }
    bool isLoading() const { return state_->isLoading; }
    bool hasError() const { return state_->hasError; }
    bool hasAppeared() const { return appeared_; }

    // What the view does on appearance; runs on the main queue.
    void loadImage();

  private:
    struct State {
        std::shared_ptr<const Image> image;
        bool isLoading = false;
        bool hasError = false;
    };
    std::string urlString_;
    std::shared_ptr<MainQueue> queue_;
    std::shared_ptr<State> state_;
    bool appeared_ = false;
};

}  // namespace kavelin
