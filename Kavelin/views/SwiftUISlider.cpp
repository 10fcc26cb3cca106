#include "Kavelin/views/SwiftUISlider.h"

#include <algorithm>
#include <cmath>

namespace kavelin {

float SwiftUISlider::controlMaximum(double maxValue) {
    return static_cast<float>(std::max(maxValue, 0.01) * 100);
}

float SwiftUISlider::controlValue(double value, double maxValue) {
    return static_cast<float>(std::min(value, maxValue) * 100);
}

void SwiftUISlider::Coordinator::valueChanged(const Control& control) {
    double seconds = static_cast<double>(control.value) / 100;
    // Float round-offs would otherwise echo back and forth with the binding.
    if (value.get && value.set && std::abs(seconds - value.get()) > 0.001) value.set(seconds);
}

void SwiftUISlider::Coordinator::dragStarted() {
    isDragging = true;
    if (onEditingChanged) onEditingChanged(true);
}

void SwiftUISlider::Coordinator::dragEnded() {
    isDragging = false;
    if (onEditingChanged) onEditingChanged(false);
}

SwiftUISlider::SwiftUISlider(Binding value, bool isLandscape, double maxValue,
                             std::function<void(bool)> onEditingChanged) {
    // makeUIView
    configureSlider(isLandscape);
    coordinator_.lastIsLandscape = isLandscape;
    coordinator_.value = std::move(value);
    coordinator_.maxValue = maxValue;
    coordinator_.onEditingChanged = std::move(onEditingChanged);
    control_.minimumValue = 0;
    control_.maximumValue = controlMaximum(maxValue);
    control_.value =
        std::clamp(controlValue(coordinator_.value.get ? coordinator_.value.get() : 0, maxValue),
                   0.0f, control_.maximumValue);
}

void SwiftUISlider::updateUIView(Binding value, bool isLandscape, double maxValue,
                                 std::function<void(bool)> onEditingChanged) {
    coordinator_.value = std::move(value);
    coordinator_.maxValue = maxValue;
    coordinator_.onEditingChanged = std::move(onEditingChanged);
    float maximum = controlMaximum(maxValue);
    if (maximum != control_.maximumValue) control_.maximumValue = maximum;
    // The playback clock does not move the thumb under the finger.
    if (!coordinator_.isDragging && coordinator_.value.get)
        control_.value = std::clamp(controlValue(coordinator_.value.get(), maxValue),
                                    control_.minimumValue, control_.maximumValue);
    if (isLandscape != coordinator_.lastIsLandscape) {
        configureSlider(isLandscape);
        coordinator_.lastIsLandscape = isLandscape;
    }
}

void SwiftUISlider::configureSlider(bool isLandscape) {
    control_.thumbSize = UI::thumbSize(isLandscape);
    control_.trackHeight = UI::trackHeight(isLandscape);
    ++control_.configurations;
}

Rect SwiftUISlider::thumbRect(const Control& control, const Rect& r) {
    float range = control.maximumValue - control.minimumValue;
    float t = range > 0 ? (control.value - control.minimumValue) / range : 0;
    t = std::clamp(t, 0.0f, 1.0f);
    float travel = std::max(0.0f, r.w - control.thumbSize);
    return {r.x + travel * t, r.midY() - control.thumbSize / 2, control.thumbSize,
            control.thumbSize};
}

void SwiftUISlider::draw(Frame& frame, const Rect& r, bool enabled) {
    Rect thumb = thumbRect(control_, r);
    float grow = std::max(0.0f, UI::minimumHitSize - thumb.w) / 2;
    Rect hit = thumb.inset(-grow);

    if (enabled && !coordinator_.isDragging && frame.pressedIn(hit) && !frame.tapConsumed()) {
        dragStartValue_ = control_.value;
        dragStartX_ = frame.pointer().x;
        coordinator_.dragStarted();
    }
    if (coordinator_.isDragging) {
        // Drags, taps and releases that began on the thumb are ours.
        frame.consumeTap();
        float travel = std::max(1.0f, r.w - control_.thumbSize);
        float range = control_.maximumValue - control_.minimumValue;
        float next =
            std::clamp(dragStartValue_ + (frame.pointer().x - dragStartX_) / travel * range,
                       control_.minimumValue, control_.maximumValue);
        if (next != control_.value) {
            control_.value = next;
            coordinator_.valueChanged(control_);
        }
        if (!frame.isDown()) coordinator_.dragEnded();
        thumb = thumbRect(control_, r);
    }

    Rect track{r.x, r.midY() - control_.trackHeight / 2, r.w, control_.trackHeight};
    float split = thumb.midX();
    if (split > track.x)
        frame.stretchableAsset("slider_thik", {track.x, track.y, split - track.x, track.h},
                               UI::capInset);
    if (split < track.right())
        frame.stretchableAsset("slider", {split, track.y, track.right() - split, track.h},
                               UI::capInset);
    frame.asset("Circle", thumb);
}

}  // namespace kavelin
