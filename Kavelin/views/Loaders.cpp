#include "Kavelin/views/Loaders.h"

#include <cmath>
#include <numbers>

#include "Kavelin/Extentions/Color+Ext.h"

namespace kavelin {

namespace {
constexpr float kPi = std::numbers::pi_v<float>;

// Ease-in-out back and forth: 0 -> 1 over `duration`, then back, forever.
float pingPong(double t, double duration) {
    double phase = std::fmod(t / duration, 2.0);
    float x = static_cast<float>(phase <= 1 ? phase : 2 - phase);
    return easeInOut(x);
}

uint32_t lerpColor(uint32_t a, uint32_t b, float t) {
    auto ch = [&](int shift) {
        float va = static_cast<float>((a >> shift) & 0xFF),
              vb = static_cast<float>((b >> shift) & 0xFF);
        return static_cast<uint32_t>(va + (vb - va) * t + 0.5f) << shift;
    };
    return ch(0) | ch(8) | ch(16) | ch(24);
}

void arc(Frame& frame, ImVec2 c, float radius, float from, float to, uint32_t color, float width) {
    ImDrawList* list = frame.list();
    list->PathClear();
    list->PathArcTo(c, radius, from, to, 32);
    list->PathStroke(frame.color(color), 0, width);
}

}  // namespace

float KidsRocketLoader::rotation(double t) {
    return static_cast<float>(std::fmod(t / UI::rotationPeriod, 1.0) * 360.0);
}

float KidsRocketLoader::rocketScale(double t) {
    return 1.0f + (UI::pulseScale - 1.0f) * pingPong(t, UI::pulseDuration);
}

void KidsRocketLoader::draw(Frame& frame, ImVec2 c) {
    if (!rotate_) {
        rotate_ = scale_ = true;
        start_ = frame.now();
    }
    double t = frame.now() - start_;
    float angle = rotation(t) * kPi / 180;
    // The ring's gradient runs pink -> purple -> blue across it; turning the ring
    // turns the gradient with it.
    const int segments = 48;
    const float r = (UI::ringSize - UI::ringLineWidth) / 2;
    for (int i = 0; i < segments; ++i) {
        float a0 = angle + 2 * kPi * static_cast<float>(i) / segments;
        float a1 = angle + 2 * kPi * static_cast<float>(i + 1) / segments;
        float across = (std::cos(a0 - angle + kPi) + 1) / 2;  // 0 at the leading edge
        uint32_t col = across < 0.5f ? lerpColor(Color::pink(), Color::purple(), across * 2)
                                     : lerpColor(Color::purple(), Color::blue(), across * 2 - 1);
        arc(frame, c, r, a0, a1 + 0.01f, col, UI::ringLineWidth);
    }
    float size = UI::rocketSize * rocketScale(t);
    frame.asset("rocket.fill", {c.x - size / 2, c.y - size / 2, size, size}, 1, false,
                {UI::rocketSize, UI::rocketSize});
    frame.requestAnimationFrame();
}

float KidsJumpLoader::offset(double t) {
    // A spring with this response and damping overshoots a little each hop.
    const double omega = 2 * std::numbers::pi / UI::response;
    const double zeta = UI::dampingFraction;
    const double period = UI::response * 2;
    double local = std::fmod(t, period);
    bool up = std::fmod(t, 2 * period) < period;
    double settle =
        1 - std::exp(-zeta * omega * local) * std::cos(omega * std::sqrt(1 - zeta * zeta) * local);
    double position = up ? settle : 1 - settle;
    return static_cast<float>(-UI::jumpHeight * position);
}

void KidsJumpLoader::draw(Frame& frame, ImVec2 c) {
    if (!jump_) {
        jump_ = true;
        start_ = frame.now();
    }
    float dy = offset(frame.now() - start_);
    frame.asset("tortoise.fill",
                {c.x - UI::width / 2, c.y - UI::height / 2 + dy, UI::width, UI::height});
    frame.requestAnimationFrame();
}

}  // namespace kavelin
