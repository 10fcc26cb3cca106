#pragma once

#include <pthread.h>

#include <thread>
#include <utility>

namespace kavelin {

// A thread named as a profiler or debugger shows it (15 characters at most), so
// the game's developers can tell the library's threads from their own.
template <typename Body>
std::thread namedThread(const char* name, Body body) {
    return std::thread([name, body = std::move(body)]() mutable {
        pthread_setname_np(pthread_self(), name);
        body();
    });
}

}  // namespace kavelin
