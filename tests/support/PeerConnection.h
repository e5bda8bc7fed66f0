// A connection of its own to the session bus, as another process on the bus
// would have: its own unique name, its own names and signals.
#pragma once

#include "base/GObjectPtr.h"

#include <gio/gio.h>

namespace orvane {

inline GObjectPtr<GDBusConnection> NewPeerConnection() {
  GCharPtr address(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SESSION, nullptr, nullptr));
  if (!address)
    return GObjectPtr<GDBusConnection>();
  return GObjectPtr<GDBusConnection>::adopt(g_dbus_connection_new_for_address_sync(
      address.get(),
      GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                           G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, nullptr));
}

} // namespace orvane
