#include "bridge/Payload.h"

#include <cmath>
#include <cstdlib>

namespace orvane {

namespace {
constexpr size_t kMaxMessageNesting = 64;

// True when arrays and objects nest deeper than the limit; strings are
// skipped, so brackets inside them do not count.
bool NestsTooDeep(std::string_view text) {
  size_t depth = 0;
  bool in_string = false;
  bool escaped = false;
  for (char c : text) {
    if (in_string) {
      if (escaped)
        escaped = false;
      else if (c == '\\')
        escaped = true;
      else if (c == '"')
        in_string = false;
    } else if (c == '"') {
      in_string = true;
    } else if (c == '[' || c == '{') {
      if (++depth > kMaxMessageNesting)
        return true;
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    }
  }
  return false;
}
} // namespace

nlohmann::json ParseMessageBody(std::string_view text) {
  if (NestsTooDeep(text))
    return nullptr;
  nlohmann::json body = nlohmann::json::parse(text, nullptr, false);
  return body.is_discarded() ? nlohmann::json() : body;
}

std::optional<std::string> StringMember(const nlohmann::json& body, const char* key) {
  if (!body.is_object())
    return std::nullopt;
  auto found = body.find(key);
  if (found == body.end() || !found->is_string())
    return std::nullopt;
  return found->get<std::string>();
}

std::optional<std::string> NameMember(const nlohmann::json& body, const char* key) {
  std::optional<std::string> name = StringMember(body, key);
  if (!name || name->empty() || name->find('\0') != std::string::npos)
    return std::nullopt;
  return name;
}

double NumberMember(const nlohmann::json& body, const char* key) {
  if (!body.is_object())
    return 0;
  auto found = body.find(key);
  if (found == body.end())
    return 0;
  double value = 0;
  if (found->is_number())
    value = found->get<double>();
  else if (found->is_string())
    value = std::strtod(found->get<std::string>().c_str(), nullptr);
  // NaN and the infinities ("1e400" overflows to one) are no time or size.
  return std::isfinite(value) ? value : 0;
}

} // namespace orvane
