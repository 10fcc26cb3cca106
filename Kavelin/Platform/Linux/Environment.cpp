#include "Kavelin/Platform/Linux/Environment.h"

#include <cstdlib>
#include <cstring>

namespace kavelin {

bool environmentSet(const char* name) {
    const char* v = std::getenv(name);
    return v && *v;
}

bool displayAvailable() {
    const char* headless = std::getenv("KAVELIN_HEADLESS");
    if (headless && std::strcmp(headless, "1") == 0) return false;
    return environmentSet("DISPLAY") || environmentSet("WAYLAND_DISPLAY");
}

}  // namespace kavelin
