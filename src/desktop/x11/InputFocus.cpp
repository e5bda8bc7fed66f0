#include "desktop/x11/InputFocus.h"

#include <X11/Xlib.h>
#include <gdk/gdkx.h>

namespace orvane {

bool HasInputFocus(GtkWindow* window) {
  GdkWindow* gdk = gtk_widget_get_window(GTK_WIDGET(window));
  if (!gdk || !GDK_IS_X11_WINDOW(gdk) || !gtk_widget_get_mapped(GTK_WIDGET(window)))
    return false;
  Display* display = GDK_WINDOW_XDISPLAY(gdk);
  // A window on the way up may vanish between the requests.
  GdkDisplay* gdk_display = gdk_window_get_display(gdk);
  gdk_x11_display_error_trap_push(gdk_display);
  bool found = false;
  Window focus = None;
  int revert = 0;
  XGetInputFocus(display, &focus, &revert);
  // The focus may rest on the toplevel or on a window inside it.
  Window toplevel = GDK_WINDOW_XID(gdk);
  while (focus != None && focus != PointerRoot) {
    if (focus == toplevel) {
      found = true;
      break;
    }
    Window root = None, parent = None;
    Window* children = nullptr;
    unsigned int count = 0;
    if (!XQueryTree(display, focus, &root, &parent, &children, &count))
      break;
    if (children)
      XFree(children);
    if (parent == root)
      break;
    focus = parent;
  }
  gdk_x11_display_error_trap_pop_ignored(gdk_display);
  return found;
}

void RequestActivation(GtkWindow* window, uint32_t timestamp) {
  GdkWindow* gdk = gtk_widget_get_window(GTK_WIDGET(window));
  if (!gdk || !GDK_IS_X11_WINDOW(gdk) || !gtk_widget_get_mapped(GTK_WIDGET(window)))
    return;
  GdkDisplay* gdk_display = gdk_window_get_display(gdk);
  Display* display = GDK_WINDOW_XDISPLAY(gdk);
  XEvent event = {};
  event.xclient.type = ClientMessage;
  event.xclient.send_event = True;
  event.xclient.display = display;
  event.xclient.window = GDK_WINDOW_XID(gdk);
  event.xclient.message_type =
      gdk_x11_get_xatom_by_name_for_display(gdk_display, "_NET_ACTIVE_WINDOW");
  event.xclient.format = 32;
  event.xclient.data.l[0] = 2; // source indication: a user action
  event.xclient.data.l[1] = long(timestamp);
  event.xclient.data.l[2] = None; // the requestor's active window: none
  gdk_x11_display_error_trap_push(gdk_display);
  XSendEvent(display, GDK_WINDOW_XID(gdk_screen_get_root_window(gdk_window_get_screen(gdk))), False,
             SubstructureRedirectMask | SubstructureNotifyMask, &event);
  XFlush(display);
  gdk_x11_display_error_trap_pop_ignored(gdk_display);
}

} // namespace orvane
