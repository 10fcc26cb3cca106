#include "Kavelin/Extentions/ViewUtilities.h"

#include <algorithm>

namespace kavelin {

ImDrawFlags RoundedCorner::drawFlags() const {
    if (radius <= 0 || corners == 0) return ImDrawFlags_RoundCornersNone;
    ImDrawFlags flags = 0;
    if (corners & topLeft) flags |= ImDrawFlags_RoundCornersTopLeft;
    if (corners & topRight) flags |= ImDrawFlags_RoundCornersTopRight;
    if (corners & bottomLeft) flags |= ImDrawFlags_RoundCornersBottomLeft;
    if (corners & bottomRight) flags |= ImDrawFlags_RoundCornersBottomRight;
    return flags;
}

void RoundedCorner::fill(ImDrawList* list, const Rect& r, ImU32 color) const {
    list->AddRectFilled(r.min(), r.max(), color, radius, drawFlags());
}

void RoundedCorner::stroke(ImDrawList* list, const Rect& r, ImU32 color, float lineWidth) const {
    // ImGui strokes centred on the outline; keep the line inside the shape.
    Rect in = r.inset(lineWidth / 2);
    list->AddRect(in.min(), in.max(), color, std::max(0.0f, radius - lineWidth / 2), drawFlags(),
                  lineWidth);
}

float easeInOut(float t) {
    t = std::clamp(t, 0.0f, 1.0f);
    return t < 0.5f ? 2 * t * t : 1 - (-2 * t + 2) * (-2 * t + 2) / 2;
}

void AnimatedValue::animateTo(float target, double now, double duration) {
    if (target == to_) return;
    from_ = value(now);
    to_ = target;
    start_ = now;
    duration_ = duration;
}

void AnimatedValue::jumpTo(float value) {
    from_ = to_ = value;
    duration_ = 0;
}

float AnimatedValue::value(double now) const {
    if (duration_ <= 0 || now >= start_ + duration_) return to_;
    if (now <= start_) return from_;
    float t = static_cast<float>((now - start_) / duration_);
    return from_ + (to_ - from_) * easeInOut(t);
}

float HiddenViewModifier::opacity(AnimatedValue& fade, double now) const {
    if (isHidden) {
        fade.jumpTo(0);
        return 0;
    }
    fade.animateTo(1, now, fadeDuration);
    return fade.value(now);
}

std::vector<Rect> hstackCentred(const Rect& bounds, const std::vector<float>& widths,
                                const std::vector<bool>& hidden, float height, float spacing) {
    std::vector<Rect> out(widths.size());
    float total = 0;
    int shown = 0;
    for (size_t i = 0; i < widths.size(); ++i) {
        if (i < hidden.size() && hidden[i]) continue;
        total += widths[i];
        ++shown;
    }
    if (shown > 1) total += spacing * static_cast<float>(shown - 1);
    float x = bounds.midX() - total / 2;
    float y = bounds.midY() - height / 2;
    for (size_t i = 0; i < widths.size(); ++i) {
        if (i < hidden.size() && hidden[i]) continue;
        out[i] = {x, y, widths[i], height};
        x += widths[i] + spacing;
    }
    return out;
}

UVRect aspectFillUV(float imageW, float imageH, float frameW, float frameH) {
    UVRect uv;
    if (imageW <= 0 || imageH <= 0 || frameW <= 0 || frameH <= 0) return uv;
    float imageAspect = imageW / imageH;
    float frameAspect = frameW / frameH;
    if (imageAspect > frameAspect) {
        float visible = frameAspect / imageAspect;  // fraction of the width shown
        uv.uv0.x = (1 - visible) / 2;
        uv.uv1.x = 1 - uv.uv0.x;
    } else if (imageAspect < frameAspect) {
        float visible = imageAspect / frameAspect;
        uv.uv0.y = (1 - visible) / 2;
        uv.uv1.y = 1 - uv.uv0.y;
    }
    return uv;
}

}  // namespace kavelin
