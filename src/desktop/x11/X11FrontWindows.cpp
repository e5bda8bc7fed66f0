#include "desktop/x11/X11FrontWindows.h"

#include "base/Text.h"
#include "desktop/session/GdkScreens.h"
#include "desktop/x11/XSelectionReader.h"

#include <X11/Xatom.h>
#include <X11/Xutil.h>
#include <gdk/gdkx.h>
#include <vector>

namespace orvane {

namespace {

// The items of a window property of the given type and format, or nothing.
std::optional<std::vector<long>> CardinalItems(Display* display, Window window, const char* name,
                                               Atom type, unsigned long most) {
  Atom actual = None;
  int format = 0;
  unsigned long items = 0, after = 0;
  unsigned char* data = nullptr;
  int status = XGetWindowProperty(display, window, XInternAtom(display, name, False), 0, long(most),
                                  False, type, &actual, &format, &items, &after, &data);
  std::optional<std::vector<long>> result;
  if (status == Success && actual == type && format == 32 && data) {
    const long* values = reinterpret_cast<const long*>(data);
    result = std::vector<long>(values, values + items);
  }
  if (data)
    XFree(data);
  return result;
}

std::optional<std::string> Utf8Property(Display* display, Window window, const char* name) {
  Atom actual = None;
  int format = 0;
  unsigned long items = 0, after = 0;
  unsigned char* data = nullptr;
  Atom utf8 = XInternAtom(display, "UTF8_STRING", False);
  int status = XGetWindowProperty(display, window, XInternAtom(display, name, False), 0, 4096,
                                  False, utf8, &actual, &format, &items, &after, &data);
  std::optional<std::string> result;
  if (status == Success && actual == utf8 && format == 8 && data)
    result = ValidUtf8({reinterpret_cast<const char*>(data), items});
  if (data)
    XFree(data);
  return result;
}

std::string LegacyTitle(Display* display, Window window) {
  XTextProperty property{};
  std::string title;
  if (!XGetWMName(display, window, &property) || !property.value)
    return title;
  char** list = nullptr;
  int count = 0;
  if (Xutf8TextPropertyToTextList(display, &property, &list, &count) >= Success && list &&
      count > 0 && list[0])
    title = ValidUtf8(list[0]);
  if (list)
    XFreeStringList(list);
  XFree(property.value);
  return title;
}

// Four frame extents (left, right, top, bottom), when they are sane.
std::optional<std::vector<long>> Extents(Display* display, Window window, const char* name) {
  std::optional<std::vector<long>> extents = CardinalItems(display, window, name, XA_CARDINAL, 4);
  if (!extents || extents->size() != 4)
    return std::nullopt;
  for (long value : *extents)
    if (value < 0 || value > 10000)
      return std::nullopt;
  return extents;
}

// The outer frame in root coordinates: the client area grown by the frame
// the window manager draws (_NET_FRAME_EXTENTS) and shrunk by the shadow a
// client draws itself (_GTK_FRAME_EXTENTS); without extents, the top-level
// ancestor the window manager reparented the client into.
std::optional<Rect> OuterFrame(Display* display, Window window) {
  Window root = DefaultRootWindow(display);
  XWindowAttributes attributes;
  if (!XGetWindowAttributes(display, window, &attributes))
    return std::nullopt;
  int x = 0, y = 0;
  Window child = None;
  if (!XTranslateCoordinates(display, window, root, 0, 0, &x, &y, &child))
    return std::nullopt;
  Rect frame{double(x), double(y), double(attributes.width), double(attributes.height)};
  std::optional<std::vector<long>> wm = Extents(display, window, "_NET_FRAME_EXTENTS");
  std::optional<std::vector<long>> client = Extents(display, window, "_GTK_FRAME_EXTENTS");
  if (wm || client) {
    auto grow = [&frame](const std::vector<long>& e, double sign) {
      frame.x -= sign * double(e[0]);
      frame.y -= sign * double(e[2]);
      frame.width += sign * double(e[0] + e[1]);
      frame.height += sign * double(e[2] + e[3]);
    };
    if (wm)
      grow(*wm, 1);
    if (client)
      grow(*client, -1);
  } else {
    Window top = window;
    for (int depth = 0; depth < 32; ++depth) {
      Window parent_root = None, parent = None, *children = nullptr;
      unsigned int count = 0;
      if (!XQueryTree(display, top, &parent_root, &parent, &children, &count))
        return std::nullopt;
      if (children)
        XFree(children);
      if (parent == root || parent == None)
        break;
      top = parent;
    }
    if (top != window) {
      Window unused = None;
      int tx = 0, ty = 0;
      unsigned int width = 0, height = 0, border = 0, depth = 0;
      if (XGetGeometry(display, top, &unused, &tx, &ty, &width, &height, &border, &depth))
        frame = {double(tx), double(ty), double(width + 2 * border), double(height + 2 * border)};
    }
  }
  if (frame.width <= 0 || frame.height <= 0)
    return std::nullopt;
  return frame;
}

} // namespace

std::optional<FrontWindow> X11FrontWindows::frontWindow() const {
  GdkDisplay* gdk_display = gdk_display_get_default();
  if (!gdk_display || !GDK_IS_X11_DISPLAY(gdk_display))
    return std::nullopt;
  // GDK checks the window manager's _NET_SUPPORTING_WM_CHECK window first,
  // so a value left behind by a window manager that is gone does not count.
  if (!gdk_x11_screen_supports_net_wm_hint(gdk_display_get_default_screen(gdk_display),
                                           gdk_atom_intern_static_string("_NET_ACTIVE_WINDOW")))
    return std::nullopt;
  Display* display = GDK_DISPLAY_XDISPLAY(gdk_display);
  Window root = DefaultRootWindow(display);
  // The window may vanish between any two requests.
  gdk_x11_display_error_trap_push(gdk_display);
  std::optional<FrontWindow> front;
  std::optional<std::vector<long>> active =
      CardinalItems(display, root, "_NET_ACTIVE_WINDOW", XA_WINDOW, 1);
  XWindowAttributes attributes;
  if (active && active->size() == 1 && (*active)[0] != 0 &&
      XGetWindowAttributes(display, Window((*active)[0]), &attributes)) {
    Window window = Window((*active)[0]);
    FrontWindow found;
    found.id = window;
    found.pid = PidOfWindowClient(display, window).value_or(0);
    if (found.pid <= 0) {
      std::optional<std::vector<long>> pid =
          CardinalItems(display, window, "_NET_WM_PID", XA_CARDINAL, 1);
      found.pid =
          pid && pid->size() == 1 && (*pid)[0] > 0 && (*pid)[0] < (1L << 31) ? int((*pid)[0]) : 0;
    }
    XClassHint hint{};
    if (XGetClassHint(display, window, &hint)) {
      found.wm_instance = hint.res_name ? hint.res_name : "";
      found.wm_class = hint.res_class ? hint.res_class : "";
      if (hint.res_name)
        XFree(hint.res_name);
      if (hint.res_class)
        XFree(hint.res_class);
    }
    found.title = Utf8Property(display, window, "_NET_WM_NAME").value_or("");
    if (found.title.empty())
      found.title = LegacyTitle(display, window);
    if (std::optional<Rect> frame = OuterFrame(display, window))
      found.frame = DesktopRectFromTopLeft(*frame, PrimaryMonitorTopLeft());
    front = std::move(found);
  }
  if (gdk_x11_display_error_trap_pop(gdk_display) != 0)
    return std::nullopt;
  return front;
}

} // namespace orvane
