#pragma once

#include <string>
#include <string_view>

namespace orvane {

// The length of UTF-8 text in UTF-16 code units, the unit the log's
// character counts use; invalid UTF-8 counts its bytes.
size_t Utf16Length(const std::string& text);

// Text from outside (a page's address, say) made safe for one log line: at
// most max_characters characters, and every character that could break or
// disguise the line (control and format characters, line and paragraph
// separators, bytes that are not UTF-8) written as an escape: \n, \r, \t,
// \xNN or \u{NNNN}.
std::string LogSafeText(const std::string& text, size_t max_characters);

// Whether `text` begins with `prefix`, which must not be empty: an empty
// name names nothing.
bool BeginsWith(const std::string& text, const std::string& prefix);

// A random UUID in upper-case text form, 36 characters.
std::string NewUpperCaseUuid();

// Bytes from outside (an X property, a selection) as valid UTF-8: every
// sequence that is not UTF-8 becomes U+FFFD, the rest stays as it is.
std::string ValidUtf8(std::string_view bytes);

} // namespace orvane
