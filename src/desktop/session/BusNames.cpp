#include "desktop/session/BusNames.h"

namespace orvane {

bool BusNameHasOwner(GDBusConnection* bus, const char* name, int timeout_ms) {
  if (!bus)
    return false;
  GVariant* reply = g_dbus_connection_call_sync(
      bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameHasOwner",
      g_variant_new("(s)", name), G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NO_AUTO_START,
      timeout_ms, nullptr, nullptr);
  if (!reply)
    return false;
  gboolean has_owner = FALSE;
  g_variant_get(reply, "(b)", &has_owner);
  g_variant_unref(reply);
  return has_owner;
}

} // namespace orvane
