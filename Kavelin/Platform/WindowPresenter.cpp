#include "Kavelin/Platform/WindowPresenter.h"

#define GL_GLEXT_PROTOTYPES 1
#include <GL/gl.h>
#include <SDL.h>
#include <backends/imgui_impl_opengl3.h>
#include <backends/imgui_impl_sdl.h>
#include <imgui.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <utility>

#include "Kavelin/Extentions/Color+Ext.h"
#include "Kavelin/Platform/Environment.h"
#include "Kavelin/Platform/MpvMediaPlayer.h"
#include "Kavelin/Platform/MpvVideoRenderer.h"
#include "Kavelin/Platform/Platform.h"
#include "Kavelin/PlayerController.h"
#include "Kavelin/log/VPLogger.h"
#include "Kavelin/views/Frame.h"
#include "Kavelin/views/VideoPlayerView.h"

namespace kavelin {

// The presented screen: the view tree and what keeps it up to date.
class ScreenHostingController final : public HostingController {
  public:
    ScreenHostingController(const std::shared_ptr<PlayerController>& player,
                            const std::shared_ptr<PlaylistController>& playlist)
        : player(player), view(player, orientation, playlist) {}

    std::shared_ptr<OrientationObserver> orientation = std::make_shared<OrientationObserver>();
    std::shared_ptr<PlayerController> player;
    VideoPlayerView view;
    std::vector<ObservableObject::Subscription> subscriptions;
};

namespace {

// exit() called from a host callback runs on the library thread, and that thread's
// thread_local destructors come before every exit handler: the render thread stops
// there, before the GL driver's own handlers tear the driver down under it. When
// the thread is parked the window is gone already and this does nothing.
struct StopDrawingAtThreadExit {
    std::weak_ptr<WindowPresenter> presenter;
    ~StopDrawingAtThreadExit() {
        if (auto p = presenter.lock()) p->stopBackgroundWork();
    }
};

void stopDrawingAtThreadExit(std::weak_ptr<WindowPresenter> presenter) {
    static thread_local StopDrawingAtThreadExit sentinel;
    sentinel.presenter = std::move(presenter);
}

bool windowSizeFromEnvironment(int& w, int& h) {
    const char* size = std::getenv("KAVELIN_WINDOW_SIZE");
    return size && std::sscanf(size, "%dx%d", &w, &h) == 2 && w > 0 && h > 0;
}

ImTextureID uploadTexture(const Image& image) {
    GLuint id = 0;
    glGenTextures(1, &id);
    glBindTexture(GL_TEXTURE_2D, id);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, image.width, image.height, 0, GL_RGBA,
                 GL_UNSIGNED_BYTE, image.rgba.data());
    return reinterpret_cast<ImTextureID>(static_cast<intptr_t>(id));
}

void releaseTexture(ImTextureID texture) {
    GLuint id = static_cast<GLuint>(reinterpret_cast<intptr_t>(texture));
    glDeleteTextures(1, &id);
}

// The window an event belongs to; 0 for those SDL cannot attribute (quit, devices,
// clipboard), which belong to the host.
Uint32 eventWindow(const SDL_Event& e) {
    switch (e.type) {
        case SDL_WINDOWEVENT:
            return e.window.windowID;
        case SDL_KEYDOWN:
        case SDL_KEYUP:
            return e.key.windowID;
        case SDL_TEXTEDITING:
            return e.edit.windowID;
        case SDL_TEXTINPUT:
            return e.text.windowID;
        case SDL_MOUSEMOTION:
            return e.motion.windowID;
        case SDL_MOUSEBUTTONDOWN:
        case SDL_MOUSEBUTTONUP:
            return e.button.windowID;
        case SDL_MOUSEWHEEL:
            return e.wheel.windowID;
        case SDL_FINGERDOWN:
        case SDL_FINGERUP:
        case SDL_FINGERMOTION:
            return e.tfinger.windowID;
        case SDL_DROPFILE:
        case SDL_DROPTEXT:
        case SDL_DROPBEGIN:
        case SDL_DROPCOMPLETE:
            return e.drop.windowID;
        default:
            return 0;
    }
}

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

// SDL's event queue is the process's: a host with its own SDL loop may drain it
// first. A watch sees every event as it is queued, on whichever thread pumps, and
// keeps a copy of ours; the queue itself then only loses our window's events.
struct WindowPresenter::Inbox {
    Uint32 window = 0;
    std::mutex mutex;
    std::vector<SDL_Event> events;

