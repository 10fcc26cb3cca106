#include "Kavelin/Platform/Linux/MpvVideoRenderer.h"

#define GL_GLEXT_PROTOTYPES 1
#include <GL/gl.h>
#include <GL/glext.h>
#include <SDL.h>
#include <mpv/client.h>
#include <mpv/render_gl.h>

#include <future>

#include "Kavelin/Extentions/ThreadName.h"
#include "Kavelin/Platform/Linux/MpvMediaPlayer.h"

namespace kavelin {

namespace {
void* procAddress(void*, const char* name) {
    return SDL_GL_GetProcAddress(name);
}
}  // namespace

MpvVideoRenderer::MpvVideoRenderer(std::shared_ptr<MainQueue> queue, SDL_Window* window,
                                   void* renderContext, std::function<void()> onNewFrame)
    : queue_(std::move(queue)),
      window_(window),
      renderContext_(renderContext),
      onNewFrame_(std::move(onNewFrame)) {
    thread_ = namedThread("kavelin-render", [this] { run(); });
}

MpvVideoRenderer::~MpvVideoRenderer() {
    detachAll();
    stopRendering();
}

void MpvVideoRenderer::stopRendering() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
}

void MpvVideoRenderer::run() {
    SDL_GL_MakeCurrent(window_, static_cast<SDL_GLContext>(renderContext_));
    // Pictures presented from here are paced by mpv, never by a swap that blocks.
    SDL_GL_SetSwapInterval(0);
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] {
            if (stopping_ || !tasks_.empty()) return true;
            for (auto& weak : live_)
                if (auto e = weak.lock(); e && (e->updatePending || e->redraw)) return true;
            return false;
        });
        if (!tasks_.empty()) {
            auto task = std::move(tasks_.front());
            tasks_.pop_front();
            lock.unlock();
            task();
            lock.lock();
            continue;
        }
        if (stopping_) break;
        std::erase_if(live_, [](const std::weak_ptr<Entry>& w) { return w.expired(); });
        auto live = live_;
        lock.unlock();
        for (auto& weak : live)
            if (auto e = weak.lock()) renderPending(*e);
        lock.lock();
    }
    lock.unlock();
    SDL_GL_MakeCurrent(window_, nullptr);
}

bool MpvVideoRenderer::post(std::function<void()> task) {
    {
        std::lock_guard lock(mutex_);
        if (stopping_) return false;
        tasks_.push_back(std::move(task));
    }
    wake_.notify_all();
    return true;
}

void MpvVideoRenderer::onRenderThread(std::function<void()> task) {
    std::promise<void> done;
    auto finished = done.get_future();
    {
        std::lock_guard lock(mutex_);
        if (stopping_ && !thread_.joinable()) return;  // nothing would run it
        tasks_.push_back([&] {
            task();
            done.set_value();
        });
    }
    wake_.notify_all();
    finished.wait();
}

// Render thread. mpv asked for attention (or the frame size changed): let it
// update, and draw a new picture into a slot the window is not drawing from.
void MpvVideoRenderer::renderPending(Entry& e) {
    int width, height, slotIndex = -1;
    bool redraw, direct;
    {
        std::lock_guard lock(mutex_);
        direct = direct_ == &e;
        e.updatePending = false;
        redraw = e.redraw;
        e.redraw = false;
        width = e.targetWidth;
        height = e.targetHeight;
    }
    if (!e.context) return;
    uint64_t flags = mpv_render_context_update(e.context);
    if (!(flags & MPV_RENDER_UPDATE_FRAME) && !redraw) return;
    if (width <= 0 || height <= 0) return;
    if (direct) {
        presentDirectly(e, width, height);
        return;
    }
    {
        std::lock_guard lock(mutex_);
        for (int i = 0; i < kSlots; ++i)
            if (i != e.latest && i != e.inUse) {
                slotIndex = i;
                break;
            }
    }
    Slot& s = e.slots[slotIndex];
    if (!s.texture || s.width != width || s.height != height) {
        if (!s.texture) glGenTextures(1, &s.texture);
        if (!s.framebuffer) glGenFramebuffers(1, &s.framebuffer);
        glBindTexture(GL_TEXTURE_2D, s.texture);
        glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, width, height, 0, GL_RGBA, GL_UNSIGNED_BYTE,
                     nullptr);
        setPictureSampling(s.texture);
        glBindFramebuffer(GL_FRAMEBUFFER, s.framebuffer);
        glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, s.texture, 0);
        s.width = width;
        s.height = height;
    }
    mpv_opengl_fbo fbo{static_cast<int>(s.framebuffer), width, height, 0};
    int flip = 0;  // sampled top row first, as the overlay expects
    mpv_render_param params[] = {
        {MPV_RENDER_PARAM_OPENGL_FBO, &fbo},
        {MPV_RENDER_PARAM_FLIP_Y, &flip},
        {MPV_RENDER_PARAM_INVALID, nullptr},
    };
    mpv_render_context_render(e.context, params);
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    // The window's context samples this texture next: it must be complete.
    glFinish();
    {
        std::lock_guard lock(mutex_);
        e.latest = slotIndex;
        ++picturesRendered_;
    }
    if (onNewFrame_) queue_->async(onNewFrame_);
}

