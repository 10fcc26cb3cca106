#pragma once

namespace kavelin {

// True when the variable is set to something non-empty.
bool environmentSet(const char* name);

// A display is there and not switched off with KAVELIN_HEADLESS=1. The presenter
// and the player's video output must agree on it, or mpv renders for no window.
bool displayAvailable();

}  // namespace kavelin
