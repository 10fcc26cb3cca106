#include "Kavelin/Platform/Linux/WindowPresenter.h"

#define GL_GLEXT_PROTOTYPES 1
#include <GL/gl.h>
#include <SDL.h>
#include <backends/imgui_impl_opengl3.h>
#include <backends/imgui_impl_sdl.h>
#include <dlfcn.h>
#include <imgui.h>
#include <link.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "Kavelin/Extentions/Fonts.h"
#include "Kavelin/Extentions/ThreadName.h"
#include "Kavelin/Platform/Linux/MpvMediaPlayer.h"
#include "Kavelin/Platform/Linux/MpvVideoRenderer.h"
#include "Kavelin/Platform/Linux/WindowPresenterParts.h"
#include "Kavelin/Platform/Platform.h"
#include "Kavelin/log/VPLogger.h"

// Opening and closing the window: the SDL window, its GL contexts and ImGui, made
// on a thread of their own and torn down on the queue's.

namespace kavelin {

namespace {

// exit() called from a host callback runs on the library thread, and that thread's
// thread_local destructors come before every exit handler: the render thread stops
// there, and a window still opening is waited for, before the GL driver's own
// handlers tear the driver down under them. When the thread is parked the window
// is gone already and this does nothing.
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

TextureHandle uploadTexture(int width, int height, const uint8_t* rgba) {
    GLuint id = 0;
    glGenTextures(1, &id);
    glBindTexture(GL_TEXTURE_2D, id);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, width, height, 0, GL_RGBA, GL_UNSIGNED_BYTE, rgba);
    return static_cast<TextureHandle>(id);
}

void releaseTexture(TextureHandle texture) {
    GLuint id = static_cast<GLuint>(texture);
    glDeleteTextures(1, &id);
}

// Software GL generates the drawing code for each new mix of texture and blending
// at its first draw, about ten milliseconds each, and starts its compiler at the
// very first one. A throw-away frame on the opening thread meets every mix the
// screen uses (text and fills, an image, a video picture) so that no host call
// waits for that on the library's queue. It is drawn into a hidden scratch window
// of the same kind: the real window only ever holds the screen's own frames.
void warmUpDrawing(WindowPresenter::Opened& o) {
    SDL_Window* scratch = SDL_CreateWindow(
        "", 0, 0, 32, 32, SDL_WINDOW_OPENGL | SDL_WINDOW_BORDERLESS | SDL_WINDOW_HIDDEN);
    if (!scratch) return;
    if (SDL_GL_MakeCurrent(scratch, o.glContext) == 0) {
        // Sizes that are not powers of two, as pictures and images are: the drawing
        // code differs for them.
        const std::vector<uint8_t> pixels(3 * 3 * 4, 255);
        const TextureHandle image = uploadTexture(3, 3, pixels.data());
        const TextureHandle video = uploadTexture(3, 3, pixels.data());
        MpvVideoRenderer::setPictureSampling(static_cast<unsigned>(video));
        ImGuiIO& io = ImGui::GetIO();
        io.DisplaySize = {32, 32};
        io.DeltaTime = 1.0f / 60;
        ImGui_ImplOpenGL3_NewFrame();
        ImGui::NewFrame();
        ImDrawList* list = ImGui::GetBackgroundDrawList();
        list->AddImage(reinterpret_cast<ImTextureID>(video), {0, 0}, {32, 32});
        list->AddImageRounded(reinterpret_cast<ImTextureID>(image), {0, 0}, {16, 16}, {0, 0},
                              {1, 1}, IM_COL32_WHITE, 4);
        list->AddRectFilled({0, 0}, {8, 8}, IM_COL32(255, 255, 255, 128), 2);
        list->AddText({0, 0}, IM_COL32_WHITE, "Kavelin");
        ImGui::Render();
        drawPicturesOpaque(ImGui::GetDrawData(), [video](TextureHandle t) { return t == video; });
        glViewport(0, 0, 32, 32);
        glClearColor(0, 0, 0, 1);
        glClear(GL_COLOR_BUFFER_BIT);
        ImGui_ImplOpenGL3_RenderDrawData(ImGui::GetDrawData());
        glFinish();
        releaseTexture(image);
        releaseTexture(video);
    }
    SDL_GL_MakeCurrent(o.window, nullptr);
    SDL_DestroyWindow(scratch);
}

// Connecting to the display, making GL contexts, rasterising the fonts and the
// first frame's shaders take a few hundred milliseconds under software GL: that
// happens here, on a thread of its own, so neither the host's call nor the
// library's queue waits for it.
void prepareDrawing(WindowPresenter::Opened& o) {
    SDL_GL_MakeCurrent(o.window, o.glContext);
    ImGui_ImplSDL2_InitForOpenGL(o.window, o.glContext);
    ImGui_ImplOpenGL3_Init("#version 150");
    o.backendsInitialised = true;
    ImGui_ImplOpenGL3_CreateDeviceObjects();
    warmUpDrawing(o);
    SDL_GL_MakeCurrent(o.window, nullptr);
}

std::vector<std::string> loadedObjects() {
    std::vector<std::string> names;
    dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* out) {
            if (info->dlpi_name && *info->dlpi_name)
                static_cast<std::vector<std::string>*>(out)->push_back(info->dlpi_name);
            return 0;
        },
        &names);
    return names;
}

