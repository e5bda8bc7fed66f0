// Reading page payloads: a member of the wrong type counts as absent.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace orvane {

// body[key] when body is an object and the value is a string.
std::optional<std::string> StringMember(const nlohmann::json& body, const char* key);

// A number, or a numeric string read as one; 0 otherwise.
double NumberMember(const nlohmann::json& body, const char* key);

} // namespace orvane
