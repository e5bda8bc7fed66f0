#include "desktop/x11/WindowFrames.h"

#include "desktop/x11/X11Screens.h"

#include <cmath>
#include <gdk/gdkx.h>
#include <sstream>

namespace orvane {

namespace {
struct Decorations {
  int left = 0, top = 0, extra_width = 0, extra_height = 0;
};

Decorations DecorationsOf(GtkWindow* window) {
  Decorations d;
  GdkWindow* gdk = gtk_widget_get_window(GTK_WIDGET(window));
  if (!gdk || !gtk_widget_get_mapped(GTK_WIDGET(window)))
    return d;
  GdkRectangle outer;
  gdk_window_get_frame_extents(gdk, &outer);
  int x = 0, y = 0;
  gdk_window_get_origin(gdk, &x, &y);
  d.left = x - outer.x;
  d.top = y - outer.y;
  d.extra_width = outer.width - gdk_window_get_width(gdk);
  d.extra_height = outer.height - gdk_window_get_height(gdk);
  return d;
}
} // namespace

Rect WindowFrame(GtkWindow* window) {
  Rect primary = PrimaryMonitorX11();
  GdkWindow* gdk = gtk_widget_get_window(GTK_WIDGET(window));
  if (gdk && gtk_widget_get_mapped(GTK_WIDGET(window))) {
    GdkRectangle outer;
    gdk_window_get_frame_extents(gdk, &outer);
    return DesktopRectFromX11(
        {double(outer.x), double(outer.y), double(outer.width), double(outer.height)}, primary);
  }
  int x = 0, y = 0, width = 0, height = 0;
  gtk_window_get_position(window, &x, &y);
  gtk_window_get_size(window, &width, &height);
  return DesktopRectFromX11({double(x), double(y), double(width), double(height)}, primary);
}

void SetWindowFrame(GtkWindow* window, const Rect& frame) {
  Decorations d = DecorationsOf(window);
  Rect x11 = X11RectFromDesktop(frame, PrimaryMonitorX11());
  int width = std::max(1, int(std::lround(frame.width)) - d.extra_width);
  int height = std::max(1, int(std::lround(frame.height)) - d.extra_height);
  // With the default north-west gravity the window manager puts the frame's
  // top-left corner where we ask.
  gtk_window_move(window, int(std::lround(x11.x)), int(std::lround(x11.y)));
  gtk_window_resize(window, width, height);
}

bool IsOnActiveWorkspace(GtkWindow* window) {
  GdkWindow* gdk = gtk_widget_get_window(GTK_WIDGET(window));
  if (!gdk || !GDK_IS_X11_WINDOW(gdk))
    return true;
  guint32 desktop = gdk_x11_window_get_desktop(gdk);
  if (desktop == 0xFFFFFFFF) // on every workspace
    return true;
  return desktop == gdk_x11_screen_get_current_desktop(gdk_window_get_screen(gdk));
}

std::string FrameString(const Rect& frame) {
  return NumberText(frame.x) + " " + NumberText(frame.y) + " " + NumberText(frame.width) + " " +
         NumberText(frame.height);
}

bool ParseFrameString(const std::string& text, Rect* frame) {
  std::istringstream in(text);
  Rect parsed;
  if (!(in >> parsed.x >> parsed.y >> parsed.width >> parsed.height))
    return false;
  if (parsed.width <= 0 || parsed.height <= 0)
    return false;
  *frame = parsed;
  return true;
}

} // namespace orvane
