#include "bridge/Payload.h"

#include <cmath>
#include <cstdlib>

namespace orvane {

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
