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

const uint32_t kRainbow[] = {Color::red(),   Color::orange(), Color::yellow(),
                             Color::green(), Color::blue(),   Color::purple()};
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

void KidsLoadingDots::draw(Frame& frame, ImVec2 c) {
    if (!animate_) {
        animate_ = true;
        start_ = frame.now();
        for (int i = 0; i < dotCount; ++i) colors_.push_back(Color::random());
    }
    const float dot = 16, gap = 10;
    float width = dotCount * dot + (dotCount - 1) * gap;
    for (int i = 0; i < dotCount; ++i) {
        double t = frame.now() - start_ - 0.12 * i;
        float lift = t < 0 ? 0 : pingPong(t, 0.4) * 14;
        ImVec2 p{c.x - width / 2 + dot / 2 + static_cast<float>(i) * (dot + gap), c.y - lift};
        frame.list()->AddCircleFilled(p, dot / 2, frame.color(colors_[static_cast<size_t>(i)]));
    }
    frame.requestAnimationFrame();
}

void RainbowLoader::draw(Frame& frame, ImVec2 c) {
    if (!animating_) {
        animating_ = true;
        start_ = frame.now();
    }
    float breath = pingPong(frame.now() - start_, 0.8);
    frame.list()->AddCircleFilled({c.x + 3, c.y + 4}, 48, frame.color(Color::black(0.2f)));
    float r = 44;
    for (uint32_t col : kRainbow) {
        frame.list()->AddCircle(c, r * (0.85f + 0.15f * breath), frame.color(col), 48, 5);
        r -= 6;
    }
    frame.requestAnimationFrame();
}

void RainbowSpinner::draw(Frame& frame, ImVec2 c) {
    if (!animating_) {
        animating_ = true;
        start_ = frame.now();
    }
    float turn = static_cast<float>(std::fmod(frame.now() - start_, 1.0)) * 2 * kPi;
    const int n = static_cast<int>(std::size(kRainbow));
    for (int i = 0; i < n; ++i) {
        float a0 = turn + 2 * kPi * static_cast<float>(i) / n;
        arc(frame, c, size / 2 - 4, a0, a0 + 2 * kPi / n, kRainbow[i], 8);
    }
    frame.requestAnimationFrame();
}

SmallRainbowArcLoader::SmallRainbowArcLoader()
    : colors{Color::red(), Color::orange(), Color::yellow(), Color::green(), Color::blue()} {}

void SmallRainbowArcLoader::draw(Frame& frame, ImVec2 c) {
    if (!animating_) {
        animating_ = true;
        start_ = frame.now();
    }
    double t = frame.now() - start_;
    for (size_t i = 0; i < colors.size(); ++i) {
        float a0 = static_cast<float>(std::fmod(t - 0.1 * static_cast<double>(i), 1.0)) * 2 * kPi;
        float radius = height / 2 - 3 - static_cast<float>(i) * 3;
        if (radius <= 2) break;
        arc(frame, c, radius, a0, a0 + kPi * 0.75f, colors[i], 2.5f);
    }
    frame.requestAnimationFrame();
}

}  // namespace kavelin
