// Integration tests run against real desktop services in a throwaway home:
// a private D-Bus session bus started here, and GIO's application registry
// reading desktop files that the tests write. Everything started here is
// stopped here.
#include "support/SessionBus.h"
#include "support/TempDir.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

int main(int argc, char** argv) {
  orvane::UseThrowawayHome();
  setenv("XDG_DATA_DIRS", "/usr/share", 1);
  setenv("XDG_CONFIG_DIRS", "/etc/xdg", 1);
  setenv("NO_AT_BRIDGE", "1", 1);
  // Settings from memory: GIO must not open a connection of its own to the
  // session bus, which is stopped when the tests end.
  setenv("GSETTINGS_BACKEND", "memory", 1);
  unsetenv("DISPLAY");
  unsetenv("WAYLAND_DISPLAY");
  orvane::SessionBus bus;
  if (!bus.start()) {
    fprintf(stderr, "could not start a private D-Bus session bus\n");
    return 1;
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
