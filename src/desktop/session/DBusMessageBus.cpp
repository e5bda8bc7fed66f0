#include "desktop/session/DBusMessageBus.h"

namespace orvane {

DBusMessageBus::DBusMessageBus() {
  connection_ =
      GObjectPtr<GDBusConnection>::adopt(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr));
}

DBusMessageBus::~DBusMessageBus() {
  for (guint id : subscriptions_)
    g_dbus_connection_signal_unsubscribe(connection_.get(), id);
}

bool DBusMessageBus::subscribe(const std::string& name, Handler handler) {
  if (!connection_)
    return false;
  BusAddress address = BusAddressFor(name);
  auto* stored = new Handler(std::move(handler));
  guint id = g_dbus_connection_signal_subscribe(
      connection_.get(), nullptr, address.interface.c_str(), address.member.c_str(),
      address.path.c_str(), nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
      [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
         GVariant* parameters, gpointer data) {
        std::string object;
        // The object travels as the first argument when it is a string.
        if (parameters && g_variant_is_of_type(parameters, G_VARIANT_TYPE_TUPLE) &&
            g_variant_n_children(parameters) > 0) {
          GVariantPtr first(g_variant_get_child_value(parameters, 0));
          if (g_variant_is_of_type(first.get(), G_VARIANT_TYPE_STRING))
            object = g_variant_get_string(first.get(), nullptr);
        }
        (*static_cast<Handler*>(data))(object);
      },
      stored, [](gpointer data) { delete static_cast<Handler*>(data); });
  subscriptions_.push_back(id);
  return true;
}

bool DBusMessageBus::post(const std::string& name, const std::string& object) {
  if (!connection_)
    return false;
  BusAddress address = BusAddressFor(name);
  gboolean sent = g_dbus_connection_emit_signal(connection_.get(), nullptr, address.path.c_str(),
                                                address.interface.c_str(), address.member.c_str(),
                                                g_variant_new("(s)", object.c_str()), nullptr);
  // Deliver now: the receiver may be waiting for it.
  g_dbus_connection_flush_sync(connection_.get(), nullptr, nullptr);
  return sent;
}

} // namespace orvane
