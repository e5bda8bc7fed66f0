// Passages selected elsewhere, sent into the program: ⌥C quotes into the
// open sparring chat or hands the passage with the focused PDF to the
// desktop application; ⌥Q and the "send-quote-to-friend" action send it to
// the library page as a quote from a library PDF; a capture process passes
// it through "quote.txt" and the quote notification.
#pragma once

#include "bridge/EventDelivery.h"
#include "capture/Capture.h"
#include "capture/HandoffFolder.h"
#include "desktop/MessageBus.h"
#include "desktop/Screens.h"

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

namespace orvane {

inline constexpr char kAskNotification[] = "nl.tarnwick.pendrel.ask";
inline constexpr char kNotLibraryPdfMessage[] =
    "Quotes are sent from a library PDF, the front window isn't one. Open the paper's PDF from "
    "the library first.";
// A "quote.txt" larger than this is not read: no selection is that long,
// and the whole text would go into one script.
inline constexpr size_t kMaxQuoteFileBytes = kMaxHandoffBytes;

// The sparring chat as quotes reach it.
class QuoteChat {
public:
  virtual ~QuoteChat() = default;
  // A sparring web view exists (made on first use).
  virtual bool exists() const = 0;
  virtual bool isVisible() const = 0;
  // Shows the hidden chat window again, without activating the program.
  virtual void bringBack() = 0;
  virtual void evaluateScript(const std::string& script) = 0;
};

// Puts the paper's window on the left half of the screen's visible frame
// and answers whether it did, with the area left free for the desktop
// application.
using TilePaperForAsk = std::function<bool(const std::string& pdf_path, int pid,
                                           const std::optional<Screen>& screen, Rect& free)>;

struct QuotesContext {
  Capture& capture;
  const Screens& screens;
  MessageBus& bus;
  EventDelivery& events;
  QuoteChat& chat;
  // The library window's page, the recipient of "friendQuote".
  std::function<PageRef()> library_page;
  // The store's account folder, while it has an account.
  std::function<std::optional<std::string>()> library_folder;
  std::function<void()> show_library;
  TilePaperForAsk tile_paper_for_ask;
  // Where "quote.txt" is read from.
  std::function<std::string()> quote_file;
};

// The paper id of a library PDF: its file name without the extension, every
// "_" read as "/".
std::string PaperIdOfFile(const std::string& pdf_path);

// The library file a focused document is: the document's path resolved
// (links followed, "." and ".." gone; a path that does not resolve in its
// lexical normal form) when it lies inside the resolved library folder;
// nothing when it lies anywhere else.
std::optional<std::string> LibraryFileOf(const std::string& doc, const std::string& folder);

// The script that hands the quote to the sparring page; the quote travels
// as the only element of a JSON array, all of it ASCII.
std::string SparQuoteScript(const std::string& text);

// "quote.txt" read once and deleted: nothing when it is missing, not a
// regular file, larger than the bound, or not UTF-8.
std::optional<std::string> TakeQuoteFile(const std::string& path,
                                         size_t max_bytes = kMaxQuoteFileBytes);

class Quotes {
public:
  explicit Quotes(QuotesContext context);

  void hotkeyQuote();
  // The quote notification from a capture process.
  void quoteArrived();
  void deliverQuote(const std::optional<std::string>& text);
  void hotkeyFriendQuote();
  // The "send-quote-to-friend" action with the CLIPBOARD's text.
  void sendQuoteToFriend(const std::optional<std::string>& clipboard_text);
  void friendQuoteWithText(const std::optional<std::string>& text);
  void askDesktopWith(const std::optional<std::string>& text, int pid, Point point);
  void askDesktopWith(const std::optional<std::string>& text, const std::string& doc, int pid,
                      Point point);

private:
  bool thisProgramInFront();

  QuotesContext context_;
};

} // namespace orvane
