// Whether one of Orvane's windows has the X keyboard focus, asked of the X
// server. GTK's own "is-active" turns false while any client holds a
// keyboard grab (a global hotkey's passive grab included), so a hotkey
// handler cannot rely on it.
#pragma once

#include <cstdint>
#include <gtk/gtk.h>

namespace orvane {

bool HasInputFocus(GtkWindow* window);

// Asks the window manager to activate the window (raise it and give it the
// keyboard) with _NET_ACTIVE_WINDOW, on behalf of the user action at
// `timestamp` (the X server time of a key press; 0 means now). The request
// says it comes from the user (source indication 2): it answers a key press
// of the user's, and a window manager refuses an application's request
// while the user has just typed into another window. A window manager
// ignores the request until it manages the window, so it is sent once the
// window is on the screen. Does nothing for a window that is not mapped.
void RequestActivation(GtkWindow* window, uint32_t timestamp);

} // namespace orvane
