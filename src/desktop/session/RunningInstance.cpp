#include "desktop/session/RunningInstance.h"

#include "base/BuildInfo.h"
#include "base/GObjectPtr.h"

namespace orvane {

namespace {
// The bus daemon answers at once; the bound only guards against a stuck bus.
constexpr int kBusCallTimeoutMs = 2000;
} // namespace

std::optional<int> PidOfBusName(GDBusConnection* bus, const char* name) {
  GVariantPtr reply(g_dbus_connection_call_sync(
      bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
      "GetConnectionUnixProcessID", g_variant_new("(s)", name), G_VARIANT_TYPE("(u)"),
      G_DBUS_CALL_FLAGS_NONE, kBusCallTimeoutMs, nullptr, nullptr));
  if (!reply)
    return std::nullopt; // nobody owns the name
  guint32 pid = 0;
  g_variant_get(reply.get(), "(u)", &pid);
  if (pid == 0 || pid > guint32(G_MAXINT))
    return std::nullopt;
  return int(pid);
}

std::optional<int> RunningInstancePid() {
  auto connection =
      GObjectPtr<GDBusConnection>::adopt(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr));
  if (!connection)
    return std::nullopt;
  return PidOfBusName(connection.get(), kApplicationId);
}

} // namespace orvane
