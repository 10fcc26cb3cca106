#pragma once

#include <map>
#include <memory>

#include "Kavelin/Platform/MainQueue.h"
#include "Kavelin/Platform/MediaPlayer.h"
#include "Kavelin/views/VideoSurfaces.h"

struct mpv_handle;
struct mpv_render_context;

namespace kavelin {

// Draws libmpv players into textures through mpv's OpenGL render API. Lives on
// the main queue with the window's GL context current. It keeps each attached
// player alive until nobody else holds it, so that its render context is freed
// before mpv itself goes away.
class MpvVideoRenderer final : public VideoRenderer,
                               public std::enable_shared_from_this<MpvVideoRenderer> {
  public:
    // `onNewFrame` runs on the main queue whenever mpv has a new picture.
    MpvVideoRenderer(std::shared_ptr<MainQueue> queue, std::function<void()> onNewFrame);
    ~MpvVideoRenderer() override;

    // Creates the render context for a new player (before its first item opens).
    // False when the player is not a libmpv one or the context failed.
    bool attach(const std::shared_ptr<MediaPlayer>& player);
    std::optional<VideoTexture> frameFor(const std::shared_ptr<MediaPlayer>& player) override;
    // Frees the contexts of players nobody else holds any more.
    void collect();
    // Frees everything (the GL context is about to go).
    void detachAll();
    size_t attachedCount() const { return entries_.size(); }

  private:
    struct Entry {
        std::shared_ptr<MediaPlayer> player;
        mpv_render_context* context = nullptr;
        unsigned framebuffer = 0;
        unsigned texture = 0;
        int width = 0;
        int height = 0;
        bool hasFrame = false;
        std::shared_ptr<bool> alive;
    };
    void release(Entry& entry);

    std::shared_ptr<MainQueue> queue_;
    std::function<void()> onNewFrame_;
    std::map<MediaPlayer*, Entry> entries_;
};

}  // namespace kavelin
