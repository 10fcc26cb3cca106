#include <SDL.h>
#include <SDL_syswm.h>
#include <backends/imgui_impl_sdl.h>
#include <imgui.h>

#include <algorithm>
#include <mutex>
#include <optional>
#include <vector>

#include "Kavelin/Platform/Linux/WindowPresenter.h"
#include "Kavelin/Platform/Linux/WindowPresenterParts.h"

// Input: our window's events picked out of the process's SDL queue and routed to
// the screen.

namespace kavelin {

namespace {

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

// The X11 connection the window's events arrive on; -1 on other video drivers.
int displayConnection(SDL_Window* window) {
    SDL_SysWMinfo info;
    SDL_VERSION(&info.version);
    if (!SDL_GetWindowWMInfo(window, &info) || info.subsystem != SDL_SYSWM_X11) return -1;
    return ConnectionNumber(info.info.x11.display);
}

}  // namespace

int WindowPresenter::Inbox::watch(void* self, SDL_Event* event) {
    auto* inbox = static_cast<Inbox*>(self);
    if (eventWindow(*event) != inbox->window) return 1;
    bool first = false;
    {
        std::lock_guard lock(inbox->mutex);
        first = inbox->events.empty();
        inbox->events.push_back(*event);
    }
    // Read off the display by the host's own pump: our queue did not see it arrive.
    if (first && inbox->arrivedElsewhere) inbox->arrivedElsewhere();
    return 1;
}

int WindowPresenter::Inbox::notOurs(void* self, SDL_Event* event) {
    return eventWindow(*event) != static_cast<Inbox*>(self)->window;
}

void WindowPresenter::updatePolling() {
    if (!window_) return;
    // While frames flow, each presented one pumps, and the connection is busy with
    // their swaps (waking on it then would spin): it is waited on only when idle.
    const bool framesFlowing = dirty_ || frameScheduled_ || (swapper_ && swapper_->isBusy());
    const int fd = framesFlowing ? -1 : displayConnection(window_);
    // Without a connection to wait on, input is looked for often while the screen
    // is up, rarely while hidden.
    const double interval = fd >= 0 || framesFlowing ? fallbackPollInterval
                            : shown_                 ? idlePollInterval
                                                     : 0.25;
    if (interval == pollInterval_ && fd == pollFd_) return;
    pollInterval_ = interval;
    pollFd_ = fd;
    std::weak_ptr<WindowPresenter> weak = weak_from_this();
    queue_->setIdleHook(
        [weak] {
            if (auto self = weak.lock()) self->pump();
        },
        interval, fd);
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
            std::optional<HostingController::Key> key;
            switch (e.key.keysym.sym) {
                case SDLK_SPACE:
                    key = HostingController::Key::space;
                    break;
                case SDLK_LEFT:
                    key = HostingController::Key::left;
                    break;
                case SDLK_RIGHT:
                    key = HostingController::Key::right;
                    break;
                case SDLK_ESCAPE:
                    key = HostingController::Key::escape;
                    break;
                default:
                    break;
            }
            if (key) {
                auto screen = screen_;  // the action may dismiss it
                screen->handleKey(*key);
            }
            input();
            break;
        }
        case SDL_WINDOWEVENT:
            if (e.window.event == SDL_WINDOWEVENT_SIZE_CHANGED && screen_)
                screen_->sizeChanged(e.window.data1, e.window.data2);
            if (e.window.event == SDL_WINDOWEVENT_FOCUS_GAINED && screen_ && shown_) {
                auto screen = screen_;
                screen->becameActive();
            }
            if (e.window.event == SDL_WINDOWEVENT_CLOSE && screen_ && shown_) {
                auto screen = screen_;
                screen->closeRequested();
            }
            shownFingerprint_ = 0;  // exposed, resized or shown: the pixels may be gone
            setNeedsDisplay();
            break;
        default:
            break;
    }
}

}  // namespace kavelin
