// Runs the default main context until a condition holds or time runs out.
#pragma once

#include <functional>
#include <glib.h>

namespace orvane {

inline bool SpinUntil(const std::function<bool()>& done, double seconds = 20) {
  gint64 deadline = g_get_monotonic_time() + gint64(seconds * 1e6);
  while (!done() && g_get_monotonic_time() < deadline) {
    if (!g_main_context_iteration(nullptr, FALSE))
      g_usleep(1000);
  }
  return done();
}

// Runs the default main context for a while, for checks that something
// does not happen.
inline void SpinFor(double seconds) {
  gint64 deadline = g_get_monotonic_time() + gint64(seconds * 1e6);
  while (g_get_monotonic_time() < deadline) {
    if (!g_main_context_iteration(nullptr, FALSE))
      g_usleep(1000);
  }
}

} // namespace orvane
