#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "Kavelin/Platform/MainQueue.h"
#include "Kavelin/Platform/MediaPlayer.h"
#include "Kavelin/Platform/VideoRenderer.h"

struct SDL_Window;
struct mpv_render_context;

namespace kavelin {

class MpvMediaPlayer;

// Draws libmpv players into textures through mpv's OpenGL render API.
//
// mpv must not wait on a thread that itself calls into mpv, and our main queue
// drives the players; so mpv renders on a thread of its own, with a GL context
// that shares textures with the window's. The main queue only picks up the
// newest finished texture. A player frees its render context first thing when it
// is destroyed, before mpv itself goes away.
class MpvVideoRenderer final : public VideoRenderer,
                               public std::enable_shared_from_this<MpvVideoRenderer> {
  public:
    // `renderContext` shares objects with the window's context and is used only
    // by the render thread. `onNewFrame` runs on the main queue.
    MpvVideoRenderer(std::shared_ptr<MainQueue> queue, SDL_Window* window, void* renderContext,
                     std::function<void()> onNewFrame);
    ~MpvVideoRenderer() override;

    // Creates the render context for a player on the render thread (mpv compiles
    // its shaders there: up to a few hundred milliseconds under software GL, which
    // the main queue does not wait for). `done` runs on the main queue, true once
    // frames can be drawn; false for a player that is not a libmpv one, a context
    // that failed, or a renderer let go of meanwhile.
    void attach(const std::shared_ptr<MediaPlayer>& player, std::function<void(bool)> done);
    std::optional<VideoTexture> frameFor(const std::shared_ptr<MediaPlayer>& player, int pixelWidth,
                                         int pixelHeight, bool fill) override;
    // The window has shown the frame handed out last: its texture may be reused.
    void endFrame();
    // True for a picture handed out since the last endFrame().
    bool isPictureInUse(TextureHandle texture) const;
    // Counts every picture rendered: a slot's texture is reused for a later one.
    uint64_t picturesRendered() const;
    // Sets how a picture's texture is sampled. It is drawn at its own size, where
    // nearest sampling is exact and the cheapest for software GL.
    static void setPictureSampling(unsigned texture);
    // The window's frame is `picture` alone, covering it: until endDirect(), mpv
    // draws its pictures straight into the window and presents them, as a bare
    // libmpv embedding does. Software GL then neither fills a window-sized texture
    // nor draws it again. False when `picture` was not handed out this frame.
    bool showDirectly(TextureHandle picture);
    // The window takes its drawing back: once no picture is being presented, the
    // present one is drawn into a texture again and `done` runs on the main queue.
    // An empty `done` waits for that here instead.
    void endDirect(std::function<void()> done);
    // Counts the pictures mpv presented straight into the window.
    uint64_t picturesShownDirectly() const;
    // Frees everything (the window is about to go).
    void detachAll();
    // Ends the render thread for good; later render work is dropped.
    void stopRendering();
    size_t attachedCount() const { return entries_.size(); }

  private:
    static constexpr int kSlots = 3;
    struct Slot {
        unsigned texture = 0;
        unsigned framebuffer = 0;
        int width = 0;
        int height = 0;
    };
    // Shared between the main queue, the render thread and mpv's callback.
    struct Entry {
        MpvMediaPlayer* player = nullptr;  // main queue only; unhooks itself when destroyed
        bool fill = false;                 // main queue only
        mpv_render_context* context = nullptr;
        Slot slots[kSlots];
        int latest = -1;  // newest finished slot
        int inUse = -1;   // slot the window is drawing from
        int targetWidth = 0;
        int targetHeight = 0;
        bool updatePending = false;
        bool redraw = false;                // the target size changed: draw the frame again
        bool attached = false;              // main queue only: the context is there
        bool detached = false;              // main queue only: released, or about to be
        MpvVideoRenderer* owner = nullptr;  // for mpv's update callback
    };

    void run();
    // Runs `task` on the render thread and waits for it.
    void onRenderThread(std::function<void()> task);
    // Queues `task` for the render thread without waiting; false when it has ended.
    bool post(std::function<void()> task);
    void renderPending(Entry& entry);
    void presentDirectly(Entry& entry, int width, int height);
    // Render thread: stops presenting into the window (see endDirect()).
    void takeBackWindow();
    // True when the player's video output was closed on the way.
    bool release(const std::shared_ptr<Entry>& entry);
    // The player is being destroyed: its context goes now.
    void forget(MediaPlayer* player);

    std::shared_ptr<MainQueue> queue_;
    SDL_Window* window_;
    void* renderContext_;
    std::function<void()> onNewFrame_;
    std::map<MediaPlayer*, std::shared_ptr<Entry>> entries_;  // main queue only

    mutable std::mutex mutex_;
    uint64_t picturesRendered_ = 0;
    uint64_t picturesShownDirectly_ = 0;
    Entry* direct_ = nullptr;  // the player presenting the window itself
    std::condition_variable wake_;
    std::deque<std::function<void()>> tasks_;
    std::vector<std::weak_ptr<Entry>> live_;  // what the render thread looks at
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace kavelin
