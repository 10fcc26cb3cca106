#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "Kavelin/Platform/MediaPlayer.h"

namespace kavelin {

// A texture of the window's graphics context, opaque to whoever draws it.
using TextureHandle = std::uintptr_t;

// The latest picture of a player as a texture.
struct VideoTexture {
    TextureHandle texture = 0;
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

}  // namespace kavelin
