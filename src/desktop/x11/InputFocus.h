// Whether one of Orvane's windows has the X keyboard focus, asked of the X
// server. GTK's own "is-active" turns false while any client holds a
// keyboard grab (a global hotkey's passive grab included), so a hotkey
// handler cannot rely on it.
#pragma once

#include <gtk/gtk.h>

namespace orvane {

bool HasInputFocus(GtkWindow* window);

} // namespace orvane
