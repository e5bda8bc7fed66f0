// The running Orvane, as the session bus knows it: the process that owns
// the application's bus name.
#pragma once

#include <optional>

namespace orvane {

// The pid of the process owning "com.tarnwick.orvane" on the session bus
// (org.freedesktop.DBus.GetConnectionUnixProcessID); nothing when no
// instance runs or the bus cannot be reached.
std::optional<int> RunningInstancePid();

} // namespace orvane
