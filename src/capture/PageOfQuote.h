// Finding on which page of a PDF a quoted passage stands.
#pragma once

#include <string>

namespace orvane {

inline constexpr size_t kNeedleMaxCharacters = 80;
inline constexpr size_t kNeedleMinCharacters = 8;

// What is searched for: the quote's longest line (the first of equally long
// ones), cut to its first 80 characters; "" when that is shorter than 8
// characters, too little to tell one place from another. Characters count
// as the log counts them (UTF-16 units); a character is never cut in half.
std::string QuoteNeedle(const std::string& quote);

// The 1-based page of the needle's first match, searched case-insensitively;
// 0 when the needle is too short, nothing matches or the PDF does not open.
// The PDF library is opened by the first search: poppler-glib by the soname it
// was built against, or the file $ORVANE_POPPLER_LIBRARY names.
int PageOfQuote(const std::string& pdf_path, const std::string& quote);

} // namespace orvane
