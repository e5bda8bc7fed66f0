#pragma once

#include <string>
#include <string_view>

namespace orvane {

// The length of UTF-8 text in UTF-16 code units, the unit the log's
// character counts use; invalid UTF-8 counts its bytes.
size_t Utf16Length(const std::string& text);

// Text from outside (a page's address, say) cut to at most max_characters
// characters (a byte that is not UTF-8 counts as one), never in the middle
// of a character. The log escapes what it prints; this only keeps a huge
// value from filling it.
std::string ShortenedText(const std::string& text, size_t max_characters);

// Text as one log line shows it: every character that could break or
// disguise the line (control and format characters, C1 controls, line and
// paragraph separators, bytes that are not UTF-8) written as an escape: \n,
// \r, \t, \xNN or \u{NNNN}; and the backslash itself doubled, so that an
// escape in the log always means a character that was escaped, never one
// that was there. The log's formatter applies it to every text argument.
std::string LogEscapedText(std::string_view text);

// Whether `text` begins with `prefix`, which must not be empty: an empty
// name names nothing.
bool BeginsWith(const std::string& text, const std::string& prefix);

// A random UUID in upper-case text form, 36 characters.
std::string NewUpperCaseUuid();

// Bytes from outside (an X property, a selection) as valid UTF-8: every
// sequence that is not UTF-8 becomes U+FFFD, the rest stays as it is.
std::string ValidUtf8(std::string_view bytes);

// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
// NUL is a valid character.
bool IsValidUtf8(std::string_view bytes);

} // namespace orvane
