// Questions to the session bus's own daemon.
#pragma once

#include <gio/gio.h>

namespace orvane {

// Whether the name has an owner on the bus; false without a bus or an answer
// within `timeout_ms`. Never starts a service to own it.
bool BusNameHasOwner(GDBusConnection* bus, const char* name, int timeout_ms = 1000);

} // namespace orvane
