#include "base/LogThrottle.h"

#include <glib.h>

namespace orvane {

double LogThrottle::MonotonicSeconds() {
  return double(g_get_monotonic_time()) / G_USEC_PER_SEC;
}

LogThrottle::LogThrottle(Clock clock, double interval)
    : clock_(std::move(clock)), interval_(interval) {}

bool LogThrottle::admit(const void* source, long& held_back) {
  double now = clock_();
  auto [line, first] = lines_.try_emplace(source, Line{now, 0});
  held_back = 0;
  if (first)
    return true;
  if (now - line->second.written_at < interval_) {
    ++line->second.held_back;
    return false;
  }
  held_back = line->second.held_back;
  line->second = Line{now, 0};
  return true;
}

} // namespace orvane
