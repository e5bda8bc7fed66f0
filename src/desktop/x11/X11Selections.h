// PRIMARY and CLIPBOARD on the X server, XTest for the copy chord. Every
// conversation with a selection's owner runs on a worker thread with an X
// connection of its own; the calling (main) thread keeps running its main
// loop until the answer comes back, so no owner can hold it.
#pragma once

#include "desktop/Selections.h"
#include "desktop/session/KeptClipboard.h"

#include <memory>

namespace orvane {

class SelectionWorker;
class XSelectionReader;
struct ServedClipboard;

// The budgets of one read or save of a selection (see WaitBudget).
// How long an owner may stay silent before its answer or its next INCR chunk.
inline constexpr std::chrono::milliseconds kSelectionIdleWait{500};
// The silence one read or save puts up with in all: about what an owner that
// never answers costs a capture.
inline constexpr std::chrono::milliseconds kSelectionStallBudget{1000};
// The longest one read or save may take however its owner progresses; only
// an owner that trickles its data meets it.
inline constexpr std::chrono::milliseconds kSelectionCeiling{20000};

// How long a process that hands its restored CLIPBOARD to a background
// keeper waits for the keeper to take it before it exits.
inline constexpr std::chrono::milliseconds kKeeperHandoverWait{5000};

// Bounds of the selection work; tests shorten the long ones.
struct X11SelectionLimits {
  std::chrono::milliseconds idle_wait = kSelectionIdleWait;
  std::chrono::milliseconds stall_budget = kSelectionStallBudget;
  std::chrono::milliseconds ceiling = kSelectionCeiling;
  // The most bytes the saved CLIPBOARD may hold; a target beyond is dropped.
  size_t max_clipboard_bytes = size_t(64) << 20;
  // How long the copy chord waits for the user's keys to come up.
  std::chrono::milliseconds keys_up_wait{1000};
  // How long a background keeper serves the CLIPBOARD after a process exits.
  std::chrono::milliseconds keeper_lifetime = std::chrono::minutes(10);
  // The executable started as the keeper; empty for this process's own.
  std::string keeper_executable;
};

class X11Selections final : public Selections {
public:
  explicit X11Selections(X11SelectionLimits limits = {});
  ~X11Selections() override;

  std::optional<int> primaryOwnerPid() override;
  std::optional<std::string> primaryText() override;
  void readPrimaryAhead() override;
  void dropPrimaryAhead() override;
  uint64_t clipboardChangeCount() override;
  ClipboardContents saveClipboard() override;
  std::optional<std::string> clipboardText() override;
  void restoreClipboard(const ClipboardContents& contents) override;
  bool sendCopyChord(CopyChord chord) override;
  void pause(std::chrono::milliseconds duration) override;
  void keepClipboardAfterExit() override;

private:
  // The main thread's X connection (owners, change count, chord), opened on
  // first use: a program that never captures never opens it.
  XSelectionReader& reader();
  // The conversations' thread, likewise started on first use.
  SelectionWorker& worker();
  bool servingClipboard() const;
  std::optional<std::string> readText(const char* selection);

  // PRIMARY read ahead and not yet taken.
  struct Ahead;
  std::unique_ptr<Ahead> primary_ahead_;

  X11SelectionLimits limits_;
  std::unique_ptr<XSelectionReader> reader_;
  std::unique_ptr<SelectionWorker> worker_;
  std::shared_ptr<ServedClipboard> served_;
  // The targets of the last save with their property types and formats, so
  // that a restore of the same bytes answers with the same types.
  std::vector<ServedTarget> last_saved_;
  // False once the object is destroyed. A read or save runs the main loop
  // while it waits, and something run there may destroy this object; what
  // comes after the wait looks here before it touches a member.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

} // namespace orvane
