// A log line that a hostile source could make the program repeat without
// end (a page posting in a loop, say) is written at most once an interval
// per source; the lines held back in between are counted, so the next line
// that is written can say how many there were.
#pragma once

#include <functional>
#include <map>

namespace orvane {

class LogThrottle {
public:
  // Seconds on a monotonic clock.
  using Clock = std::function<double()>;
  static double MonotonicSeconds();

  explicit LogThrottle(Clock clock = MonotonicSeconds, double interval = 1.0);

  // Whether the line of `source` may be written now. When it may,
  // `held_back` is how many of its lines were held back since its last one.
  bool admit(const void* source, long& held_back);

private:
  struct Line {
    double written_at = 0;
    long held_back = 0;
  };
  Clock clock_;
  double interval_;
  std::map<const void*, Line> lines_;
};

} // namespace orvane
