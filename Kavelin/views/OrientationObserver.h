#pragma once

#include <optional>

#include "Kavelin/Platform/Published.h"

namespace kavelin {

// The platform's numbering of interface orientations.
enum class UIInterfaceOrientation {
    unknown = 0,
    portrait = 1,
    portraitUpsideDown = 2,
    landscapeRight = 3,
    landscapeLeft = 4,
};

inline bool isLandscape(UIInterfaceOrientation o) {
    return o == UIInterfaceOrientation::landscapeRight ||
           o == UIInterfaceOrientation::landscapeLeft;
}
inline bool isPortrait(UIInterfaceOrientation o) {
    return o == UIInterfaceOrientation::portrait || o == UIInterfaceOrientation::portraitUpsideDown;
}

// The interface orientation of the player's window: landscape when the window is
// wider than tall. The window reports its size on creation and on every resize.
class OrientationObserver : public ObservableObject {
  public:
    Published<UIInterfaceOrientation> orientation{this, UIInterfaceOrientation::unknown};

    // With no window (`size` empty) the orientation keeps its previous value.
    void updateOrientation(std::optional<std::pair<int, int>> windowSize);
    bool isLandscape() const { return kavelin::isLandscape(orientation); }

    static UIInterfaceOrientation orientationFor(int width, int height);
};

// The device idiom: phone unless KAVELIN_IDIOM=pad.
bool deviceIsPad();

}  // namespace kavelin
