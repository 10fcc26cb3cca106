#include "Kavelin/Platform/MainQueueCheck.h"

#include <cstdio>
#include <cstdlib>

#include "Kavelin/Platform/Platform.h"

namespace kavelin {

void assertOnMainQueue(const char* file, int line, const char* function) {
    const auto queue = Platform::installedQueue();
    if (!queue || queue->isCurrent()) return;
    std::fprintf(stderr, "❌ %s (%s:%d) ran off the library's main queue\n", function, file, line);
    // Debug builds only (the macro is compiled out of Release): a developer's assertion.
    std::abort();
}

}  // namespace kavelin
