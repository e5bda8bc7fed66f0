// The hand-off folder through which a capture process passes its results to
// the running program: $XDG_CACHE_HOME/com.tarnwick.orvane.
#pragma once

#include "desktop/Geometry.h"

#include <optional>
#include <string>

namespace orvane {

// The folder, created when missing.
std::string HandoffFolder();
std::string HandoffFile(const std::string& name);

// Reads a hand-off file once: the file is deleted whatever it holds. A file
// older than 15 seconds, or an empty one, gives nothing.
std::optional<std::string> TakeHandoffFile(const std::string& path);

// "x y" with exactly two blank-separated parts, as a point; else nothing.
std::optional<Point> ParseScreenHint(const std::string& text);

inline constexpr double kHandoffMaxAge = 15.0;

} // namespace orvane
