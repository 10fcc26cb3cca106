#pragma once

#include <memory>
#include <optional>

#include "Kavelin/Platform/MediaPlayer.h"
#include "Kavelin/views/Frame.h"

namespace kavelin {

// The latest picture of a player as a texture.
struct VideoTexture {
    ImTextureID texture = nullptr;
    int width = 0;
    int height = 0;
};

// Turns a media player's output into textures (the window installs the libmpv
// renderer). Main queue only.
class VideoRenderer {
  public:
    virtual ~VideoRenderer() = default;
    // The player's present picture drawn for a frame of `pixelWidth` x
    // `pixelHeight` (letter-boxed, or cropped to fill it), or nothing while it has none.
    virtual std::optional<VideoTexture> frameFor(const std::shared_ptr<MediaPlayer>& player,
                                                 int pixelWidth, int pixelHeight, bool fill) = 0;

    static void install(std::shared_ptr<VideoRenderer> renderer);
    static VideoRenderer* current();
};

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
