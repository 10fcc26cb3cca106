#include "Kavelin/views/OrientationObserver.h"

#include <cstdlib>
#include <cstring>

namespace kavelin {

UIInterfaceOrientation OrientationObserver::orientationFor(int width, int height) {
    return width > height ? UIInterfaceOrientation::landscapeRight
                          : UIInterfaceOrientation::portrait;
}

void OrientationObserver::updateOrientation(std::optional<std::pair<int, int>> windowSize) {
    if (!windowSize) return;
    auto next = orientationFor(windowSize->first, windowSize->second);
    if (next != orientation.get()) orientation = next;
}

bool deviceIsPad() {
    const char* idiom = std::getenv("KAVELIN_IDIOM");
    return idiom && std::strcmp(idiom, "pad") == 0;
}

}  // namespace kavelin
