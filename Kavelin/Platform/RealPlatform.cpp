#include "Kavelin/Platform/HeadlessPresenter.h"
#include "Kavelin/Platform/MpvMediaPlayerFactory.h"
#include "Kavelin/Platform/Platform.h"
#include "Kavelin/Platform/ThreadMainQueue.h"

namespace kavelin {

Platform makeRealPlatform() {
    Platform p;
    p.queue = std::make_shared<ThreadMainQueue>();
    p.players = std::make_shared<MpvMediaPlayerFactory>(p.queue);
    p.presenter = std::make_shared<HeadlessPresenter>(p.queue);
    p.defaults = std::make_shared<UserDefaults>(UserDefaults::defaultPath(), p.queue);
    p.wallClock = [] { return std::chrono::system_clock::now(); };
    return p;
}

}  // namespace kavelin
