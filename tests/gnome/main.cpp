// The GNOME backend against a real headless GNOME Shell 43 with Orvane's
// extension: run inside tests/wayland/run-in-gnome-session, which CTest
// does. The process owns com.tarnwick.orvane, as Orvane does, since the
// extension answers only that name's owner. Without a GNOME session every
// test fails: nothing is skipped.
#include "base/GObjectPtr.h"
#include "support/TempDir.h"

#include <cstdio>
#include <cstdlib>
#include <gio/gio.h>
#include <gtest/gtest.h>

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (!getenv("WAYLAND_DISPLAY") || !getenv("DBUS_SESSION_BUS_ADDRESS") ||
      !getenv("ORVANE_GNOME_KEYS")) {
    fprintf(stderr, "orvane_gnome_tests: no GNOME session (run it through "
                    "tests/wayland/run-in-gnome-session)\n");
    return 1;
  }
  orvane::UseThrowawayHome();
  setenv("NO_AT_BRIDGE", "1", 1);
  setenv("GSETTINGS_BACKEND", "memory", 1);
  auto bus = orvane::GObjectPtr<GDBusConnection>::adopt(
      g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr));
  orvane::GVariantPtr owned(g_dbus_connection_call_sync(
      bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
      "RequestName", g_variant_new("(su)", "com.tarnwick.orvane", 4u), G_VARIANT_TYPE("(u)"),
      G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr));
  guint32 result = 0;
  if (owned)
    g_variant_get(owned.get(), "(u)", &result);
  if (result != 1) {
    fprintf(stderr, "orvane_gnome_tests: com.tarnwick.orvane could not be owned\n");
    return 1;
  }
  return RUN_ALL_TESTS();
}
