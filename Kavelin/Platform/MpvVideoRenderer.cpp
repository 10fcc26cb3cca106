#include "Kavelin/Platform/MpvVideoRenderer.h"

#define GL_GLEXT_PROTOTYPES 1
#include <GL/gl.h>
#include <GL/glext.h>
#include <SDL.h>
#include <mpv/client.h>
#include <mpv/render_gl.h>

#include "Kavelin/Platform/MpvMediaPlayer.h"

namespace kavelin {

namespace {
void* procAddress(void*, const char* name) {
    return SDL_GL_GetProcAddress(name);
}

struct UpdateTarget {
    std::shared_ptr<MainQueue> queue;
    std::weak_ptr<bool> alive;
    std::function<void()> onNewFrame;
};
}  // namespace

MpvVideoRenderer::MpvVideoRenderer(std::shared_ptr<MainQueue> queue,
                                   std::function<void()> onNewFrame)
    : queue_(std::move(queue)), onNewFrame_(std::move(onNewFrame)) {}

MpvVideoRenderer::~MpvVideoRenderer() {
    detachAll();
}

bool MpvVideoRenderer::attach(const std::shared_ptr<MediaPlayer>& player) {
    collect();
    auto* mpv = dynamic_cast<MpvMediaPlayer*>(player.get());
    if (!mpv || !mpv->handle()) return false;
    mpv_opengl_init_params gl{procAddress, nullptr};
    mpv_render_param params[] = {
        {MPV_RENDER_PARAM_API_TYPE, const_cast<char*>(MPV_RENDER_API_TYPE_OPENGL)},
        {MPV_RENDER_PARAM_OPENGL_INIT_PARAMS, &gl},
        {MPV_RENDER_PARAM_INVALID, nullptr},
    };
    Entry entry;
    if (mpv_render_context_create(&entry.context, mpv->handle(), params) < 0) {
        // Without a context mpv cannot open its video output; decode without one.
        mpv->setVideoOutput("null");
        return false;
    }
    entry.player = player;
    // mpv calls this from its own threads: only hop onto the main queue.
    auto* target = new UpdateTarget{queue_, {}, onNewFrame_};
    // The target must outlive every callback: it is freed with the context.
    entry.alive = std::shared_ptr<bool>(new bool(true), [target](bool* b) {
        delete b;
        delete target;
    });
    target->alive = entry.alive;
    mpv_render_context_set_update_callback(
        entry.context,
        [](void* data) {
            auto* t = static_cast<UpdateTarget*>(data);
            std::weak_ptr<bool> alive = t->alive;
            auto fn = t->onNewFrame;
            t->queue->async([alive, fn] {
                if (alive.lock() && fn) fn();
            });
        },
        target);
    entries_[player.get()] = std::move(entry);
    return true;
}

void MpvVideoRenderer::release(Entry& e) {
    if (e.context) {
        mpv_render_context_set_update_callback(e.context, nullptr, nullptr);
        mpv_render_context_free(e.context);
        e.context = nullptr;
    }
    if (e.framebuffer) glDeleteFramebuffers(1, &e.framebuffer);
    if (e.texture) glDeleteTextures(1, &e.texture);
    e.framebuffer = e.texture = 0;
    e.alive.reset();
}

void MpvVideoRenderer::collect() {
    for (auto it = entries_.begin(); it != entries_.end();) {
        if (it->second.player.use_count() == 1) {
            release(it->second);
            it = entries_.erase(it);  // the player (and mpv) goes after its context
        } else {
            ++it;
        }
    }
}

void MpvVideoRenderer::detachAll() {
    for (auto& [key, entry] : entries_) {
        release(entry);
        if (auto* mpv = dynamic_cast<MpvMediaPlayer*>(entry.player.get()))
            mpv->setVideoOutput("null");
    }
    entries_.clear();
}

std::optional<VideoTexture> MpvVideoRenderer::frameFor(const std::shared_ptr<MediaPlayer>& player) {
    auto it = entries_.find(player.get());
    if (it == entries_.end() || !it->second.context) return std::nullopt;
    Entry& e = it->second;
    uint64_t flags = mpv_render_context_update(e.context);
    if (flags & MPV_RENDER_UPDATE_FRAME) {
        auto* mpv = dynamic_cast<MpvMediaPlayer*>(player.get());
        int64_t w = 0, h = 0;
        mpv_get_property(mpv->handle(), "dwidth", MPV_FORMAT_INT64, &w);
        mpv_get_property(mpv->handle(), "dheight", MPV_FORMAT_INT64, &h);
        if (w > 0 && h > 0) {
            if (!e.texture || w != e.width || h != e.height) {
                if (!e.texture) glGenTextures(1, &e.texture);
                if (!e.framebuffer) glGenFramebuffers(1, &e.framebuffer);
                glBindTexture(GL_TEXTURE_2D, e.texture);
                glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, static_cast<GLsizei>(w),
                             static_cast<GLsizei>(h), 0, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
                glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
                glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
                glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
                glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
                glBindFramebuffer(GL_FRAMEBUFFER, e.framebuffer);
                glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D,
                                       e.texture, 0);
                glBindFramebuffer(GL_FRAMEBUFFER, 0);
                e.width = static_cast<int>(w);
                e.height = static_cast<int>(h);
            }
            mpv_opengl_fbo fbo{static_cast<int>(e.framebuffer), e.width, e.height, 0};
            // The texture is sampled top row first, as ImGui expects.
            int flip = 0;
            mpv_render_param params[] = {
                {MPV_RENDER_PARAM_OPENGL_FBO, &fbo},
                {MPV_RENDER_PARAM_FLIP_Y, &flip},
                {MPV_RENDER_PARAM_INVALID, nullptr},
            };
            mpv_render_context_render(e.context, params);
            glBindFramebuffer(GL_FRAMEBUFFER, 0);
            e.hasFrame = true;
        }
    }
    if (!e.hasFrame) return std::nullopt;
    return VideoTexture{reinterpret_cast<ImTextureID>(static_cast<intptr_t>(e.texture)), e.width,
                        e.height};
}

}  // namespace kavelin
