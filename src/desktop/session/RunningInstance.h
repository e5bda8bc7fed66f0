// The running Orvane, as the session bus knows it: the process that owns
// the application's bus name.
#pragma once

#include <gio/gio.h>
#include <optional>

namespace orvane {

// The pid of the process owning the bus name on that bus
// (org.freedesktop.DBus.GetConnectionUnixProcessID); nothing when nobody
// owns it or the bus does not answer.
std::optional<int> PidOfBusName(GDBusConnection* bus, const char* name);

// The pid of the process owning "com.tarnwick.orvane" on the session bus;
// nothing when no instance runs or the bus cannot be reached.
std::optional<int> RunningInstancePid();

} // namespace orvane
