#pragma once

#include <memory>

#include "Kavelin/Platform/MainQueue.h"
#include "Kavelin/Platform/ScreenPresenter.h"

namespace kavelin {

// The player screen a window draws: the view tree over the controllers, and the
// window's textures and redraw requests handed to the views. The views run on
// `queue`.
std::shared_ptr<ScreenViews> makePlayerScreenViews(std::shared_ptr<MainQueue> queue);

}  // namespace kavelin