void MpvVideoRenderer::presentDirectly(Entry& e, int width, int height) {
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    mpv_opengl_fbo fbo{0, width, height, 0};
    int flip = 1;  // the window's rows run bottom-up
    mpv_render_param params[] = {
        {MPV_RENDER_PARAM_OPENGL_FBO, &fbo},
        {MPV_RENDER_PARAM_FLIP_Y, &flip},
        {MPV_RENDER_PARAM_INVALID, nullptr},
    };
    mpv_render_context_render(e.context, params);
    SDL_GL_SwapWindow(window_);
    std::lock_guard lock(mutex_);
    ++picturesShownDirectly_;
}

bool MpvVideoRenderer::showDirectly(TextureHandle picture) {
    bool found = false;
    {
        std::lock_guard lock(mutex_);
        for (auto& [key, e] : entries_) {
            if (e->inUse < 0 || static_cast<TextureHandle>(e->slots[e->inUse].texture) != picture)
                continue;
            found = true;
            if (direct_ != e.get()) {
                direct_ = e.get();
                // The window still shows the frame composed before: replace it now,
                // also while paused.
                e->redraw = true;
            }
        }
    }
    if (found) wake_.notify_all();
    return found;
}

void MpvVideoRenderer::takeBackWindow() {
    Entry* entry = nullptr;
    {
        std::lock_guard lock(mutex_);
        entry = std::exchange(direct_, nullptr);
        if (entry) entry->redraw = true;
    }
    if (entry) renderPending(*entry);
}

void MpvVideoRenderer::endDirect(std::function<void()> done) {
    if (!done) {
        onRenderThread([this] { takeBackWindow(); });
        return;
    }
    auto finish = [queue = queue_, done = std::move(done)] { queue->async(done); };
    if (!post([this, finish] {
            takeBackWindow();
            finish();
        }))
        finish();
}

uint64_t MpvVideoRenderer::picturesShownDirectly() const {
    std::lock_guard lock(mutex_);
    return picturesShownDirectly_;
}

void MpvVideoRenderer::attach(const std::shared_ptr<MediaPlayer>& player,
                              std::function<void(bool)> done) {
    auto* mpv = dynamic_cast<MpvMediaPlayer*>(player.get());
    if (!mpv || !mpv->handle()) {
        done(false);
        return;
    }
    if (entries_.count(player.get())) forget(player.get());
    auto entry = std::make_shared<Entry>();
    entry->player = mpv;
    entries_[player.get()] = entry;  // released in order after the creation below
    mpv->setBeforeDestroy([weak = weak_from_this(), key = player.get()] {
        if (auto self = weak.lock()) self->forget(key);
    });
    mpv_handle* handle = mpv->handle();
    auto finish = [queue = queue_, entry, done = std::move(done)](bool created) {
        queue->async([entry, done, created] {
            entry->attached = created && !entry->detached;
            done(entry->attached);
        });
    };
    const bool posted = post([this, entry, handle, finish] {
        mpv_opengl_init_params gl{procAddress, nullptr};
        mpv_render_param params[] = {
            {MPV_RENDER_PARAM_API_TYPE, const_cast<char*>(MPV_RENDER_API_TYPE_OPENGL)},
            {MPV_RENDER_PARAM_OPENGL_INIT_PARAMS, &gl},
            {MPV_RENDER_PARAM_INVALID, nullptr},
        };
        if (mpv_render_context_create(&entry->context, handle, params) < 0) {
            entry->context = nullptr;
            finish(false);
            return;
        }
        // Called from mpv's threads: only flag the work and wake the render thread.
        // The entry outlives the registration: release() clears it first.
        entry->owner = this;
        mpv_render_context_set_update_callback(
            entry->context,
            [](void* data) {
                auto* e = static_cast<Entry*>(data);
                {
                    std::lock_guard lock(e->owner->mutex_);
                    e->updatePending = true;
                }
                e->owner->wake_.notify_all();
            },
            entry.get());
        {
            std::lock_guard lock(mutex_);
            live_.push_back(entry);
        }
        finish(true);
    });
    if (!posted) finish(false);
}

