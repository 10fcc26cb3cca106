#include <algorithm>
#include <array>
#include <random>

#include "Kavelin/Extentions/Color+Ext.h"

namespace kavelin {

uint32_t Color::random() {
    static constexpr std::array<uint32_t, 5> choices{pink(), blue(), yellow(), green(), orange()};
    thread_local std::mt19937 engine{std::random_device{}()};
    std::uniform_int_distribution<size_t> pick(0, choices.size() - 1);
    return choices[pick(engine)];
}

uint32_t Color::withOpacity(uint32_t color, float opacity) {
    float a = static_cast<float>(color >> 24) * std::clamp(opacity, 0.0f, 1.0f);
    return (color & 0x00FFFFFFu) | (static_cast<uint32_t>(a + 0.5f) << 24);
}

}  // namespace kavelin
