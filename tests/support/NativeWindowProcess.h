// What the suites against a real Wayland session share: a native GTK window
// in a process of its own (tests/kwin/fixtures/native_window.py, which needs
// ORVANE_KWIN_FIXTURES), and frames compared within a point.
#pragma once

#include "desktop/FrontWindows.h"
#include "desktop/Geometry.h"

#include "support/MainLoop.h"
#include "support/TempDir.h"

#include <cmath>
#include <gtest/gtest.h>
#include <optional>
#include <signal.h>
#include <string>
#include <sys/wait.h>

namespace orvane {

inline bool Near(const Rect& a, const Rect& b) {
  return std::fabs(a.x - b.x) <= 1 && std::fabs(a.y - b.y) <= 1 &&
         std::fabs(a.width - b.width) <= 1 && std::fabs(a.height - b.height) <= 1;
}

// A native Wayland (or XWayland) GTK window in a process of its own, ended
// by its pid. It writes "mapped" into its state folder once shown and every
// key it gets to "keys".
class NativeWindow {
public:
  // `backend` "x11" makes it an XWayland window instead.
  explicit NativeWindow(const std::string& title, const std::string& backend = "wayland") {
    std::string script = std::string(ORVANE_KWIN_FIXTURES) + "/native_window.py";
    gchar** env = g_get_environ();
    env = g_environ_setenv(env, "GDK_BACKEND", backend.c_str(), TRUE);
    const gchar* argv[] = {"/usr/bin/python3", script.c_str(),  state_.path().c_str(),
                           title.c_str(),      backend.c_str(), nullptr};
    GError* error = nullptr;
    if (!g_spawn_async(nullptr, const_cast<gchar**>(argv), env, G_SPAWN_DO_NOT_REAP_CHILD, nullptr,
                       nullptr, &pid_, &error)) {
      ADD_FAILURE() << "the native window did not start: " << error->message;
      g_clear_error(&error);
    }
    g_strfreev(env);
  }
  ~NativeWindow() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
  }
  NativeWindow(const NativeWindow&) = delete;
  NativeWindow& operator=(const NativeWindow&) = delete;

  int pid() const { return pid_; }
  bool mapped(double seconds = 20) {
    return SpinUntil([&] { return g_file_test(state_.file("mapped").c_str(), G_FILE_TEST_EXISTS); },
                     seconds);
  }
  std::string keys() const { return TempDir::Read(state_.file("keys")); }

private:
  TempDir state_;
  GPid pid_ = 0;
};

// The front window once it belongs to `pid` (a window just mapped takes the
// focus a moment later), or nothing when it does not within `seconds`.
inline std::optional<FrontWindow> FrontWindowOf(const FrontWindows& front, int pid,
                                                double seconds = 20) {
  std::optional<FrontWindow> seen;
  if (SpinUntil(
          [&] {
            seen = front.frontWindow();
            return seen && seen->pid == pid;
          },
          seconds))
    return seen;
  return std::nullopt;
}

} // namespace orvane
