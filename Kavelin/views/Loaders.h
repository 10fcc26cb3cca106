#pragma once

#include <vector>

#include "Kavelin/views/Frame.h"

namespace kavelin {

// Child-friendly waiting animations. Each one starts on its first frame (its
// appearance) and runs until the view is dropped; a new view starts afresh.
// None of them is on the player screen: they are the library's spare loaders.

// A gradient ring spinning once every 1.2 s around a rocket pulsing 1.0 -> 1.2.
class KidsRocketLoader {
  public:
    struct UI {
        static constexpr float ringSize = 90;
        static constexpr float ringLineWidth = 8;
        static constexpr float rocketSize = 40;
        static constexpr double rotationPeriod = 1.2;
        static constexpr double pulseDuration = 0.6;
        static constexpr float pulseScale = 1.2f;
    };
    void draw(Frame& frame, ImVec2 centre);
    // Rotation in degrees and rocket scale `t` seconds after appearing.
    static float rotation(double t);
    static float rocketScale(double t);
    bool rotate() const { return rotate_; }
    bool scale() const { return scale_; }

  private:
    bool rotate_ = false;
    bool scale_ = false;
    double start_ = 0;
};

// A tortoise that hops up 15 points on a springy repeat.
class KidsJumpLoader {
  public:
    struct UI {
        static constexpr float width = 60;
        static constexpr float height = 40;
        static constexpr float jumpHeight = 15;
        static constexpr double response = 0.4;
        static constexpr double dampingFraction = 0.5;
    };
    void draw(Frame& frame, ImVec2 centre);
    static float offset(double t);
    bool jump() const { return jump_; }

  private:
    bool jump_ = false;
    double start_ = 0;
};

}  // namespace kavelin
