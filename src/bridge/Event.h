// An event for a page: a JSON object with a "type" and payload values that
// are strings, numbers or booleans.
#pragma once

#include <nlohmann/json.hpp>

namespace orvane {
using Event = nlohmann::json;
} // namespace orvane
