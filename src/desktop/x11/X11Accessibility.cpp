#include "desktop/x11/X11Accessibility.h"

#include <gdk/gdk.h>
#include <gdk/gdkx.h>

namespace orvane {

namespace {
bool OnX11() {
  GdkDisplay* display = gdk_display_get_default();
  return display && GDK_IS_X11_DISPLAY(display);
}

bool HasEwmhWindowManager() {
  GdkScreen* screen = gdk_screen_get_default();
  // GDK validates the _NET_SUPPORTING_WM_CHECK window before it reads
  // _NET_SUPPORTED, so this is the EWMH handshake itself.
  return screen && gdk_x11_screen_supports_net_wm_hint(
                       screen, gdk_atom_intern_static_string("_NET_ACTIVE_WINDOW"));
}
} // namespace

bool X11Accessibility::isTrusted() const {
  return OnX11() && HasEwmhWindowManager();
}

std::string X11Accessibility::reasonNotTrusted() const {
  if (!OnX11())
    return "Orvane is not running on an X11 display, so it cannot read the selection of other "
           "applications or move their windows. Start your session on X11 (or run Orvane "
           "through XWayland with GDK_BACKEND=x11).";
  if (!HasEwmhWindowManager())
    return "No EWMH window manager answers on this display, so Orvane cannot find or move other "
           "applications' windows. Run a standard window manager.";
  return "";
}

} // namespace orvane
