// A private D-Bus session bus for a test process: started here, its address
// put into DBUS_SESSION_BUS_ADDRESS, stopped by pid when the object goes.
#pragma once

#include <cstdlib>
#include <glib.h>
#include <signal.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace orvane {

class SessionBus {
public:
  SessionBus() = default;
  SessionBus(const SessionBus&) = delete;
  SessionBus& operator=(const SessionBus&) = delete;

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

} // namespace orvane
