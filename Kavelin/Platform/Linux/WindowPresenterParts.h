#pragma once

// The window presenter's pieces shared by its source files: the event inbox, the
// presenting thread and what the opening thread hands over.

#include <SDL.h>
#include <backends/imgui_impl_opengl3.h>
#include <backends/imgui_impl_sdl.h>
#include <imgui.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Kavelin/Extentions/ThreadName.h"
#include "Kavelin/Platform/Linux/WindowPresenter.h"

namespace kavelin {

// Video pictures cover what is under them: drawn without blending, software GL
// neither reads nor mixes the window beneath. Wraps each draw command that samples
// a picture in callbacks switching blending off and back on.
void drawPicturesOpaque(ImDrawData* data, const std::function<bool(TextureHandle)>& isPicture);

// The picture a frame consists of, when it is one opaque, untinted video picture
// covering the whole display and nothing else.
std::optional<TextureHandle> windowFillingPicture(
    const ImDrawData* data, const std::function<bool(TextureHandle)>& isPicture);

// SDL's event queue is the process's: a host with its own SDL loop may drain it
// first. A watch sees every event as it is queued, on whichever thread pumps, and
// keeps a copy of ours; the queue itself then only loses our window's events.
struct WindowPresenter::Inbox {
    Uint32 window = 0;
    std::mutex mutex;
    std::vector<SDL_Event> events;
    // Called when the first of a batch arrives on a thread other than the queue's.
    std::function<void()> arrivedElsewhere;

    // Keeps a copy of our window's events; an SDL event watch.
    static int watch(void* self, SDL_Event* event);
    // True for the events that belong to the host; an SDL event filter.
    static int notOurs(void* self, SDL_Event* event);
};

// Software GL rasterises a frame inside the swap: tens of milliseconds under Xvfb.
// The swap runs here with the context handed over, so a host call waits at most for
// the recording of a frame, never for its presentation.
struct WindowPresenter::Swapper {
    SDL_Window* window;
    void* context;
    std::mutex mutex;
    std::condition_variable changed;
    // Set while a frame is out: `released` runs once the swap no longer reads the
    // frame's textures, `idle` once another frame may be presented.
    std::function<void()> released, idle;
    bool busy = false, stop = false;
    std::thread thread;

    Swapper(SDL_Window* w, void* c)
        : window(w), context(c), thread(namedThread("kavelin-swap", [this] { loop(); })) {}
    ~Swapper() {
        {
            std::unique_lock lock(mutex);
            changed.wait(lock, [this] { return !busy; });
            stop = true;
        }
        changed.notify_all();
        thread.join();
    }
    void present(std::function<void()> onReleased, std::function<void()> onIdle) {
        {
            std::lock_guard lock(mutex);
            released = std::move(onReleased);
            idle = std::move(onIdle);
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
            auto onReleased = std::move(released);
            auto onIdle = std::move(idle);
            lock.unlock();
            SDL_GL_MakeCurrent(window, context);
            SDL_GL_SwapWindow(window);
            SDL_GL_MakeCurrent(window, nullptr);
            if (onReleased) onReleased();
            lock.lock();
            busy = false;
            changed.notify_all();
            // Told only once idle: a frame asked for while this one was out found it
            // busy and waits for this word; told earlier, the word could come first
            // and the frame would wait for the next change on screen.
            lock.unlock();
            if (onIdle) onIdle();
            lock.lock();
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
    bool backendsInitialised = false;  // ImGui's SDL and OpenGL backends, on `imgui`

    void destroy() {
        if (backendsInitialised) {
            SDL_GL_MakeCurrent(window, glContext);
            ImGuiContext* previous = ImGui::GetCurrentContext();
            ImGui::SetCurrentContext(imgui);
            ImGui_ImplOpenGL3_Shutdown();
            ImGui_ImplSDL2_Shutdown();
            ImGui::SetCurrentContext(previous == imgui ? nullptr : previous);
            SDL_GL_MakeCurrent(window, nullptr);
        }
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

}  // namespace kavelin
