// Reading page payloads: a member of the wrong type counts as absent.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace orvane {

// The body of a page message from its JSON text. Text that is not JSON, and
// JSON nested deeper than any message needs (a hostile page's way to
// exhaust the stack of whatever walks it), read as null.
nlohmann::json ParseMessageBody(std::string_view text);

// body[key] when body is an object and the value is a string.
std::optional<std::string> StringMember(const nlohmann::json& body, const char* key);

// A paper id or a path: body[key] when it is a non-empty string without a
// NUL character (no file name can hold one); nullopt otherwise.
std::optional<std::string> NameMember(const nlohmann::json& body, const char* key);

// A finite number, or a numeric string read as one; 0 otherwise (also for
// NaN and the infinities).
double NumberMember(const nlohmann::json& body, const char* key);

} // namespace orvane
