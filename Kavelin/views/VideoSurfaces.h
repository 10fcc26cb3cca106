#pragma once

#include <memory>

#include "Kavelin/Platform/VideoRenderer.h"
#include "Kavelin/views/Frame.h"

namespace kavelin {

// Where a `videoW` x `videoH` picture goes inside `bounds`, whole and undistorted
// (the rest is black bars).
Rect aspectFitRect(float videoW, float videoH, const Rect& bounds);

// The player's picture letter-boxed on black; a nil player draws black.
struct AspectFitVideoPlayer {
    std::shared_ptr<MediaPlayer> player;
    void draw(Frame& frame, const Rect& bounds) const;
};

// The platform's spinner, large style: twelve spokes, the brightest one turning.
struct ActivityIndicator {
    enum class Style { medium, large };
    bool isAnimating = false;
    Style style = Style::large;

    static constexpr float largeSize = 37;
    static constexpr float mediumSize = 20;
    void draw(Frame& frame, ImVec2 centre) const;
};

}  // namespace kavelin
