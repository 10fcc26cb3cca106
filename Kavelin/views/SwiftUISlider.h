#pragma once

#include <functional>
#include <optional>

#include "Kavelin/views/Frame.h"

namespace kavelin {

// The seek bar: a slider in hundredths of a second with the library's own track
// and thumb artwork, sized by orientation, that reports the start and end of a
// drag apart from value changes.
class SwiftUISlider {
  public:
    struct UI {
        static constexpr float thumbLandscape = 45;
        static constexpr float thumbPortrait = 30;
        static constexpr float trackLandscape = 15;
        static constexpr float trackPortrait = 6;
        static constexpr float capInset = 8;
        // Fingers need room: a small thumb is still this easy to grab.
        static constexpr float minimumHitSize = 44;
        static float thumbSize(bool isLandscape) {
            return isLandscape ? thumbLandscape : thumbPortrait;
        }
        static float trackHeight(bool isLandscape) {
            return isLandscape ? trackLandscape : trackPortrait;
        }
    };

    // A two-way binding to the seconds shown.
    struct Binding {
        std::function<double()> get;
        std::function<void(double)> set;
    };

    // The native control the slider drives: hundredths of a second, single precision.
    struct Control {
        float minimumValue = 0;
        float maximumValue = 1;
        float value = 0;
        float thumbSize = 0;
        float trackHeight = 0;
        int configurations = 0;  // how often the artwork was (re)configured
    };

    // Target of the control's events.
    struct Coordinator {
        Binding value;
        double maxValue = 0;
        bool lastIsLandscape = false;
        bool isDragging = false;
        std::function<void(bool)> onEditingChanged;

        void valueChanged(const Control& control);
        void dragStarted();
        void dragEnded();
    };

    SwiftUISlider(Binding value, bool isLandscape, double maxValue,
                  std::function<void(bool)> onEditingChanged = {});

    // The refresh on every rebuild of the screen (new binding, orientation, maximum).
    void updateUIView(Binding value, bool isLandscape, double maxValue,
                      std::function<void(bool)> onEditingChanged);

    // Handles the pointer (front to back) unless disabled, then draws into `r`.
    void draw(Frame& frame, const Rect& r, bool enabled = true);

    const Control& control() const { return control_; }
    const Coordinator& coordinator() const { return coordinator_; }

    static float controlMaximum(double maxValue);
    static float controlValue(double value, double maxValue);
    // Where the thumb sits in `r` for the control's present value.
    static Rect thumbRect(const Control& control, const Rect& r);

  private:
    void configureSlider(bool isLandscape);

    Control control_;
    Coordinator coordinator_;
    float dragStartValue_ = 0;
    float dragStartX_ = 0;
};

}  // namespace kavelin
