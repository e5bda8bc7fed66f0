// The CLIPBOARD contents a capture process hands to its background keeper,
// as a small self-describing file: every target with the property type and
// format its owner answered with, the window that owned the CLIPBOARD when it
// was handed over, and how long the keeper may serve it.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orvane {

// One target as served: `bytes` holds the property's items as they travel
// (format 8: bytes; 16: two bytes per item; 32: four bytes per item).
struct ServedTarget {
  std::string target;
  std::string type;
  int format = 8;
  std::string bytes;
  bool operator==(const ServedTarget&) const = default;
};

struct KeptClipboard {
  std::vector<ServedTarget> targets;
  unsigned long owner_window = 0; // the CLIPBOARD owner at hand-over, 0 for none
  std::chrono::milliseconds lifetime{0};
  bool operator==(const KeptClipboard&) const = default;
};

// Upper bounds a kept file must respect; anything beyond is refused.
inline constexpr size_t kKeptMaxTargets = 1024;
inline constexpr size_t kKeptMaxNameLength = 1024;
inline constexpr size_t kKeptMaxBytes = size_t(64) << 20;
inline constexpr std::chrono::milliseconds kKeptMaxLifetime = std::chrono::hours(24);

std::string SerializeKeptClipboard(const KeptClipboard& kept);
// The contents, or nothing when the text is not a well-formed kept file
// within the bounds above; `why` then says what is wrong.
std::optional<KeptClipboard> ParseKeptClipboard(std::string_view text, std::string* why = nullptr);

} // namespace orvane
