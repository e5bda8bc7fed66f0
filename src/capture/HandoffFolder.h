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

// No hand-off is read past this: no selection is that long.
inline constexpr size_t kMaxHandoffBytes = 16 * 1024 * 1024;

// Reads a hand-off file once: the file is deleted whatever it holds. It is
// opened without blocking and without following a link, so a FIFO or a
// device put in its place cannot stall the main loop; nothing when it is
// missing, not a regular file, larger than `max_bytes` or not UTF-8.
// `modified` gets its modification time (seconds since the epoch).
std::optional<std::string> ReadHandoffOnce(const std::string& path, size_t max_bytes,
                                           double* modified = nullptr);

// A hand-off file read once: as above, and a file older than 15 seconds, or
// an empty one, gives nothing.
std::optional<std::string> TakeHandoffFile(const std::string& path);

// "x y" with exactly two blank-separated parts, as a point; else nothing.
std::optional<Point> ParseScreenHint(const std::string& text);

inline constexpr double kHandoffMaxAge = 15.0;

} // namespace orvane
