#include "capture/PageOfQuote.h"

#include "base/GObjectPtr.h"
#include "base/SharedLibrary.h"
#include "base/SparLog.h"
#include "base/Text.h"

#include <glib.h>
#include <poppler.h>
#include <sys/stat.h>

#include <vector>

namespace orvane {

namespace {

bool IsLineBreak(gunichar c) {
  return c == '\n' || c == '\r' || c == 0x0B || c == 0x0C || c == 0x85 || c == 0x2028 ||
         c == 0x2029;
}

size_t Utf16Units(gunichar c) {
  return c > 0xFFFF ? 2 : 1;
}

struct Line {
  std::string text;
  size_t characters = 0;
};

std::vector<Line> SplitLines(const std::string& text) {
  std::vector<Line> lines(1);
  for (const char* p = text.c_str(); *p; p = g_utf8_next_char(p)) {
    gunichar c = g_utf8_get_char(p);
    if (IsLineBreak(c)) {
      lines.emplace_back();
      continue;
    }
    lines.back().text.append(p, size_t(g_utf8_next_char(p) - p));
    lines.back().characters += Utf16Units(c);
  }
  return lines;
}

// The first characters of valid UTF-8 text, whole characters only.
std::string Prefix(const std::string& text, size_t max_characters) {
  size_t characters = 0;
  const char* p = text.c_str();
  while (*p) {
    size_t units = Utf16Units(g_utf8_get_char(p));
    if (characters + units > max_characters)
      break;
    characters += units;
    p = g_utf8_next_char(p);
  }
  return std::string(text.c_str(), size_t(p - text.c_str()));
}

// poppler-glib, with the functions the search calls. It is opened on the
// first search, not at launch: it and the libraries it needs (NSS, libtiff,
// OpenJPEG and more) would cost every start some 3 MB and their loading.
struct Poppler {
  decltype(&poppler_document_new_from_file) document_new_from_file;
  decltype(&poppler_document_get_n_pages) document_get_n_pages;
  decltype(&poppler_document_get_page) document_get_page;
  decltype(&poppler_page_find_text_with_options) page_find_text_with_options;
  decltype(&poppler_rectangle_free) rectangle_free;
};

// The library's functions, or nullptr (said once in the log) when it cannot be
// opened; then no PDF is searched. Safe from any thread.
const Poppler* OpenPoppler() {
  static const Poppler* const poppler = []() -> const Poppler* {
    static SharedLibrary library(ORVANE_POPPLER_GLIB_SONAME, "ORVANE_POPPLER_LIBRARY");
    static Poppler functions{
        ORVANE_LIBRARY_FUNCTION(library, poppler_document_new_from_file),
        ORVANE_LIBRARY_FUNCTION(library, poppler_document_get_n_pages),
        ORVANE_LIBRARY_FUNCTION(library, poppler_document_get_page),
        ORVANE_LIBRARY_FUNCTION(library, poppler_page_find_text_with_options),
        ORVANE_LIBRARY_FUNCTION(library, poppler_rectangle_free),
    };
    if (library.complete())
      return &functions;
    SparLog("quote: PDFs cannot be searched for the page of a quote (%@)", library.error());
    return nullptr;
  }();
  return poppler;
}

} // namespace

std::string QuoteNeedle(const std::string& quote) {
  // Text from another application may be anything; search what it means.
  std::string valid = ValidUtf8(quote);
  const Line* longest = nullptr;
  std::vector<Line> lines = SplitLines(valid);
  for (const Line& line : lines)
    if (!longest || line.characters > longest->characters)
      longest = &line;
  if (longest->characters < kNeedleMinCharacters)
    return "";
  return Prefix(longest->text, kNeedleMaxCharacters);
}

int PageOfQuote(const std::string& pdf_path, const std::string& quote) {
  if (pdf_path.empty() || quote.empty())
    return 0;
  std::string needle = QuoteNeedle(quote);
  if (needle.empty())
    return 0;
  // Only a regular file: a FIFO or a device under a PDF's name would block.
  struct stat info;
  if (stat(pdf_path.c_str(), &info) != 0 || !S_ISREG(info.st_mode))
    return 0;
  GCharPtr uri(g_filename_to_uri(pdf_path.c_str(), nullptr, nullptr));
  if (!uri)
    return 0;
  const Poppler* poppler = OpenPoppler();
  if (!poppler)
    return 0;
  auto document = GObjectPtr<PopplerDocument>::adopt(
      poppler->document_new_from_file(uri.get(), nullptr, nullptr));
  if (!document)
    return 0;
  int pages = poppler->document_get_n_pages(document.get());
  for (int index = 0; index < pages; ++index) {
    auto page = GObjectPtr<PopplerPage>::adopt(poppler->document_get_page(document.get(), index));
    if (!page)
      continue;
    // The default search ignores case; a passage may run over a line end.
    GList* matches =
        poppler->page_find_text_with_options(page.get(), needle.c_str(), POPPLER_FIND_MULTILINE);
    bool found = matches != nullptr;
    g_list_free_full(matches, reinterpret_cast<GDestroyNotify>(poppler->rectangle_free));
    if (found)
      return index + 1;
  }
  return 0;
}

} // namespace orvane
