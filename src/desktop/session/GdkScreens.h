// Screens from GDK's monitors, on X11 and Wayland alike; the first monitor is
// the primary.
#pragma once

#include "desktop/Screens.h"

namespace orvane {

class GdkScreens final : public Screens {
public:
  std::vector<Screen> screens() const override;
  Point mouseLocation() const override;
};

// Conversions between the top-left space that X11 and the Wayland
// compositors use (origin at the top left, y down) and the desktop space
// (bottom left of the primary, y up). `primary` is the primary monitor's
// geometry in the top-left space.
Rect DesktopRectFromTopLeft(const Rect& top_left, const Rect& primary);
Rect TopLeftRectFromDesktop(const Rect& desktop, const Rect& primary);
Point DesktopPointFromTopLeft(Point top_left, const Rect& primary);
// The primary monitor's geometry in the top-left space, or an empty rectangle without a display.
Rect PrimaryMonitorTopLeft();

} // namespace orvane
