// Reads selections over a private Xlib connection of its own, never through
// GTK: every wait polls that connection's socket with a deadline, so a read
// neither re-enters the main loop nor hangs on an owner that never answers.
// One reader belongs to one thread; readers on different threads share
// nothing but the process's X error handler, which tells their displays
// apart and hands no error of theirs to GDK.
#pragma once

#include "desktop/session/KeptClipboard.h"
#include "desktop/x11/XClientIds.h"

#include <X11/Xlib.h>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace orvane {

// What one conversion of a selection gave: the property's type and format
// and its items (see ServedTarget for how they are laid out).
struct SelectionAnswer {
  std::string type;
  int format = 8;
  std::string bytes;
};

// How long the conversations of one read or save wait on the selection's
// owner. The owner may stay silent `idle` at a time: its answer and each INCR
// chunk start the wait anew, so a slow owner of a large selection finishes
// while it keeps going. A wait that runs out takes its length from `stall`,
// which every conversion of the read or save shares, so an owner that never
// answers costs about that much in all. Nothing goes on past `ceiling`, which
// only an owner that trickles its data ever meets.
struct WaitBudget {
  using Clock = std::chrono::steady_clock;
  std::chrono::milliseconds idle{0};
  std::chrono::milliseconds stall{0};
  Clock::time_point ceiling;

  WaitBudget(std::chrono::milliseconds idle_wait, std::chrono::milliseconds stall_budget,
             std::chrono::milliseconds longest)
      : idle(idle_wait), stall(stall_budget), ceiling(Clock::now() + longest) {}
  // Whether no further wait is allowed.
  bool spent() const { return stall.count() <= 0 || Clock::now() >= ceiling; }
};

class XSelectionReader {
public:
  using Clock = std::chrono::steady_clock;

  // `watch_clipboard`: count the CLIPBOARD's changes of hands (XFixes).
  // `cancelled`: when it turns true, every wait ends at once (a reader on a
  // worker thread that is being shut down).
  explicit XSelectionReader(bool watch_clipboard = true,
                            const std::atomic<bool>* cancelled = nullptr);
  ~XSelectionReader();
  XSelectionReader(const XSelectionReader&) = delete;
  XSelectionReader& operator=(const XSelectionReader&) = delete;

  // Puts the process's X error handler for readers in place, once. A
  // reader does it itself, but one opened on another thread could do it
  // while GDK has an error trap pushed on the main thread, and GDK would
  // take it away again when it pops the trap: a worker calls this from the
  // main thread before it starts.
  static void InstallErrorHandler();

  // False when the display could not be opened; every read then gives nothing.
  bool connected() const { return display_ != nullptr; }
  // The reader's own connection, for requests its methods do not make
  // (tests provoke errors on it). Only the reader's thread may use it.
  Display* display() const { return display_; }
  // How many X errors arrived on the connection while no request of the
  // reader was watching for them; they are ignored, and the process goes on.
  uint64_t untrappedErrors() const;

  // The window that owns the selection ("PRIMARY", "CLIPBOARD"), 0 for none.
  unsigned long owner(const char* selection);
  // Leaves the selection without an owner.
  void disown(const char* selection);
  // The process of the client that created the window (XRes), if known.
  std::optional<int> pidOfWindow(unsigned long window);
  // Counts every change of hands of the CLIPBOARD seen so far (XFixes
  // selection events; owner polling without XFixes).
  uint64_t clipboardChanges();

  // Converts the selection to the target and reads the answer, INCR included.
  // Nothing when the owner refuses, stays silent past the budget's waits,
  // answers with a malformed property, or sends more than `limit` bytes.
  // With `owner`, the selection's owner is asked for right after the
  // conversion is sent (the server hands the request to that owner), so
  // that the question and the owner's work overlap; 0 when it has none.
  std::optional<SelectionAnswer> convert(const char* selection, const std::string& target,
                                         WaitBudget& budget, size_t limit,
                                         unsigned long* owner = nullptr);
  // The selection's targets (a TARGETS answer of atoms), at most `max` names.
  std::optional<std::vector<std::string>> targets(const char* selection, WaitBudget& budget,
                                                  size_t max = 512);

  // Whether no key is held down on the keyboard right now.
  bool noKeyHeld();
  // Sends the keysyms' presses in order, then their releases in reverse
  // order (XTest). False without XTest or when a keysym has no key.
  bool sendChord(const std::vector<unsigned long>& keysyms);

  // Drops what the conversions so far left behind: the events still coming
  // for their windows. A round trip when there are any; a conversion leaves
  // this for later, so that its caller has the answer without it.
  void tidy();

private:
  unsigned long atom(const char* name);
  bool waitForEvent(WaitBudget& budget, XEvent* event, bool (*match)(const XEvent&, const void*),
                    const void* context);
  std::optional<SelectionAnswer> readAnswer(unsigned long requestor, unsigned long property,
                                            WaitBudget& budget, size_t limit);
  std::optional<std::string> readProperty(unsigned long window, unsigned long property,
                                          size_t limit, std::string* type, int* format,
                                          bool* exists);

  Display* display_ = nullptr;
  const std::atomic<bool>* cancelled_ = nullptr;
  int fixes_event_base_ = -1;
  uint64_t changes_ = 0;
  unsigned long last_owner_ = 0;
  // Windows of ended conversions, destroyed, whose events tidy() drops.
  std::vector<unsigned long> spent_requestors_;
};

} // namespace orvane
