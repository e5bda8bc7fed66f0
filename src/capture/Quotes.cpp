#include "capture/Quotes.h"

#include "base/Paths.h"
#include "base/SparLog.h"
#include "base/Text.h"
#include "capture/HandoffFolder.h"
#include "capture/ScreenContainingPoint.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <glib.h>
#include <nlohmann/json.hpp>

namespace orvane {

std::string PaperIdOfFile(const std::string& pdf_path) {
  std::string name = FileName(pdf_path);
  size_t dot = name.rfind('.');
  if (dot != std::string::npos && dot > 0)
    name.erase(dot);
  std::replace(name.begin(), name.end(), '_', '/');
  return name;
}

std::string SparQuoteScript(const std::string& text) {
  // ASCII only: line and paragraph separators, quotes, backslashes and
  // anything else arrive as escapes inside the string literal.
  std::string array =
      nlohmann::json::array({text}).dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
  return "window.sparQuote && window.sparQuote(" + array + "[0])";
}

std::optional<std::string> TakeQuoteFile(const std::string& path, size_t max_bytes) {
  return ReadHandoffOnce(path, max_bytes);
}

namespace {
// The path as the file system resolves it (links followed, "." and ".."
// gone); a path that does not resolve (a file that is not there) in its
// lexical normal form, absolute and without "." and "..".
std::string ResolvedPath(const std::string& path) {
  if (path.find('\0') == std::string::npos) {
    if (char* real = realpath(path.c_str(), nullptr)) {
      std::string resolved(real);
      free(real);
      return resolved;
    }
  }
  std::error_code error;
  std::filesystem::path absolute = std::filesystem::absolute(path, error);
  std::string normal = (error ? std::filesystem::path(path) : absolute).lexically_normal().string();
  while (normal.size() > 1 && normal.back() == '/')
    normal.pop_back();
  return normal;
}
} // namespace

std::optional<std::string> LibraryFileOf(const std::string& doc, const std::string& folder) {
  if (doc.empty() || folder.empty())
    return std::nullopt;
  std::string file = ResolvedPath(doc);
  std::string library = ResolvedPath(folder);
  // The "/" keeps a sibling folder whose name merely begins with the
  // library folder's out.
  if (library.empty() || library == "/" || file.size() <= library.size() + 1 ||
      file.compare(0, library.size() + 1, library + "/") != 0)
    return std::nullopt;
  return file;
}

Quotes::Quotes(QuotesContext context) : context_(std::move(context)) {}

bool Quotes::thisProgramInFront() {
  std::optional<FrontApplication> front = context_.capture.frontApplication();
  return front && front->is_this_program;
}

void Quotes::hotkeyQuote() {
  std::optional<FrontApplication> front = context_.capture.frontApplication();
  if (front && front->is_this_program)
    return;
  Point point = context_.capture.attentionPoint();
  std::optional<std::string> text = context_.capture.captureSelection();
  if (context_.chat.exists() && context_.chat.isVisible()) {
    if (text)
      deliverQuote(text);
    else
      SparLog("quote: nothing selected in %@", front ? front->identifier : std::string("?"));
    return;
  }
  // No chat showing (a hidden one included): the desktop application.
  askDesktopWith(text, front ? front->pid : 0, point);
}

void Quotes::quoteArrived() {
  deliverQuote(TakeQuoteFile(context_.quote_file()));
}

void Quotes::deliverQuote(const std::optional<std::string>& text) {
  if (!text || text->empty() || !context_.chat.exists()) {
    SparLog("quote: no chat open");
    return;
  }
  if (!context_.chat.isVisible()) {
    context_.chat.bringBack();
    SparLog("quote: chat was hidden, brought it back");
  }
  context_.chat.evaluateScript(SparQuoteScript(*text));
  SparLog("quote: delivered %lu chars", Utf16Length(*text));
}

void Quotes::hotkeyFriendQuote() {
  if (thisProgramInFront())
    return;
  friendQuoteWithText(context_.capture.captureSelection());
}

void Quotes::sendQuoteToFriend(const std::optional<std::string>& clipboard_text) {
  std::string text = clipboard_text.value_or("");
  SparLog("friend-quote: %lu chars via the Services menu", Utf16Length(text));
  friendQuoteWithText(text);
}

void Quotes::friendQuoteWithText(const std::optional<std::string>& text) {
  std::optional<std::string> doc = context_.capture.focusedDocumentPath();
  std::optional<std::string> folder = context_.library_folder();
  std::optional<std::string> resolved;
  if (doc && folder && !folder->empty())
    resolved = LibraryFileOf(*doc, *folder);
  std::string id = resolved ? PaperIdOfFile(*resolved) : "";
  if (resolved && !id.empty() && id.find('\0') == std::string::npos) {
    if (!text || text->empty()) {
      SparLog("friend-quote: nothing selected");
      return;
    }
    long page = context_.capture.pageOfQuote(*resolved, *text);
    SparLog("friend-quote: %lu chars from %@ (page %ld)", Utf16Length(*text), id, page);
    context_.show_library();
    context_.events.sendEvent(
        {{"type", "friendQuote"}, {"id", id}, {"text", *text}, {"page", page}},
        context_.library_page());
    return;
  }
  SparLog("friend-quote: focused document %@ is not a library PDF",
          doc ? *doc : std::string("(none)"));
  context_.events.sendEvent({{"type", "error"}, {"id", ""}, {"message", kNotLibraryPdfMessage}});
  context_.show_library();
}

void Quotes::askDesktopWith(const std::optional<std::string>& text, int pid, Point point) {
  std::optional<std::string> doc = context_.capture.focusedDocumentPath();
  if (doc && LowerExtension(*doc) == "pdf") {
    askDesktopWith(text, *doc, pid, point);
    return;
  }
  SparLog("ask: the front window is not a pdf (%@)",
          doc && !doc->empty() ? *doc : std::string("no document"));
}

void Quotes::askDesktopWith(const std::optional<std::string>& text, const std::string& doc, int pid,
                            Point point) {
  std::optional<Screen> screen = ScreenContainingPoint(context_.screens.screens(), point);
  Rect free;
  double split_x = 0;
  double split_w = 0;
  if (context_.tile_paper_for_ask && context_.tile_paper_for_ask(doc, pid, screen, free) &&
      screen && screen->frame.width > 0) {
    split_x = (free.x - screen->frame.x) / screen->frame.width;
    split_w = free.width / screen->frame.width;
  }
  std::string quote = text.value_or("");
  // Nothing to search for without a quote.
  int page = quote.empty() ? 0 : context_.capture.pageOfQuote(doc, quote);
  nlohmann::json ask = {{"path", doc},       {"title", FileName(doc)}, {"quote", quote},
                        {"page", page},      {"x", point.x},           {"y", point.y},
                        {"splitX", split_x}, {"splitW", split_w}};
  std::string object;
  try {
    object = ask.dump();
  } catch (const nlohmann::json::exception&) {
    return; // text that is not UTF-8: nothing is posted, nothing logged
  }
  context_.bus.post(kAskNotification, object);
  SparLog("ask: %@, %lu chars quoted, to the desktop (split %.3f+%.3f)", FileName(doc),
          Utf16Length(quote), split_x, split_w);
}

} // namespace orvane
