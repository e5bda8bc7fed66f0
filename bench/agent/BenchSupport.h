// Pieces the agent benchmarks share: the clock, the stand-in agent's report
// of its first write, and medians.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

namespace bench {

inline int64_t NowNs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// The stand-in agent prints "first-write <ns>" on its standard error.
inline int64_t FirstWriteFrom(const std::string& standard_error) {
  size_t at = standard_error.find("first-write ");
  return at == std::string::npos ? 0 : std::strtoll(standard_error.c_str() + at + 12, nullptr, 10);
}

inline double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.empty() ? 0 : values[values.size() / 2];
}

} // namespace bench
