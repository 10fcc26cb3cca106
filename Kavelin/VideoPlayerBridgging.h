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
// The catalogue the player works on: the sample catalogue until a merge replaces it.
std::vector<Playlist>& playlists();

// The one way an event reaches the host.
void sendUnityMessage(std::string_view methodName, std::string_view message);

// Shortest round-trip text of a double that always carries a fractional part
// (7.25, 0.0, 10.0, 1e+16).
std::string doubleDescription(double value);

// Forgets the registered callback and the resolved UnitySendMessage; tests only.
void resetBridgeForTesting();

}  // namespace kavelin
