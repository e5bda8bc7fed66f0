#pragma once

#include <string>

namespace orvane {

// The length of UTF-8 text in UTF-16 code units, the unit the log's
// character counts use; invalid UTF-8 counts its bytes.
size_t Utf16Length(const std::string& text);

} // namespace orvane
