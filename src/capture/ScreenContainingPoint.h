#pragma once

#include "desktop/Screens.h"

#include <optional>
#include <vector>

namespace orvane {

// The first screen whose frame holds the point (minimum edges inside,
// maximum edges outside); else the nearest one, the earlier on a tie.
std::optional<Screen> ScreenContainingPoint(const std::vector<Screen>& screens, Point p);

// The screen that holds the centre of a window's frame.
std::optional<Screen> ScreenOfFrame(const std::vector<Screen>& screens, const Rect& frame);

} // namespace orvane
