#include "Kavelin/Platform/Linux/WindowPresenter.h"

#define GL_GLEXT_PROTOTYPES 1
#include <GL/gl.h>
#include <SDL.h>
#include <backends/imgui_impl_opengl3.h>
#include <backends/imgui_impl_sdl.h>
#include <imgui.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string_view>
#include <utility>
#include <vector>

#include "Kavelin/Extentions/Color+Ext.h"
#include "Kavelin/Extentions/ViewUtilities.h"
#include "Kavelin/Platform/Linux/MpvMediaPlayer.h"
#include "Kavelin/Platform/Linux/MpvVideoRenderer.h"
#include "Kavelin/Platform/Linux/WindowPresenterParts.h"
#include "Kavelin/Platform/Platform.h"

// Presenting: the fade in and out, and drawing frames when something changed.

namespace kavelin {

namespace {

class RenderingPlayerFactory final : public MediaPlayerFactory {
  public:
    RenderingPlayerFactory(std::shared_ptr<MediaPlayerFactory> inner,
                           std::function<void(const std::shared_ptr<MediaPlayer>&)> attach)
        : inner_(std::move(inner)), attach_(std::move(attach)) {}
    std::shared_ptr<MediaPlayer> makePlayer() override {
        auto player = inner_->makePlayer();
        if (player) attach_(player);
        return player;
    }
    void finishBackgroundWork() override { inner_->finishBackgroundWork(); }