    static int watch(void* self, SDL_Event* event) {
        auto* inbox = static_cast<Inbox*>(self);
        if (eventWindow(*event) == inbox->window) {
            std::lock_guard lock(inbox->mutex);
            inbox->events.push_back(*event);
        }
        return 1;
    }
    static int notOurs(void* self, SDL_Event* event) {
        return eventWindow(*event) != static_cast<Inbox*>(self)->window;
    }
};

// Software GL rasterises a frame inside the swap: tens of milliseconds under Xvfb.
// The swap runs here with the context handed over, so a host call waits at most for
// the recording of a frame, never for its presentation.
struct WindowPresenter::Swapper {
    SDL_Window* window;
    void* context;
    std::mutex mutex;
    std::condition_variable changed;
    std::function<void()> presented;  // set while a frame is out
    bool busy = false, stop = false;
    std::thread thread;

    Swapper(SDL_Window* w, void* c) : window(w), context(c), thread([this] { loop(); }) {}
    ~Swapper() {
        {
            std::unique_lock lock(mutex);
            changed.wait(lock, [this] { return !busy; });
            stop = true;
        }
        changed.notify_all();
        thread.join();
    }
    void present(std::function<void()> then) {
        {
            std::lock_guard lock(mutex);
            presented = std::move(then);
            busy = true;
        }
        changed.notify_all();
    }
    bool isBusy() {
        std::lock_guard lock(mutex);
        return busy;
    }
    void waitIdle() {
        std::unique_lock lock(mutex);
        changed.wait(lock, [this] { return !busy; });
    }
    void loop() {
        std::unique_lock lock(mutex);
        for (;;) {
            changed.wait(lock, [this] { return busy || stop; });
            if (!busy) return;
            auto then = std::move(presented);
            lock.unlock();
            SDL_GL_MakeCurrent(window, context);
            SDL_GL_SwapWindow(window);
            SDL_GL_MakeCurrent(window, nullptr);
            if (then) then();
            lock.lock();
            busy = false;
            changed.notify_all();
        }
    }
};

// What the opening thread made: the window and both GL contexts, current nowhere,
// and the ImGui context with its font atlas built.
struct WindowPresenter::Opened {
    SDL_Window* window = nullptr;
    void* glContext = nullptr;
    void* renderGlContext = nullptr;
    ImGuiContext* imgui = nullptr;
    std::string error;
    bool videoInitialised = false;

