// Reading page payloads: a member of the wrong type counts as absent.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace orvane {

// body[key] when body is an object and the value is a string.
std::optional<std::string> StringMember(const nlohmann::json& body, const char* key);

// A paper id or a path: body[key] when it is a non-empty string without a
// NUL character (no file name can hold one); nullopt otherwise.
std::optional<std::string> NameMember(const nlohmann::json& body, const char* key);

// A finite number, or a numeric string read as one; 0 otherwise (also for
// NaN and the infinities).
double NumberMember(const nlohmann::json& body, const char* key);

} // namespace orvane
