#pragma once

#include <cstdint>

namespace kavelin {

// Colours as packed 0xAABBGGRR, the layout Dear ImGui draws with.
struct Color {
    static constexpr uint32_t rgba(int r, int g, int b, float a = 1.0f) {
        return static_cast<uint32_t>(r) | (static_cast<uint32_t>(g) << 8) |
               (static_cast<uint32_t>(b) << 16) | (static_cast<uint32_t>(a * 255.0f + 0.5f) << 24);
    }
    static constexpr uint32_t black(float a = 1.0f) { return rgba(0, 0, 0, a); }
    static constexpr uint32_t white(float a = 1.0f) { return rgba(255, 255, 255, a); }
    static constexpr uint32_t gray(float a = 1.0f) { return rgba(142, 142, 147, a); }
    static constexpr uint32_t pink(float a = 1.0f) { return rgba(255, 45, 85, a); }
    static constexpr uint32_t blue(float a = 1.0f) { return rgba(0, 122, 255, a); }
    static constexpr uint32_t yellow(float a = 1.0f) { return rgba(255, 204, 0, a); }
    static constexpr uint32_t green(float a = 1.0f) { return rgba(52, 199, 89, a); }
    static constexpr uint32_t orange(float a = 1.0f) { return rgba(255, 149, 0, a); }
    static constexpr uint32_t purple(float a = 1.0f) { return rgba(175, 82, 222, a); }
    static constexpr uint32_t red(float a = 1.0f) { return rgba(255, 59, 48, a); }

    // Pink, blue, yellow, green or orange, uniformly at random on each call.
    static uint32_t random();

    // The same colour with its alpha multiplied by `opacity`.
    static uint32_t withOpacity(uint32_t color, float opacity);
};

}  // namespace kavelin
