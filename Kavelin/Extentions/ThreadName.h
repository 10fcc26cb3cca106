#pragma once

#include <pthread.h>

namespace kavelin {

// Names the calling thread as a profiler or debugger shows it (15 characters at
// most), so the game's developers can tell the library's threads from their own.
inline void nameThisThread(const char* name) {
    pthread_setname_np(pthread_self(), name);
}

}  // namespace kavelin
