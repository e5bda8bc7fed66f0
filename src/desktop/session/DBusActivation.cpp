#include "desktop/session/DBusActivation.h"

#include "base/GObjectPtr.h"

#include <gio/gio.h>
#include <memory>

namespace orvane {

DBusActivation::DBusActivation(std::string bus_name, std::string object_path)
    : bus_name_(std::move(bus_name)), object_path_(std::move(object_path)) {}

std::string DBusActivation::StartupId(uint32_t timestamp) {
  return "_TIME" + std::to_string(timestamp);
}

void DBusActivation::requestActivation(uint32_t timestamp, Completion completion) {
  GErrorPtr error;
  auto connection =
      GObjectPtr<GDBusConnection>::adopt(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, error.out()));
  if (!connection) {
    completion(std::string(error ? error.message() : "no session bus"));
    return;
  }
  GVariantBuilder platform_data;
  g_variant_builder_init(&platform_data, G_VARIANT_TYPE("a{sv}"));
  g_variant_builder_add(&platform_data, "{sv}", "desktop-startup-id",
                        g_variant_new_string(StartupId(timestamp).c_str()));
  auto* pending = new Completion(std::move(completion));
  // Asynchronous: the call may well come back to this very process, whose
  // main loop must be free to answer it.
  g_dbus_connection_call(
      connection.get(), bus_name_.c_str(), object_path_.c_str(), "org.freedesktop.Application",
      "Activate", g_variant_new("(a{sv})", &platform_data), nullptr, G_DBUS_CALL_FLAGS_NONE, -1,
      nullptr,
      [](GObject* source, GAsyncResult* result, gpointer data) {
        std::unique_ptr<Completion> done(static_cast<Completion*>(data));
        GErrorPtr call_error;
        GVariantPtr reply(
            g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, call_error.out()));
        if (reply) {
          (*done)(std::nullopt);
        } else {
          (*done)(std::string(call_error.message()));
        }
      },
      pending);
}

} // namespace orvane
