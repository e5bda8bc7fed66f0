// Screens from GDK's monitors; the first monitor is the primary.
#pragma once

#include "desktop/Screens.h"

namespace orvane {

class X11Screens final : public Screens {
public:
  std::vector<Screen> screens() const override;
  Point mouseLocation() const override;
};

// Conversions between X11 root coordinates (top left, y down) and the desktop
// space (bottom left of the primary, y up). `primary` is the primary
// monitor's geometry in X11 coordinates.
Rect DesktopRectFromX11(const Rect& x11, const Rect& primary);
Rect X11RectFromDesktop(const Rect& desktop, const Rect& primary);
Point DesktopPointFromX11(Point x11, const Rect& primary);
// The primary monitor's X11 geometry, or an empty rectangle without a display.
Rect PrimaryMonitorX11();

} // namespace orvane