// What the window's opening loaded (the GL driver and, under software GL, LLVM)
// stays loaded for the process. SDL unloads it when its video closes: the next
// opening would load it again (a few hundred milliseconds), and the driver's
// destructors would run in the middle of the process, taking along memory still
// referenced from the libraries that stay.
void keepLoadedSince(const std::vector<std::string>& before) {
    for (const auto& name : loadedObjects())
        if (std::find(before.begin(), before.end(), name) == before.end())
            dlopen(name.c_str(), RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
}

void openNativeWindow(WindowPresenter::Opened& o) {
    const auto loadedBefore = loadedObjects();
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
    prepareDrawing(o);
    keepLoadedSince(loadedBefore);
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
    // Armed before the opening starts: an exit meanwhile must wait for it while the
    // GL driver it loads is still whole.
    stopDrawingAtThreadExit(weak);
    // Known before the opening starts: a cleanup while it runs must already hold a
    // host that may quit SDL next.
    hostVideo_ = SDL_WasInit(SDL_INIT_VIDEO) != 0;
    opener_ = namedThread("kavelin-open", [this, weak, queue] {
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
    inbox_->arrivedElsewhere = [queue = queue_, weak = weak_from_this()] {
        if (queue->isCurrent()) return;  // our own pump goes on to handle it
        queue->async([weak] {
            if (auto self = weak.lock()) self->pump();
        });
    };
    SDL_AddEventWatch(&Inbox::watch, inbox_.get());
    SDL_GL_MakeCurrent(window_, glContext_);
    glCurrent_ = true;
    // Frames are paced by the queue, never by blocking in a swap.
    SDL_GL_SetSwapInterval(0);
    swapper_ = std::make_unique<Swapper>(window_, glContext_);
    ImGui::SetCurrentContext(static_cast<ImGuiContext*>(imgui_));
    std::weak_ptr<WindowPresenter> weak = weak_from_this();
    auto invalidate = [weak] {
        if (auto self = weak.lock()) self->setNeedsDisplay();
    };
    views_->windowOpened(WindowResources{[this](int width, int height, const uint8_t* rgba) {
                                             acquireGl();
                                             return uploadTexture(width, height, rgba);
                                         },
                                         [this](TextureHandle texture) {
                                             acquireGl();
                                             releaseTexture(texture);
                                         },
                                         invalidate});
    if (renderGlContext_) {
        renderer_ =
            std::make_shared<MpvVideoRenderer>(queue_, window_, renderGlContext_, invalidate);
    }
    VideoRenderer::install(renderer_);
    updatePolling();
    Platform::rearmExitHook();
    exitHookRearmed_ = false;  // the first frames may initialise more of the GL stack

    // Players made while the window was opening decode without a picture until now;
    // switching their output back brings the picture of the item already playing.
    for (auto& weakPlayer : std::exchange(pendingPlayers_, {})) {
        auto player = weakPlayer.lock();
        auto* mpv = dynamic_cast<MpvMediaPlayer*>(player.get());
        if (!mpv || !renderer_) continue;
        renderer_->attach(player, [weakPlayer, mpv](bool attached) {
            if (attached && weakPlayer.lock()) mpv->setVideoOutput("libmpv");
        });
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
    pollFd_ = -1;
    lastFrame_ = -1;
}

void WindowPresenter::destroyWindow() {
    if (!window_) return;
    swapper_.reset();
    frameAfterSwap_ = false;
    shownFingerprint_ = 0;
    direct_ = Direct::off;
    SDL_GL_MakeCurrent(window_, glContext_);
    ImGui::SetCurrentContext(static_cast<ImGuiContext*>(imgui_));
    queue_->setIdleHook(nullptr, 0);
    screen_.reset();
    VideoRenderer::install(nullptr);
    if (renderer_) renderer_->detachAll();
    renderer_.reset();  // stops the render thread
    if (renderGlContext_) SDL_GL_DeleteContext(renderGlContext_);
    renderGlContext_ = nullptr;
    SDL_GL_MakeCurrent(window_, glContext_);
    views_->windowClosing();
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

}  // namespace kavelin
