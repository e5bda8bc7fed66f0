#include "desktop/session/GdkScreens.h"

#include <gdk/gdk.h>

namespace orvane {

namespace {
Rect FromGdk(const GdkRectangle& r) {
  return {double(r.x), double(r.y), double(r.width), double(r.height)};
}
} // namespace

Rect DesktopRectFromTopLeft(const Rect& top_left, const Rect& primary) {
  return {top_left.x - primary.x, primary.y + primary.height - (top_left.y + top_left.height),
          top_left.width, top_left.height};
}

Rect TopLeftRectFromDesktop(const Rect& desktop, const Rect& primary) {
  return {desktop.x + primary.x, primary.y + primary.height - (desktop.y + desktop.height),
          desktop.width, desktop.height};
}

Point DesktopPointFromTopLeft(Point top_left, const Rect& primary) {
  return {top_left.x - primary.x, primary.y + primary.height - top_left.y};
}

Rect PrimaryMonitorTopLeft() {
  GdkDisplay* display = gdk_display_get_default();
  if (!display || gdk_display_get_n_monitors(display) < 1)
    return {};
  GdkRectangle geometry;
  gdk_monitor_get_geometry(gdk_display_get_monitor(display, 0), &geometry);
  return FromGdk(geometry);
}

std::vector<Screen> GdkScreens::screens() const {
  std::vector<Screen> result;
  GdkDisplay* display = gdk_display_get_default();
  if (!display)
    return result;
  int count = gdk_display_get_n_monitors(display);
  Rect primary = PrimaryMonitorTopLeft();
  for (int i = 0; i < count; ++i) {
    GdkMonitor* monitor = gdk_display_get_monitor(display, i);
    GdkRectangle geometry, workarea;
    gdk_monitor_get_geometry(monitor, &geometry);
    gdk_monitor_get_workarea(monitor, &workarea);
    result.push_back(Screen{i, DesktopRectFromTopLeft(FromGdk(geometry), primary),
                            DesktopRectFromTopLeft(FromGdk(workarea), primary)});
  }
  return result;
}

Point GdkScreens::mouseLocation() const {
  GdkDisplay* display = gdk_display_get_default();
  if (!display)
    return {};
  GdkSeat* seat = gdk_display_get_default_seat(display);
  GdkDevice* pointer = seat ? gdk_seat_get_pointer(seat) : nullptr;
  if (!pointer)
    return {};
  int x = 0, y = 0;
  gdk_device_get_position(pointer, nullptr, &x, &y);
  return DesktopPointFromTopLeft({double(x), double(y)}, PrimaryMonitorTopLeft());
}

} // namespace orvane
