// The library window's own page for a local site whose development server
// did not answer after it was started: it says so and shows the last lines
// the server wrote, so that a user sees why (a missing Python package, say)
// instead of the web view's bare "Could not connect".
#pragma once

#include <cstddef>
#include <string>

namespace orvane {

// How much of that log the page shows: the last lines within the last bytes.
inline constexpr size_t kServerLogTailBytes = 16 * 1024;
inline constexpr size_t kServerLogTailLines = 40;

// The last `max_lines` lines of the file within its last `max_bytes` bytes,
// as valid UTF-8 (a cut character or invalid bytes become U+FFFD). A line
// cut by the byte bound is dropped. "" when the file cannot be read.
std::string ServerLogTail(const std::string& path, size_t max_bytes = kServerLogTailBytes,
                          size_t max_lines = kServerLogTailLines);

// The text with &, <, >, " and ' written as character references.
std::string HtmlEscaped(const std::string& text);

// A complete HTML document, self-contained (no script, nothing fetched; its
// policy forbids both), naming the site address and the log, with the log's
// tail as preformatted text.
std::string ServerFailurePage(const std::string& site_address, const std::string& log_path,
                              const std::string& log_tail);

} // namespace orvane
