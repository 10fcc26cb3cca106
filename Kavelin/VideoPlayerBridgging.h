#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Kavelin/Model/Catalogue.h"

namespace kavelin {

class VideoPlayerService;

// Process-wide state of the bridge; touched on the main queue only.
std::shared_ptr<VideoPlayerService>& currentVideoPlayerService();
// The one way an event reaches the host.
void sendUnityMessage(std::string_view methodName, std::string_view message);

// Forgets the registered callback and the resolved UnitySendMessage; tests only.
void resetBridgeForTesting();

}  // namespace kavelin
