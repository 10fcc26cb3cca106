#include "Kavelin/views/CachedAsyncImage.h"

#include <cmath>
#include <numbers>

#include "Kavelin/Extentions/Color+Ext.h"
#include "Kavelin/Platform/MainQueue.h"
#include "Kavelin/views/ImageCache.h"

namespace kavelin {

CachedAsyncImage::CachedAsyncImage(std::string urlString, std::shared_ptr<MainQueue> queue)
    : urlString_(std::move(urlString)),
      queue_(std::move(queue)),
      state_(std::make_shared<State>()) {}

void CachedAsyncImage::loadImage() {
    if (!ImageLoader::isValidURL(urlString_)) {
        state_->hasError = true;
        return;
    }
    if (auto cached = ImageCache::shared().image(urlString_)) {
        state_->image = std::move(cached);
        return;
    }
    if (state_->isLoading) return;
    state_->isLoading = true;
    std::weak_ptr<State> weak = state_;
    ImageLoader::fetch(urlString_, [queue = queue_, weak](std::shared_ptr<const Image> image) {
        queue->async([weak, image] {
            auto state = weak.lock();
            if (!state) return;
            state->isLoading = false;
            if (image)
                state->image = image;
            else
                state->hasError = true;
            Display::setNeedsDisplay();
        });
    });
}

void CachedAsyncImage::draw(Frame& frame, const Rect& r, RoundedCorner shape) {
    if (!appeared_) {
        appeared_ = true;
        loadImage();
    }
    if (state_->image) {
        frame.picture(state_->image, urlString_, r, shape);
        return;
    }
    frame.fill(r, Color::gray(0.2f), shape);
    if (state_->isLoading) {
        // The default indeterminate spinner: eight spokes, brightest one turning.
        const float radius = 10;
        const int spokes = 8;
        int lead = static_cast<int>(std::fmod(frame.now() * 8, spokes));
        for (int i = 0; i < spokes; ++i) {
            float a = static_cast<float>(i) * 2 * std::numbers::pi_v<float> / spokes;
            float fade = 0.25f + 0.75f * static_cast<float>((i - lead + spokes) % spokes) / spokes;
            ImVec2 c{r.midX(), r.midY()};
            frame.list()->AddLine(
                {c.x + std::cos(a) * radius * 0.5f, c.y + std::sin(a) * radius * 0.5f},
                {c.x + std::cos(a) * radius, c.y + std::sin(a) * radius},
                frame.color(Color::gray(fade)), 2.5f);
        }
        frame.requestAnimationFrame();
    } else {
        const float size = 40;
        frame.asset("photo", {r.midX() - size / 2, r.midY() - size * 0.4f, size, size * 0.8f}, 1,
                    false);
    }
}

}  // namespace kavelin
