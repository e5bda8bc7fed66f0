#include "update/ReleaseVersion.h"

#include <algorithm>
#include <optional>
#include <vector>

namespace orvane {
namespace {

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}
bool IsSuffixChar(char c) {
  return IsDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '.';
}

struct Version {
  std::vector<std::string_view> numbers; // each without its leading zeros
  std::string_view suffix;
};

std::optional<Version> Parse(std::string_view text) {
  size_t dash = text.find('-');
  std::string_view numbers = text.substr(0, dash);
  Version version;
  if (dash != std::string_view::npos) {
    version.suffix = text.substr(dash + 1);
    if (version.suffix.empty() ||
        !std::all_of(version.suffix.begin(), version.suffix.end(), IsSuffixChar))
      return std::nullopt;
  }
  size_t start = 0;
  while (true) {
    size_t dot = numbers.find('.', start);
    std::string_view part =
        numbers.substr(start, dot == std::string_view::npos ? dot : dot - start);
    if (part.empty() || !std::all_of(part.begin(), part.end(), IsDigit))
      return std::nullopt;
    part.remove_prefix(std::min(part.find_first_not_of('0'), part.size()));
    version.numbers.push_back(part);
    if (dot == std::string_view::npos)
      return version;
    start = dot + 1;
  }
}

int Sign(int value) {
  return (value > 0) - (value < 0);
}

// Whole numbers by their digits: the longer is the larger, then digit by
// digit, so no number is ever too large to compare.
int CompareNumbers(std::string_view a, std::string_view b) {
  if (a.size() != b.size())
    return a.size() < b.size() ? -1 : 1;
  return Sign(a.compare(b));
}

} // namespace

int CompareReleaseVersions(std::string_view a, std::string_view b) {
  std::optional<Version> first = Parse(a), second = Parse(b);
  if (!first || !second) {
    if (first || second)
      return first ? 1 : -1;
    return Sign(a.compare(b));
  }
  size_t common = std::min(first->numbers.size(), second->numbers.size());
  for (size_t i = 0; i < common; ++i)
    if (int order = CompareNumbers(first->numbers[i], second->numbers[i]))
      return order;
  if (first->numbers.size() != second->numbers.size())
    return first->numbers.size() < second->numbers.size() ? -1 : 1;
  if (first->suffix.empty() != second->suffix.empty())
    return first->suffix.empty() ? 1 : -1;
  return Sign(first->suffix.compare(second->suffix));
}

std::string ShownVersion(std::string_view version, size_t limit) {
  static const char hex[] = "0123456789abcdef";
  std::string shown;
  for (unsigned char c : version) {
    if (shown.size() >= limit) {
      shown += "…";
      break;
    }
    if (c > 0x20 && c < 0x7f && c != '\\') {
      shown += char(c);
    } else {
      shown += "\\x";
      shown += hex[c >> 4];
      shown += hex[c & 15];
    }
  }
  return shown;
}

} // namespace orvane
