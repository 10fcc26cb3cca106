#pragma once

#include <imgui.h>

#include <cstdint>
#include <vector>

namespace kavelin {

// A rectangle in points, origin top-left.
struct Rect {
    float x = 0, y = 0, w = 0, h = 0;

    float right() const { return x + w; }
    float bottom() const { return y + h; }
    float midX() const { return x + w / 2; }
    float midY() const { return y + h / 2; }
    ImVec2 min() const { return {x, y}; }
    ImVec2 max() const { return {x + w, y + h}; }
    bool contains(ImVec2 p) const { return p.x >= x && p.x < x + w && p.y >= y && p.y < y + h; }
    bool empty() const { return w <= 0 || h <= 0; }
    // Moves every edge inwards (negative values move them outwards).
    Rect inset(float top, float left, float bottom, float rightInset) const {
        return {x + left, y + top, w - left - rightInset, h - top - bottom};
    }
    Rect inset(float all) const { return inset(all, all, all, all); }
    bool operator==(const Rect&) const = default;
};

// The corners a RoundedCorner rounds.
enum RectCorner : uint8_t {
    topLeft = 1,
    topRight = 2,
    bottomLeft = 4,
    bottomRight = 8,
    allCorners = 15,
};

// The bounding rectangle with only the listed corners rounded by `radius`.
struct RoundedCorner {
    float radius = 0;
    uint8_t corners = allCorners;

    ImDrawFlags drawFlags() const;
    void fill(ImDrawList* list, const Rect& r, ImU32 color) const;
    void stroke(ImDrawList* list, const Rect& r, ImU32 color, float lineWidth) const;
};

// Ease-in-out between two values over a duration, restarted whenever the target
// changes. Time is whatever clock the caller passes (the main queue's).
class AnimatedValue {
  public:
    AnimatedValue() : AnimatedValue(0) {}
    explicit AnimatedValue(float initial) : from_(initial), to_(initial) {}

    // Sets the target; animates over `duration` from the present value (or jumps
    // when the duration is zero).
    void animateTo(float target, double now, double duration);
    void jumpTo(float value);
    float value(double now) const;
    float target() const { return to_; }
    bool isAnimating(double now) const { return now < start_ + duration_ && from_ != to_; }

  private:
    float from_;
    float to_;
    double start_ = 0;
    double duration_ = 0;
};

float easeInOut(float t);

// Shows a view when `isHidden` is false; when true the view is left out of the
// layout entirely so its neighbours close up. Reappearing fades in over 0.25 s.
struct HiddenViewModifier {
    static constexpr double fadeDuration = 0.25;
    bool isHidden = false;

    // Opacity for this frame, advancing the fade kept in `fade`.
    float opacity(AnimatedValue& fade, double now) const;
};

// A disabled view ignores touches but looks the same.
struct DissabledViewModifier {
    bool isDisable = false;
    bool reactsToTouches() const { return !isDisable; }
};

inline HiddenViewModifier isHidden(bool hidden) {
    return {hidden};
}
inline DissabledViewModifier isDisabled(bool disabled) {
    return {disabled};
}
inline RoundedCorner cornerRadius(float radius, uint8_t corners = allCorners) {
    return {radius, corners};
}

// Lays out a horizontal stack: the widths of the items that are not hidden,
// `spacing` apart, centred in `bounds` on both axes (each item `height` high).
// Hidden items get an empty rectangle and take no room.
std::vector<Rect> hstackCentred(const Rect& bounds, const std::vector<float>& widths,
                                const std::vector<bool>& hidden, float height, float spacing);

// The part of the source picture (normalised texture coordinates) that fills a
// frame of `frameW` x `frameH` without distortion, cropping the overflow.
struct UVRect {
    ImVec2 uv0{0, 0};
    ImVec2 uv1{1, 1};
};
UVRect aspectFillUV(float imageW, float imageH, float frameW, float frameH);

}  // namespace kavelin
