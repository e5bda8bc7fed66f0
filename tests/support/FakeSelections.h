// A PRIMARY selection and CLIPBOARD held in memory, for unit tests of the
// capture logic. The copy chord puts `copy_puts` on the CLIPBOARD, visible
// once `copy_lands_after_pauses` pauses have passed (never, when nothing is
// set). Every call that touches the clipboard is recorded.
#pragma once

#include "desktop/Selections.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace orvane {

class FakeSelections final : public Selections {
public:
  // PRIMARY.
  std::optional<int> primary_owner_pid;
  std::optional<std::string> primary_text;

  // The CLIPBOARD and its change count.
  ClipboardContents clipboard;
  uint64_t change_count = 1;

  // What the copy chord does.
  bool chord_can_be_sent = true;
  std::optional<ClipboardContents> copy_puts;
  int copy_lands_after_pauses = 0;

  // What happened.
  std::vector<CopyChord> chords_sent;
  std::vector<ClipboardContents> restores;
  std::vector<std::chrono::milliseconds> pauses;
  int primary_reads = 0;
  int reads_ahead = 0;
  int drops_ahead = 0;
  // False for a desktop that never tells PRIMARY's owner (Wayland).
  bool tells_primary_owner = true;
  int keep_after_exit_calls = 0;
  // Runs at each pause, as the main loop does while the real seam waits.
  std::function<void()> on_pause;

  std::optional<int> primaryOwnerPid() override { return primary_owner_pid; }
  bool tellsPrimaryOwner() const override { return tells_primary_owner; }
  std::optional<std::string> primaryText() override {
    ++primary_reads;
    return primary_text;
  }
  void readPrimaryAhead() override { ++reads_ahead; }
  void dropPrimaryAhead() override { ++drops_ahead; }

  uint64_t clipboardChangeCount() override {
    landPendingCopy();
    return change_count;
  }
  ClipboardContents saveClipboard() override { return clipboard; }
  std::optional<std::string> clipboardText() override {
    landPendingCopy();
    for (const SelectionTarget& target : clipboard)
      if (target.target == "UTF8_STRING")
        return target.bytes;
    return std::nullopt;
  }
  void restoreClipboard(const ClipboardContents& contents) override {
    restores.push_back(contents);
    clipboard = contents;
    ++change_count; // taking the CLIPBOARD changes its owner
  }
  bool sendCopyChord(CopyChord chord) override {
    chords_sent.push_back(chord);
    if (!chord_can_be_sent)
      return false;
    copy_pending_ = copy_puts.has_value();
    pauses_at_chord_ = pauses.size();
    landPendingCopy();
    return true;
  }
  void pause(std::chrono::milliseconds duration) override {
    pauses.push_back(duration);
    if (on_pause)
      on_pause();
  }
  void keepClipboardAfterExit() override { ++keep_after_exit_calls; }

  // Text as an application offers it: two text targets.
  static ClipboardContents TextContents(const std::string& text) {
    return {{"UTF8_STRING", text}, {"text/plain;charset=utf-8", text}};
  }

private:
  void landPendingCopy() {
    if (!copy_pending_ || int(pauses.size() - pauses_at_chord_) < copy_lands_after_pauses)
      return;
    copy_pending_ = false;
    clipboard = *copy_puts;
    ++change_count;
  }

  bool copy_pending_ = false;
  size_t pauses_at_chord_ = 0;
};

} // namespace orvane
