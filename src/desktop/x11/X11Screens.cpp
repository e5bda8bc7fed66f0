#include "desktop/x11/X11Screens.h"

#include <gdk/gdk.h>

namespace orvane {

namespace {
Rect FromGdk(const GdkRectangle& r) {
  return {double(r.x), double(r.y), double(r.width), double(r.height)};
}
} // namespace

Rect DesktopRectFromX11(const Rect& x11, const Rect& primary) {
  return {x11.x - primary.x, primary.y + primary.height - (x11.y + x11.height), x11.width,
          x11.height};
}

Rect X11RectFromDesktop(const Rect& desktop, const Rect& primary) {
  return {desktop.x + primary.x, primary.y + primary.height - (desktop.y + desktop.height),
          desktop.width, desktop.height};
}

Point DesktopPointFromX11(Point x11, const Rect& primary) {
  return {x11.x - primary.x, primary.y + primary.height - x11.y};
}

Rect PrimaryMonitorX11() {
  GdkDisplay* display = gdk_display_get_default();
  if (!display || gdk_display_get_n_monitors(display) < 1)
    return {};
  GdkRectangle geometry;
  gdk_monitor_get_geometry(gdk_display_get_monitor(display, 0), &geometry);
  return FromGdk(geometry);
}

std::vector<Screen> X11Screens::screens() const {
  std::vector<Screen> result;
  GdkDisplay* display = gdk_display_get_default();
  if (!display)
    return result;
  int count = gdk_display_get_n_monitors(display);
  Rect primary = PrimaryMonitorX11();
  for (int i = 0; i < count; ++i) {
    GdkMonitor* monitor = gdk_display_get_monitor(display, i);
    GdkRectangle geometry, workarea;
    gdk_monitor_get_geometry(monitor, &geometry);
    gdk_monitor_get_workarea(monitor, &workarea);
    result.push_back(Screen{i, DesktopRectFromX11(FromGdk(geometry), primary),
                            DesktopRectFromX11(FromGdk(workarea), primary)});
  }
  return result;
}

Point X11Screens::mouseLocation() const {
  GdkDisplay* display = gdk_display_get_default();
  if (!display)
    return {};
  GdkSeat* seat = gdk_display_get_default_seat(display);
  GdkDevice* pointer = seat ? gdk_seat_get_pointer(seat) : nullptr;
  if (!pointer)
    return {};
  int x = 0, y = 0;
  gdk_device_get_position(pointer, nullptr, &x, &y);
  return DesktopPointFromX11({double(x), double(y)}, PrimaryMonitorX11());
}

} // namespace orvane