  private:
    std::shared_ptr<MediaPlayerFactory> inner_;
    std::function<void(const std::shared_ptr<MediaPlayer>&)> attach_;
};

}  // namespace

WindowPresenter::WindowPresenter(std::shared_ptr<ThreadMainQueue> queue,
                                 std::shared_ptr<ScreenViews> views)
    : queue_(std::move(queue)), views_(std::move(views)) {}

WindowPresenter::~WindowPresenter() {
    waitForOpening();
    if (!window_) return;
    if (queue_->isCurrent())
        destroyWindow();
    else
        queue_->sync([this] { destroyWindow(); });
}

void drawPicturesOpaque(ImDrawData* data, const std::function<bool(TextureHandle)>& isPicture) {
    for (int n = 0; n < data->CmdListsCount; ++n) {
        ImVector<ImDrawCmd>& commands = data->CmdLists[n]->CmdBuffer;
        for (int i = 0; i < commands.Size; ++i) {
            ImDrawCmd& command = commands[i];
            if (command.UserCallback ||
                !isPicture(reinterpret_cast<TextureHandle>(command.GetTexID())))
                continue;
            ImDrawCmd opaque = command, restore = command;
            opaque.ElemCount = restore.ElemCount = 0;
            opaque.UserCallback = [](const ImDrawList*, const ImDrawCmd*) { glDisable(GL_BLEND); };
            restore.UserCallback = ImDrawCallback_ResetRenderState;
            commands.insert(commands.Data + i + 1, restore);
            commands.insert(commands.Data + i, opaque);
            i += 2;
        }
    }
}

std::optional<TextureHandle> windowFillingPicture(
    const ImDrawData* data, const std::function<bool(TextureHandle)>& isPicture) {
    std::optional<TextureHandle> picture;
    const ImVec2 size = data->DisplaySize;
    for (int n = 0; n < data->CmdListsCount; ++n) {
        const ImDrawList* list = data->CmdLists[n];
        for (const ImDrawCmd& c : list->CmdBuffer) {
            if (c.UserCallback || c.ElemCount == 0) continue;
            const auto texture = reinterpret_cast<TextureHandle>(c.GetTexID());
            if (picture || !isPicture(texture) || c.ClipRect.x > 0 || c.ClipRect.y > 0 ||
                c.ClipRect.z < size.x || c.ClipRect.w < size.y)
                return std::nullopt;
            ImVec2 low = size, high{0, 0};
            for (unsigned i = 0; i < c.ElemCount; ++i) {
                const ImDrawVert& v =
                    list->VtxBuffer[list->IdxBuffer[c.IdxOffset + i] + c.VtxOffset];
                if (v.col != IM_COL32_WHITE) return std::nullopt;
                low = {std::min(low.x, v.pos.x), std::min(low.y, v.pos.y)};
                high = {std::max(high.x, v.pos.x), std::max(high.y, v.pos.y)};
            }
            if (low.x > 0 || low.y > 0 || high.x < size.x || high.y < size.y) return std::nullopt;
            picture = texture;
        }
    }
    return picture;
}

namespace {

// Textures stand for their content: images never change, and a video picture's
// slot is reused, so the caller mixes in how many pictures were rendered.
uint64_t fingerprintOf(const ImDrawData* data, uint64_t pictures) {
    uint64_t hash = 0;
    auto mix = [&](const void* bytes, size_t size) {
        const uint64_t h = std::hash<std::string_view>{}({static_cast<const char*>(bytes), size});
        hash ^= h + 0x9e3779b97f4a7c15ull + (hash << 6) + (hash >> 2);
    };
    mix(&pictures, sizeof pictures);
    mix(&data->DisplaySize, sizeof data->DisplaySize);
    for (int n = 0; n < data->CmdListsCount; ++n) {
        const ImDrawList* list = data->CmdLists[n];
        mix(list->VtxBuffer.Data, static_cast<size_t>(list->VtxBuffer.size_in_bytes()));
        mix(list->IdxBuffer.Data, static_cast<size_t>(list->IdxBuffer.size_in_bytes()));
        for (const ImDrawCmd& c : list->CmdBuffer) {
            const ImTextureID texture = c.GetTexID();
            mix(&c.ClipRect, sizeof c.ClipRect);
            mix(&texture, sizeof texture);
            mix(&c.VtxOffset, sizeof c.VtxOffset);
            mix(&c.IdxOffset, sizeof c.IdxOffset);
            mix(&c.ElemCount, sizeof c.ElemCount);
        }
    }
    return hash == 0 ? 1 : hash;  // 0 stands for nothing shown
}

}  // namespace

void WindowPresenter::acquireGl() {
    if (swapper_) swapper_->waitIdle();
    if (glCurrent_ || !window_) return;
    SDL_GL_MakeCurrent(window_, glContext_);
    glCurrent_ = true;
}

void WindowPresenter::swapFinished() {
    // The swap may have read input off the display on its way: it would wait for
    // the fallback poll.
    pump();
    if (frameAfterSwap_) {
        frameAfterSwap_ = false;
        if (window_ && dirty_ && shown_) scheduleFrame();
    }
    updatePolling();
}

std::shared_ptr<MediaPlayerFactory> WindowPresenter::wrapFactory(
    std::shared_ptr<MediaPlayerFactory> inner) {
    std::weak_ptr<WindowPresenter> weak = weak_from_this();
    return std::make_shared<RenderingPlayerFactory>(
        std::move(inner), [weak](const std::shared_ptr<MediaPlayer>& player) {
            auto* mpv = dynamic_cast<MpvMediaPlayer*>(player.get());
            if (auto self = weak.lock()) self->ensureWindow();
            if (!mpv) return;
            // The render context needs mpv itself, which starts in the background;
            // it is attached before the first item opens.
            mpv->whenStarted([weak, weakPlayer = std::weak_ptr<MediaPlayer>(player), mpv] {
                auto self = weak.lock();
                auto player = weakPlayer.lock();
                if (!player) return;
                if (self && self->window_ && self->renderer_) {
                    mpv->holdRequests();
                    self->renderer_->attach(player, [weakPlayer, mpv](bool attached) {
                        auto player = weakPlayer.lock();
                        if (!player) return;
                        if (!attached) mpv->setVideoOutput("null");
                        mpv->releaseRequests();
                    });
                    return;
                }
                // No picture can be shown yet (or ever): let mpv decode without a
                // video output; a window that finishes opening attaches it then.
                mpv->setVideoOutput("null");
                if (self && !self->window_ && !self->windowFailed_)
                    self->pendingPlayers_.push_back(player);
            });
        });
}

std::shared_ptr<HostingController> WindowPresenter::makeHostingController(
    const std::shared_ptr<PlayerController>& player,
    const std::shared_ptr<PlaylistController>& playlist) {
    std::weak_ptr<WindowPresenter> weak = weak_from_this();
    return views_->makeScreen(player, playlist, [weak] {
        if (auto self = weak.lock()) self->setNeedsDisplay();
    });
}

bool WindowPresenter::hasTopMostViewController() const {
    // Without a window (still opening, or the display went away) presenting still
    // completes after the fade, so the host hears the same events as with one.
    const_cast<WindowPresenter*>(this)->ensureWindow();
    return true;
}

float WindowPresenter::fadeValue(double now) const {
    double t = (now - fadeStart_) / kPresentationFadeSeconds;
    if (t >= 1) return fadeTo_;
    if (t <= 0) return fadeFrom_;
    return fadeFrom_ + (fadeTo_ - fadeFrom_) * easeInOut(static_cast<float>(t));
}

void WindowPresenter::present(const std::shared_ptr<HostingController>& screen, bool animated,
                              std::function<void()> completion) {
    ++presentations_;
    screen_ = screen;
    double duration = animated ? kPresentationFadeSeconds : 0;
    if (ensureWindow())
        showWindow(animated);
    else
        pendingShow_ = !windowFailed_;
    queue_->asyncAfter(duration, [completion = std::move(completion)] {
        if (completion) completion();
    });
}

void WindowPresenter::showWindow(bool animated) {
    int w = 0, h = 0;
    SDL_GetWindowSize(window_, &w, &h);
    if (screen_) screen_->sizeChanged(w, h);
    SDL_ShowWindow(window_);
    SDL_RaiseWindow(window_);
    shown_ = true;
    shownFingerprint_ = 0;
    fadeFrom_ = fadeValue(queue_->now());
    fadeTo_ = 1;
    fadeStart_ = queue_->now() - (animated ? 0 : kPresentationFadeSeconds);
    setNeedsDisplay();
    updatePolling();
}

void WindowPresenter::dismiss(const std::shared_ptr<HostingController>& screen, bool animated,
                              std::function<void()> completion) {
    double duration = animated ? kPresentationFadeSeconds : 0;
    if (window_ && shown_) {
        fadeFrom_ = fadeValue(queue_->now());
        fadeTo_ = 0;
        fadeStart_ = queue_->now() - (animated ? 0 : kPresentationFadeSeconds);
        setNeedsDisplay();
    }
    std::weak_ptr<WindowPresenter> weak = weak_from_this();
    const uint64_t presentation = presentations_;
    queue_->asyncAfter(duration, [weak, screen, presentation, completion = std::move(completion)] {
        if (auto self = weak.lock()) {
            // A presentation that came in meanwhile keeps the window up.
            if (self->presentations_ == presentation) {
                self->pendingShow_ = false;
                if (self->window_) SDL_HideWindow(self->window_);
                self->endDirectVideo();
                self->shown_ = false;
                if (self->screen_ == screen) self->screen_.reset();
                self->updatePolling();
            }
        }
        if (completion) completion();
    });
}

void WindowPresenter::setNeedsDisplay() {
    dirty_ = true;
    if (window_ && shown_) scheduleFrame();
}

void WindowPresenter::scheduleFrame() {
    if (frameScheduled_) return;
    frameScheduled_ = true;
    double wait = lastFrame_ < 0 ? 0 : lastFrame_ + activeFrameInterval - queue_->now();
    std::weak_ptr<WindowPresenter> weak = weak_from_this();
    queue_->asyncAfter(std::max(0.0, wait), [weak] {
        auto self = weak.lock();
        if (!self) return;
        self->frameScheduled_ = false;
        if (self->dirty_ && self->shown_) self->renderFrame();
    });
}

void WindowPresenter::waitUntilPresented() {
    if (swapper_) swapper_->waitIdle();
}

void WindowPresenter::renderNow() {
    if (!window_) return;
    waitUntilPresented();
    renderFrame();
}

uint64_t WindowPresenter::picturesShownDirectly() const {
    return renderer_ ? renderer_->picturesShownDirectly() : 0;
}

bool WindowPresenter::videoPresentsWindow(const ImDrawData* data) {
    if (direct_ == Direct::leaving) {
        dirty_ = true;  // drawn once the video has handed the window back
        return true;
    }
    const auto picture = windowFillingPicture(
        data, [this](TextureHandle t) { return renderer_->isPictureInUse(t); });
    if (picture && renderer_->showDirectly(*picture)) {
        direct_ = Direct::on;
        shownFingerprint_ = 0;  // the window no longer shows what was drawn here
        return true;
    }
    if (direct_ == Direct::off) return false;
    endDirectVideo();
    dirty_ = true;
    return true;
}

void WindowPresenter::endDirectVideo() {
    if (direct_ != Direct::on || !renderer_) return;
    direct_ = Direct::leaving;
    std::weak_ptr<WindowPresenter> weak = weak_from_this();
    renderer_->endDirect([weak] {
        auto self = weak.lock();
        if (!self || self->direct_ != Direct::leaving) return;
        self->direct_ = Direct::off;
        self->setNeedsDisplay();
    });
}

size_t WindowPresenter::attachedPlayers() const {
    return renderer_ ? renderer_->attachedCount() : 0;
}

WindowPresenter::Capture WindowPresenter::capture() {
    Capture out;
    if (window_) renderFrame(&out);
    return out;
}

void WindowPresenter::renderFrame(Capture* capture) {
    if (!capture && swapper_ && swapper_->isBusy()) {
        frameAfterSwap_ = true;  // drawn when the frame before it is out
        return;
    }
    dirty_ = false;
    ImGui::SetCurrentContext(static_cast<ImGuiContext*>(imgui_));
    acquireGl();
    if (capture && direct_ != Direct::off) {
        renderer_->endDirect(nullptr);
        direct_ = Direct::off;
    }

    ImGui_ImplOpenGL3_NewFrame();
    ImGui_ImplSDL2_NewFrame();
    ImGui::NewFrame();
    const double now = queue_->now();
    ImGuiIO& io = ImGui::GetIO();
    bool animating = false;
    if (screen_) {
        auto screen = screen_;  // an action of this frame may dismiss it
        animating = screen->drawFrame(now, io.DisplaySize.x, io.DisplaySize.y);
    }
    float fade = fadeValue(now);
    if (fade < 1)
        RoundedCorner{}.fill(ImGui::GetBackgroundDrawList(),
                             Rect{0, 0, io.DisplaySize.x, io.DisplaySize.y},
                             Color::black(1 - fade));
    ImGui::Render();
    ImDrawData* drawData = ImGui::GetDrawData();
    if (renderer_ && !capture && videoPresentsWindow(drawData)) {
        renderer_->endFrame();
        finishFrame(now, animating);
        return;
    }
    if (renderer_) {
        drawPicturesOpaque(drawData,
                           [this](TextureHandle t) { return renderer_->isPictureInUse(t); });
    }
    // Under software GL drawing and presenting cost far more than recording: a frame
    // that would put the same pixels on screen again is not drawn. The time and seek
    // bar ticking behind hidden controls would otherwise double the drawing of a
    // playing video.
    const uint64_t fingerprint =
        fingerprintOf(drawData, renderer_ ? renderer_->picturesRendered() : 0);
    if (!capture && fingerprint == shownFingerprint_) {
        if (renderer_) renderer_->endFrame();
        finishFrame(now, animating);
        return;
    }
    shownFingerprint_ = capture ? 0 : fingerprint;

    int fbw = 0, fbh = 0;
    SDL_GL_GetDrawableSize(window_, &fbw, &fbh);
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    glViewport(0, 0, fbw, fbh);
    glClearColor(0, 0, 0, 1);
    glClear(GL_COLOR_BUFFER_BIT);
    // Faded all the way out the frame is black, and its drawing would cost tens of
    // milliseconds under software GL: the window's first frame is such a one.
    if (fade > 0.5f / 255) ImGui_ImplOpenGL3_RenderDrawData(drawData);
    if (capture) {
        capture->width = fbw;
        capture->height = fbh;
        std::vector<uint8_t> flipped(static_cast<size_t>(fbw) * fbh * 4);
        glPixelStorei(GL_PACK_ALIGNMENT, 1);
        glReadPixels(0, 0, fbw, fbh, GL_RGBA, GL_UNSIGNED_BYTE, flipped.data());
        capture->rgba.resize(flipped.size());
        const size_t row = static_cast<size_t>(fbw) * 4;
        for (int y = 0; y < fbh; ++y)
            std::memcpy(capture->rgba.data() + row * y, flipped.data() + row * (fbh - 1 - y), row);
    }
    if (capture || !swapper_) {
        SDL_GL_SwapWindow(window_);
        if (renderer_) renderer_->endFrame();
    } else {
        SDL_GL_MakeCurrent(window_, nullptr);
        glCurrent_ = false;
        std::weak_ptr<WindowPresenter> weak = weak_from_this();
        swapper_->present(
            [renderer = renderer_] {
                if (renderer) renderer->endFrame();
            },
            [queue = queue_, weak] {
                queue->async([weak] {
                    if (auto self = weak.lock()) self->swapFinished();
                });
            });
    }
    if (!exitHookRearmed_) {
        // The first frame's drawing may start more of the GL stack (and the image
        // fetching's TLS), whose exit handlers ours must run before.
        exitHookRearmed_ = true;
        Platform::rearmExitHook();
    }
    ++frames_;
    finishFrame(now, animating);
}

void WindowPresenter::finishFrame(double now, bool animating) {
    lastFrame_ = now;

    bool fading = now < fadeStart_ + kPresentationFadeSeconds;
    bool more = animating || fading || extraFrames_ > 0;
    if (extraFrames_ > 0) --extraFrames_;
    if (more) {
        dirty_ = true;
        scheduleFrame();
    }
    updatePolling();
}

}  // namespace kavelin
