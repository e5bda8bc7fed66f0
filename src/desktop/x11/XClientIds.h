// Which process an X client belongs to, by the server's XRes extension.
#pragma once

#include <X11/Xlib.h>
#include <optional>

namespace orvane {

// The process of the X client that created the window, by XRes (the
// window's own _NET_WM_PID is not reliable: helper windows have none).
// Callers catch X errors themselves.
std::optional<int> PidOfWindowClient(Display* display, unsigned long window);

// Whether the display's server answers XRes client-id queries (version 1.2
// or later). The server is asked once per connection; the answer is kept
// until the connection is closed. Callers catch X errors themselves.
bool ClientIdsSupported(Display* display);

} // namespace orvane