    void destroy() {
        if (imgui) ImGui::DestroyContext(imgui);
        if (renderGlContext) SDL_GL_DeleteContext(renderGlContext);
        if (glContext) SDL_GL_DeleteContext(glContext);
        if (window) SDL_DestroyWindow(window);
        if (videoInitialised) SDL_QuitSubSystem(SDL_INIT_VIDEO);
        std::string reason = std::move(error);
        *this = Opened{};
        error = std::move(reason);
    }
};

WindowPresenter::WindowPresenter(std::shared_ptr<ThreadMainQueue> queue)
    : queue_(std::move(queue)) {}

WindowPresenter::~WindowPresenter() {
    waitForOpening();
    if (!window_) return;
    if (queue_->isCurrent())
        destroyWindow();
    else
        queue_->sync([this] { destroyWindow(); });
}

namespace {

// Connecting to the display, making GL contexts and rasterising the fonts take a
// few hundred milliseconds under software GL: that happens here, on a thread of its
// own, so neither the host's call nor the library's queue waits for it.
void openNativeWindow(WindowPresenter::Opened& o) {
    SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");  // the host owns the signals
    SDL_SetHint(SDL_HINT_VIDEO_X11_NET_WM_BYPASS_COMPOSITOR, "0");
    if (SDL_InitSubSystem(SDL_INIT_VIDEO) != 0) {
        o.error = std::string("⚠️ No window for the player: ") + SDL_GetError();
        return;
    }
    o.videoInitialised = true;
    int w = 0, h = 0;
    if (!windowSizeFromEnvironment(w, h)) {
        SDL_DisplayMode mode;
        if (SDL_GetDesktopDisplayMode(0, &mode) == 0) {
            w = mode.w;
            h = mode.h;
        } else {
            w = 1280;
            h = 720;
        }
    }
    SDL_GL_SetAttribute(SDL_GL_CONTEXT_MAJOR_VERSION, 3);
    SDL_GL_SetAttribute(SDL_GL_CONTEXT_MINOR_VERSION, 2);
    SDL_GL_SetAttribute(SDL_GL_CONTEXT_PROFILE_MASK, SDL_GL_CONTEXT_PROFILE_CORE);
    SDL_GL_SetAttribute(SDL_GL_DOUBLEBUFFER, 1);
    o.window = SDL_CreateWindow(
        "Kavelin", 0, 0, w, h,
        SDL_WINDOW_OPENGL | SDL_WINDOW_BORDERLESS | SDL_WINDOW_HIDDEN | SDL_WINDOW_ALLOW_HIGHDPI);
    if (!o.window) {
        o.error = std::string("⚠️ No window for the player: ") + SDL_GetError();
        o.destroy();
        return;
    }
    o.glContext = SDL_GL_CreateContext(o.window);
    if (!o.glContext) {
        o.error = std::string("⚠️ No OpenGL context for the player: ") + SDL_GetError();
        o.destroy();
        return;
    }
    // mpv draws on its own thread with a context that shares our textures.
    SDL_GL_SetAttribute(SDL_GL_SHARE_WITH_CURRENT_CONTEXT, 1);
    o.renderGlContext = SDL_GL_CreateContext(o.window);
    SDL_GL_SetAttribute(SDL_GL_SHARE_WITH_CURRENT_CONTEXT, 0);
    if (!o.renderGlContext)
        o.error = std::string("⚠️ No OpenGL context for video: ") + SDL_GetError();
    SDL_GL_MakeCurrent(o.window, nullptr);

    ImGuiContext* previous = ImGui::GetCurrentContext();
    o.imgui = ImGui::CreateContext();
    ImGui::SetCurrentContext(o.imgui);
    ImGuiIO& io = ImGui::GetIO();
    io.IniFilename = nullptr;
    io.LogFilename = nullptr;
    Font::install(io);
    io.Fonts->Build();
    ImGui::SetCurrentContext(previous);
}

}  // namespace

bool WindowPresenter::ensureWindow() {
    if (window_) return true;
    std::lock_guard lock(openerMutex_);
    if (windowFailed_ || opener_.joinable()) return false;
    std::weak_ptr<WindowPresenter> weak = weak_from_this();
    auto queue = queue_;
    opened_ = std::make_unique<Opened>();
    opener_ = std::thread([this, weak, queue] {
        openNativeWindow(*opened_);
        queue->async([weak] {
            if (auto self = weak.lock()) self->finishOpening();
        });
    });
    return false;
}

void WindowPresenter::finishOpening() {
    {
        std::lock_guard lock(openerMutex_);
        if (!opener_.joinable()) return;  // let go of by a cleanup meanwhile
        opener_.join();
    }
    Opened o = std::exchange(*opened_, Opened{});
    if (!o.window) {
        VPLogger::warning(o.error);
        windowFailed_ = true;
        pendingPlayers_.clear();
        return;
    }
    if (!o.renderGlContext) VPLogger::warning(o.error);
    window_ = o.window;
    glContext_ = o.glContext;
    renderGlContext_ = o.renderGlContext;
    imgui_ = o.imgui;
    inbox_ = std::make_unique<Inbox>();
    inbox_->window = SDL_GetWindowID(window_);
    SDL_AddEventWatch(&Inbox::watch, inbox_.get());
    SDL_GL_MakeCurrent(window_, glContext_);
    glCurrent_ = true;
    // Frames are paced by the queue, never by blocking in a swap.
    SDL_GL_SetSwapInterval(0);
    swapper_ = std::make_unique<Swapper>(window_, glContext_);
    ImGui::SetCurrentContext(static_cast<ImGuiContext*>(imgui_));
    ImGui_ImplSDL2_InitForOpenGL(window_, glContext_);
    ImGui_ImplOpenGL3_Init("#version 150");
    Textures::install(
        [this](const Image& image) {
            acquireGl();
            return uploadTexture(image);
        },
        [this](ImTextureID texture) {
            acquireGl();
            releaseTexture(texture);
        });

    std::weak_ptr<WindowPresenter> weak = weak_from_this();
    auto invalidate = [weak] {
        if (auto self = weak.lock()) self->setNeedsDisplay();
    };
    if (renderGlContext_) {
        renderer_ =
            std::make_shared<MpvVideoRenderer>(queue_, window_, renderGlContext_, invalidate);
        stopDrawingAtThreadExit(weak_from_this());
    }
    VideoRenderer::install(renderer_);
    Display::install(invalidate);
    updatePolling();
    Platform::rearmExitHook();
    exitHookRearmed_ = false;  // the first frame initialises more of the GL stack

    // Players made while the window was opening decode without a picture until now;
    // switching their output back brings the picture of the item already playing.
    for (auto& weakPlayer : std::exchange(pendingPlayers_, {})) {
        auto player = weakPlayer.lock();
        auto* mpv = dynamic_cast<MpvMediaPlayer*>(player.get());
        if (mpv && renderer_ && renderer_->attach(player)) mpv->setVideoOutput("libmpv");
    }
    if (pendingShow_) {
        pendingShow_ = false;
        showWindow(true);
    }
}

void WindowPresenter::waitForOpening() {
    std::lock_guard lock(openerMutex_);
    if (!opener_.joinable()) return;
    opener_.join();
    if (opened_) opened_->destroy();
}

void WindowPresenter::acquireGl() {
    if (swapper_) swapper_->waitIdle();
    if (glCurrent_ || !window_) return;
    SDL_GL_MakeCurrent(window_, glContext_);
    glCurrent_ = true;
}

void WindowPresenter::swapFinished() {
    if (!frameAfterSwap_) return;
    frameAfterSwap_ = false;
    if (window_ && dirty_ && shown_) scheduleFrame();
}

void WindowPresenter::stopBackgroundWork() {
    // Nothing may still be talking to the display while exit tears it down.
    {
        std::lock_guard lock(openerMutex_);
        if (opener_.joinable()) opener_.join();
    }
    if (swapper_) swapper_->waitIdle();
    if (renderer_) renderer_->stopRendering();
}

void WindowPresenter::releaseThreadResources() {
    // The GL contexts are current on the ending thread; a closed window is all the
    // next thread needs to open its own.
    waitForOpening();
    pendingPlayers_.clear();
    pendingShow_ = false;
    destroyWindow();
    shown_ = false;
    pollInterval_ = 0;
    lastFrame_ = -1;
}

void WindowPresenter::destroyWindow() {
    if (!window_) return;
    swapper_.reset();
    frameAfterSwap_ = false;
    SDL_GL_MakeCurrent(window_, glContext_);
    ImGui::SetCurrentContext(static_cast<ImGuiContext*>(imgui_));
    queue_->setIdleHook(nullptr, 0);
    screen_.reset();
    VideoRenderer::install(nullptr);
    Display::install(nullptr);
    if (renderer_) renderer_->detachAll();
    renderer_.reset();  // stops the render thread
    if (renderGlContext_) SDL_GL_DeleteContext(renderGlContext_);
    renderGlContext_ = nullptr;
    SDL_GL_MakeCurrent(window_, glContext_);
    Textures::uninstall();
    ImGui_ImplOpenGL3_Shutdown();
    ImGui_ImplSDL2_Shutdown();
    ImGui::DestroyContext(static_cast<ImGuiContext*>(imgui_));
    imgui_ = nullptr;
    SDL_GL_DeleteContext(glContext_);
    glContext_ = nullptr;
    glCurrent_ = false;
    SDL_DelEventWatch(&Inbox::watch, inbox_.get());
    SDL_DestroyWindow(window_);
    window_ = nullptr;
    SDL_FilterEvents(&Inbox::notOurs, inbox_.get());
    inbox_.reset();
    SDL_QuitSubSystem(SDL_INIT_VIDEO);
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
                if (self && self->window_ && self->renderer_ && self->renderer_->attach(player))
                    return;
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
    auto screen = std::make_shared<ScreenHostingController>(player, playlist);
    std::weak_ptr<WindowPresenter> weak = weak_from_this();
    auto invalidate = [weak] {
        if (auto self = weak.lock()) self->setNeedsDisplay();
    };
    screen->subscriptions.push_back(player->onChange(invalidate));
    if (playlist) screen->subscriptions.push_back(playlist->onChange(invalidate));
    screen->subscriptions.push_back(screen->orientation->onChange(invalidate));
    return screen;
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
    screen_ = std::dynamic_pointer_cast<ScreenHostingController>(screen);
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
    if (screen_) screen_->orientation->updateOrientation(std::make_pair(w, h));
    SDL_ShowWindow(window_);
    SDL_RaiseWindow(window_);
    shown_ = true;
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
                self->shown_ = false;
                if (self->screen_ == screen) self->screen_.reset();
                if (self->renderer_) self->renderer_->collect();
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

void WindowPresenter::updatePolling() {
    if (!window_) return;
    // Input is looked for often while the screen is up, rarely while hidden.
    double interval = shown_ ? idlePollInterval : 0.25;
    if (interval == pollInterval_) return;
    pollInterval_ = interval;
    std::weak_ptr<WindowPresenter> weak = weak_from_this();
    queue_->setIdleHook(
        [weak] {
            if (auto self = weak.lock()) self->pump();
        },
        interval);
}

void WindowPresenter::pump() {
    if (!window_) return;
    ImGui::SetCurrentContext(static_cast<ImGuiContext*>(imgui_));
    // Pumping reads the display for every window; what belongs to the host stays
    // queued for its own loop, its quit included.
    SDL_PumpEvents();
    SDL_FilterEvents(&Inbox::notOurs, inbox_.get());
    std::vector<SDL_Event> events;
    {
        std::lock_guard lock(inbox_->mutex);
        events.swap(inbox_->events);
    }
    for (const auto& event : events) {
        if (!window_) break;  // an action closed it
        handleEvent(event);
    }
}

void WindowPresenter::handleEvent(const SDL_Event& e) {
    ImGui_ImplSDL2_ProcessEvent(&e);
    auto input = [this] {
        // A quick click is down and up within one poll: two frames see both.
        extraFrames_ = std::max(extraFrames_, 2);
        setNeedsDisplay();
    };
    switch (e.type) {
        case SDL_MOUSEMOTION:
            if (e.motion.state != 0) input();
            break;
        case SDL_MOUSEBUTTONDOWN:
        case SDL_MOUSEBUTTONUP:
        case SDL_MOUSEWHEEL:
        case SDL_FINGERDOWN:
        case SDL_FINGERUP:
        case SDL_FINGERMOTION:
            input();
            break;
        case SDL_KEYDOWN: {
            if (!screen_ || !shown_ || e.key.repeat) break;
            std::optional<VideoPlayerView::Key> key;
            switch (e.key.keysym.sym) {
                case SDLK_SPACE:
                    key = VideoPlayerView::Key::space;
                    break;
                case SDLK_LEFT:
                    key = VideoPlayerView::Key::left;
                    break;
                case SDLK_RIGHT:
                    key = VideoPlayerView::Key::right;
                    break;
                case SDLK_ESCAPE:
                    key = VideoPlayerView::Key::escape;
                    break;
                default:
                    break;
            }
            if (key) {
                auto screen = screen_;  // the action may dismiss it
                screen->view.handleKey(*key);
            }
            input();
            break;
        }
        case SDL_WINDOWEVENT:
            if (e.window.event == SDL_WINDOWEVENT_SIZE_CHANGED && screen_)
                screen_->orientation->updateOrientation(
                    std::make_pair(e.window.data1, e.window.data2));
            if (e.window.event == SDL_WINDOWEVENT_FOCUS_GAINED && screen_ && shown_) {
                auto screen = screen_;
                screen->view.applicationDidBecomeActive();
            }
            if (e.window.event == SDL_WINDOWEVENT_CLOSE && screen_ && shown_) {
                auto screen = screen_;
                screen->player->backToHome();
            }
            setNeedsDisplay();
            break;
        default:
            break;
    }
}

void WindowPresenter::renderNow() {
    if (!window_) return;
    renderFrame();
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
    if (renderer_) renderer_->collect();

    ImGui_ImplOpenGL3_NewFrame();
    ImGui_ImplSDL2_NewFrame();
    ImGui::NewFrame();
    const double now = queue_->now();
    ImGuiIO& io = ImGui::GetIO();
    Rect full{0, 0, io.DisplaySize.x, io.DisplaySize.y};
    Frame frame(ImGui::GetBackgroundDrawList(), now);
    if (screen_) {
        auto screen = screen_;  // an action of this frame may dismiss it
        screen->view.draw(frame, full);
    }
    float fade = fadeValue(now);
    if (fade < 1) frame.fill(full, Color::black(1 - fade));
    ImGui::Render();

    int fbw = 0, fbh = 0;
    SDL_GL_GetDrawableSize(window_, &fbw, &fbh);
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    glViewport(0, 0, fbw, fbh);
    glClearColor(0, 0, 0, 1);
    glClear(GL_COLOR_BUFFER_BIT);
    ImGui_ImplOpenGL3_RenderDrawData(ImGui::GetDrawData());
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
    if (!exitHookRearmed_ || capture || !swapper_) {
        // The first frame initialises more of the GL stack, whose exit handlers ours
        // must follow: it is presented here.
        SDL_GL_SwapWindow(window_);
        if (renderer_) renderer_->endFrame();
    } else {
        SDL_GL_MakeCurrent(window_, nullptr);
        glCurrent_ = false;
        std::weak_ptr<WindowPresenter> weak = weak_from_this();
        swapper_->present([renderer = renderer_, queue = queue_, weak] {
            if (renderer) renderer->endFrame();
            queue->async([weak] {
                if (auto self = weak.lock()) self->swapFinished();
            });
        });
    }
    if (!exitHookRearmed_) {
        exitHookRearmed_ = true;
        Platform::rearmExitHook();
    }
    ++frames_;
    lastFrame_ = now;

    bool fading = now < fadeStart_ + kPresentationFadeSeconds;
    bool more = frame.needsAnotherFrame() || fading || extraFrames_ > 0;
    if (extraFrames_ > 0) --extraFrames_;
    if (more) {
        dirty_ = true;
        scheduleFrame();
    }
}

}  // namespace kavelin
