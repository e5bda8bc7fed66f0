#include "desktop/session/DBusNotifications.h"

#include "base/SparLog.h"
#include "base/Text.h"

#include <gio/gio.h>

namespace orvane {

bool DBusNotifications::notify(const std::string& summary, const std::string& body) {
  GError* error = nullptr;
  GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
  if (!bus) {
    SparLog("notification: no session bus (%@)", error ? error->message : "?");
    g_clear_error(&error);
    return false;
  }
  GVariant* reply = g_dbus_connection_call_sync(
      bus, "org.freedesktop.Notifications", "/org/freedesktop/Notifications",
      "org.freedesktop.Notifications", "Notify",
      // D-Bus strings must be valid UTF-8.
      g_variant_new("(susssasa{sv}i)", "Orvane", 0u, "", ValidUtf8(summary).c_str(),
                    ValidUtf8(body).c_str(), nullptr, nullptr, -1),
      G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, int(reply_timeout_.count()), nullptr, &error);
  g_object_unref(bus);
  if (!reply) {
    SparLog("notification: not shown (%@)", error ? error->message : "?");
    g_clear_error(&error);
    return false;
  }
  g_variant_unref(reply);
  return true;
}

} // namespace orvane
