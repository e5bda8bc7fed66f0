// Any bytes as the background keeper's clipboard file: a file that is
// accepted stays within the bounds, and writing it out again reads back as
// the same contents; a refused file always says why.
#include "desktop/session/KeptClipboard.h"

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {
void Require(bool condition) {
  if (!condition)
    std::abort();
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  std::string why;
  std::optional<orvane::KeptClipboard> kept = orvane::ParseKeptClipboard(text, &why);
  if (!kept) {
    Require(!why.empty());
    return 0;
  }
  Require(kept->targets.size() <= orvane::kKeptMaxTargets);
  Require(kept->lifetime <= orvane::kKeptMaxLifetime);
  size_t total = 0;
  for (const orvane::ServedTarget& target : kept->targets) {
    Require(!target.target.empty() && target.target.size() <= orvane::kKeptMaxNameLength);
    Require(!target.type.empty() && target.type.size() <= orvane::kKeptMaxNameLength);
    Require(target.format == 8 || target.format == 16 || target.format == 32);
    Require(target.bytes.size() % size_t(target.format / 8) == 0);
    total += target.bytes.size();
  }
  Require(total <= orvane::kKeptMaxBytes);
  std::string again = orvane::SerializeKeptClipboard(*kept);
  Require(orvane::ParseKeptClipboard(again) == kept);
  return 0;
}
