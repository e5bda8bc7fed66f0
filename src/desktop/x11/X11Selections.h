// PRIMARY and CLIPBOARD on the X server, XTest for the copy chord.
#pragma once

#include "desktop/Selections.h"
#include "desktop/x11/KeptClipboard.h"

#include <memory>

namespace orvane {

class XSelectionReader;
struct ServedClipboard;

// Bounds of the selection work; tests shorten the long ones.
struct X11SelectionLimits {
  // How long one read waits for the selection's owner.
  std::chrono::milliseconds read_timeout{1000};
  // How long saving every target of the CLIPBOARD may take in all.
  std::chrono::milliseconds save_budget{3000};
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
  uint64_t clipboardChangeCount() override;
  ClipboardContents saveClipboard() override;
  std::optional<std::string> clipboardText() override;
  void restoreClipboard(const ClipboardContents& contents) override;
  bool sendCopyChord(CopyChord chord) override;
  void pause(std::chrono::milliseconds duration) override;
  void keepClipboardAfterExit() override;

private:
  // The reader's X connection, opened on first use: a program that never
  // captures never opens it.
  XSelectionReader& reader();
  bool servingClipboard() const;
  // Whether the selection owner window belongs to this process.
  bool ownedByThisProcess(unsigned long owner);
  std::optional<std::string> readText(const char* selection);

  X11SelectionLimits limits_;
  std::unique_ptr<XSelectionReader> reader_;
  std::shared_ptr<ServedClipboard> served_;
  // The targets of the last save with their property types and formats, so
  // that a restore of the same bytes answers with the same types.
  std::vector<ServedTarget> last_saved_;
};

} // namespace orvane
