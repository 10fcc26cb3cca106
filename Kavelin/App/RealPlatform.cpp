#include "Kavelin/Platform/Linux/Environment.h"
#include "Kavelin/Platform/Linux/FileUserDefaults.h"
#include "Kavelin/Platform/Linux/HeadlessPresenter.h"
#include "Kavelin/Platform/Linux/MpvMediaPlayerFactory.h"
#include "Kavelin/Platform/Linux/ThreadMainQueue.h"
#include "Kavelin/Platform/Linux/WindowPresenter.h"
#include "Kavelin/Platform/Platform.h"
#include "Kavelin/views/PlayerScreen.h"

namespace kavelin {

// The one place that knows both the Linux implementations and the screen they draw.

Platform makeRealPlatform() {
    Platform p;
    auto queue = std::make_shared<ThreadMainQueue>();
    p.queue = queue;
    auto players = std::make_shared<MpvMediaPlayerFactory>(p.queue);
    if (displayAvailable()) {
        auto window = std::make_shared<WindowPresenter>(queue, makePlayerScreenViews(queue));
        p.presenter = window;
        p.players = window->wrapFactory(players);
    } else {
        p.presenter = std::make_shared<HeadlessPresenter>(p.queue);
        p.players = players;
    }
    p.defaults = std::make_shared<FileUserDefaults>(FileUserDefaults::defaultPath(), p.queue);
    p.wallClock = [] { return std::chrono::system_clock::now(); };
    return p;
}

}  // namespace kavelin
