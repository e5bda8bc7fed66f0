#include "desktop/session/KeptClipboard.h"

#include <charconv>

namespace orvane {

namespace {
constexpr std::string_view kMagic = "orvane-kept-clipboard 1\n";

// Reads the fields of one header line: unsigned numbers separated by single
// blanks, ending in a newline.
class Reader {
public:
  explicit Reader(std::string_view text) : text_(text) {}

  bool literal(std::string_view expected) {
    if (text_.substr(0, expected.size()) != expected)
      return false;
    text_.remove_prefix(expected.size());
    return true;
  }
  bool number(unsigned long long* value, char after) {
    auto [end, error] = std::from_chars(text_.data(), text_.data() + text_.size(), *value);
    if (error != std::errc() || end == text_.data())
      return false;
    text_.remove_prefix(size_t(end - text_.data()));
    return literal(std::string_view(&after, 1));
  }
  bool bytes(size_t count, std::string* out) {
    if (count > text_.size())
      return false;
    out->assign(text_.substr(0, count));
    text_.remove_prefix(count);
    return true;
  }
  bool done() const { return text_.empty(); }

private:
  std::string_view text_;
};

bool Fail(std::string* why, const char* reason) {
  if (why)
    *why = reason;
  return false;
}

bool ParseInto(std::string_view text, KeptClipboard* kept, std::string* why) {
  Reader in(text);
  if (!in.literal(kMagic))
    return Fail(why, "not a kept clipboard");
  unsigned long long lifetime = 0, owner = 0, count = 0;
  if (!in.literal("lifetime ") || !in.number(&lifetime, '\n') || !in.literal("owner ") ||
      !in.number(&owner, '\n') || !in.literal("targets ") || !in.number(&count, '\n'))
    return Fail(why, "malformed header");
  if (lifetime > (unsigned long long)kKeptMaxLifetime.count())
    return Fail(why, "lifetime too long");
  if (count > kKeptMaxTargets)
    return Fail(why, "too many targets");
  kept->lifetime = std::chrono::milliseconds(lifetime);
  kept->owner_window = (unsigned long)owner;
  size_t total = 0;
  for (unsigned long long i = 0; i < count; ++i) {
    unsigned long long name_length = 0, type_length = 0, format = 0, length = 0;
    if (!in.literal("target ") || !in.number(&name_length, ' ') || !in.number(&type_length, ' ') ||
        !in.number(&format, ' ') || !in.number(&length, '\n'))
      return Fail(why, "malformed target header");
    if (name_length == 0 || name_length > kKeptMaxNameLength || type_length == 0 ||
        type_length > kKeptMaxNameLength)
      return Fail(why, "bad target name");
    if (format != 8 && format != 16 && format != 32)
      return Fail(why, "bad format");
    if (length > kKeptMaxBytes || total + length > kKeptMaxBytes)
      return Fail(why, "too many bytes");
    if (length % (format / 8) != 0)
      return Fail(why, "bytes do not fill whole items");
    ServedTarget target;
    target.format = int(format);
    if (!in.bytes(size_t(name_length), &target.target) ||
        !in.bytes(size_t(type_length), &target.type) || !in.bytes(size_t(length), &target.bytes) ||
        !in.literal("\n"))
      return Fail(why, "truncated target");
    if (target.target.find('\0') != std::string::npos ||
        target.type.find('\0') != std::string::npos)
      return Fail(why, "bad target name");
    total += size_t(length);
    kept->targets.push_back(std::move(target));
  }
  if (!in.done())
    return Fail(why, "trailing bytes");
  return true;
}
} // namespace

std::string SerializeKeptClipboard(const KeptClipboard& kept) {
  std::string out(kMagic);
  out += "lifetime " + std::to_string(kept.lifetime.count()) + "\n";
  out += "owner " + std::to_string(kept.owner_window) + "\n";
  out += "targets " + std::to_string(kept.targets.size()) + "\n";
  for (const ServedTarget& target : kept.targets) {
    out += "target " + std::to_string(target.target.size()) + " " +
           std::to_string(target.type.size()) + " " + std::to_string(target.format) + " " +
           std::to_string(target.bytes.size()) + "\n";
    out += target.target;
    out += target.type;
    out += target.bytes;
    out += "\n";
  }
  return out;
}

std::optional<KeptClipboard> ParseKeptClipboard(std::string_view text, std::string* why) {
  KeptClipboard kept;
  if (!ParseInto(text, &kept, why))
    return std::nullopt;
  return kept;
}

} // namespace orvane
