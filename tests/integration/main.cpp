// Integration tests run against real desktop services in a throwaway home:
// a private D-Bus session bus started here, and GIO's application registry
// reading desktop files that the tests write. Everything started here is
// stopped here.
#include "support/TempDir.h"

#include <gio/gio.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

namespace {

// A private session bus for this test process.
class SessionBus {
public:
  bool start() {
    const gchar* argv[] = {"dbus-daemon", "--session", "--nofork", "--print-address=1", nullptr};
    gint out = -1;
    GError* error = nullptr;
    if (!g_spawn_async_with_pipes(nullptr, const_cast<gchar**>(argv), nullptr,
                                  GSpawnFlags(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD),
                                  nullptr, nullptr, &pid_, nullptr, &out, nullptr, &error)) {
      g_clear_error(&error);
      return false;
    }
    std::string address;
    char c;
    while (read(out, &c, 1) == 1 && c != '\n')
      address += c;
    close(out);
    if (address.empty())
      return false;
    setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    return true;
  }
  ~SessionBus() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
  }

private:
  GPid pid_ = 0;
};

} // namespace

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
  SessionBus bus;
  if (!bus.start()) {
    fprintf(stderr, "could not start a private D-Bus session bus\n");
    return 1;
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
