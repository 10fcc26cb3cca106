#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Kavelin/Model/Catalogue.h"

namespace kavelin {

class VideoPlayerService;

// Process-wide state of the bridge; touched on the main queue only.
std::shared_ptr<VideoPlayerService>& currentVideoPlayerService();
// The host's URL array as a list: null entries skipped, order kept. The caller has
// already refused a negative count.
std::vector<std::string> urlsFromHost(const char* const* urls, int32_t count);

// The one way an event reaches the host.
void sendUnityMessage(std::string_view methodName, std::string_view message);

// In-process tests watch the events here (called before delivery, on the main queue).
using EventObserver = std::function<void(std::string_view methodName, std::string_view message)>;
void setEventObserverForTesting(EventObserver observer);

}  // namespace kavelin
