#pragma once

#include <chrono>
#include <functional>
#include <thread>

#include "Kavelin/Platform/Platform.h"

namespace kavelin::testing {

// Polls `probe` on the main queue until it holds, for at most `seconds` of real
// time: with libmpv and a window there is no virtual time to advance.
inline bool waitOnMainQueue(const std::function<bool()>& probe, double seconds) {
    auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < until) {
        bool ok = false;
        mainQueue().sync([&] { ok = probe(); });
        if (ok) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

}  // namespace kavelin::testing
