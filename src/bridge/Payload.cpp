#include "bridge/Payload.h"

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
  if (found->is_number())
    return found->get<double>();
  if (found->is_string())
    return std::strtod(found->get<std::string>().c_str(), nullptr);
  return 0;
}

} // namespace orvane
