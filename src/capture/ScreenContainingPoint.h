#pragma once

#include "desktop/Screens.h"

#include <optional>
#include <vector>

namespace orvane {

// The first screen whose frame holds the point (minimum edges inside,
// maximum edges outside); else the nearest one, the earlier on a tie.
std::optional<Screen> ScreenContainingPoint(const std::vector<Screen>& screens, Point p);

} // namespace orvane
