#pragma once
// Splits text into its lines, for tests that compare what a program wrote.
#include <string>
#include <vector>

namespace orvane {

// Each line without its line feed; a last line without one still counts, and
// an empty text has no lines.
inline std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    lines.push_back(text.substr(start, end - start));
    if (end == std::string::npos)
      break;
    start = end + 1;
  }
  return lines;
}

} // namespace orvane