bool MpvVideoRenderer::release(const std::shared_ptr<Entry>& entry) {
    entry->detached = true;
    // mpv's output waits up to 0.2 s for each picture it handed over to be rendered,
    // and a context freed under it waits those out: 0.2-0.6 s of a cleanup. Closed
    // first, while this renderer still renders what it hands over, the output lets
    // go at once.
    bool rendering = false;
    {
        std::lock_guard lock(mutex_);
        rendering = !stopping_;
    }
    const bool closing = rendering && entry->attached;
    {
        // A picture being presented finishes before the task below runs.
        std::lock_guard lock(mutex_);
        if (direct_ == entry.get()) direct_ = nullptr;
    }
    if (closing) entry->player->closeVideoOutput();
    onRenderThread([&] {
        if (entry->context) {
            mpv_render_context_set_update_callback(entry->context, nullptr, nullptr);
            mpv_render_context_free(entry->context);
            entry->context = nullptr;
        }
        for (auto& s : entry->slots) {
            if (s.framebuffer) glDeleteFramebuffers(1, &s.framebuffer);
            if (s.texture) glDeleteTextures(1, &s.texture);
            s = Slot{};
        }
        std::lock_guard lock(mutex_);
        std::erase_if(live_, [&](const std::weak_ptr<Entry>& w) { return w.lock() == entry; });
    });
    return closing;
}

void MpvVideoRenderer::forget(MediaPlayer* player) {
    auto it = entries_.find(player);
    if (it == entries_.end()) return;
    auto entry = it->second;
    entries_.erase(it);
    release(entry);
}

void MpvVideoRenderer::detachAll() {
    auto entries = std::move(entries_);
    entries_.clear();
    for (auto& [key, entry] : entries) {
        const bool closed = release(entry);
        entry->player->setBeforeDestroy(nullptr);
        if (!closed) entry->player->setVideoOutput("null");
    }
}

std::optional<VideoTexture> MpvVideoRenderer::frameFor(const std::shared_ptr<MediaPlayer>& player,
                                                       int pixelWidth, int pixelHeight, bool fill) {
    auto it = entries_.find(player.get());
    if (it == entries_.end() || !it->second->attached) return std::nullopt;
    Entry& e = *it->second;
    if (fill != e.fill) {
        // Safe here: this is not the render thread.
        if (auto* mpv = dynamic_cast<MpvMediaPlayer*>(player.get()))
            mpv_set_property_string(mpv->handle(), "panscan", fill ? "1.0" : "0.0");
        e.fill = fill;
    }
    std::optional<VideoTexture> out;
    bool wake = false;
    {
        std::lock_guard lock(mutex_);
        if (pixelWidth != e.targetWidth || pixelHeight != e.targetHeight) {
            e.targetWidth = pixelWidth;
            e.targetHeight = pixelHeight;
            e.redraw = wake = true;
        }
        if (e.latest >= 0) {
            const Slot& s = e.slots[e.latest];
            e.inUse = e.latest;
            out = VideoTexture{static_cast<TextureHandle>(s.texture), s.width, s.height};
        }
    }
    if (wake) wake_.notify_all();
    return out;
}

bool MpvVideoRenderer::isPictureInUse(TextureHandle texture) const {
    std::lock_guard lock(mutex_);
    for (const auto& [key, e] : entries_)
        if (e->inUse >= 0 && static_cast<TextureHandle>(e->slots[e->inUse].texture) == texture)
            return true;
    return false;
}

uint64_t MpvVideoRenderer::picturesRendered() const {
    std::lock_guard lock(mutex_);
    return picturesRendered_;
}

void MpvVideoRenderer::setPictureSampling(unsigned texture) {
    glBindTexture(GL_TEXTURE_2D, texture);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
}

void MpvVideoRenderer::endFrame() {
    std::lock_guard lock(mutex_);
    for (auto& [key, entry] : entries_) entry->inUse = -1;
}

}  // namespace kavelin
