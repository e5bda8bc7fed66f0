// The selections seam: the PRIMARY selection, the CLIPBOARD with every
// target it offers, and a synthetic copy keystroke to the front window.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace orvane {

// One target of a selection and the bytes its owner gave for it.
struct SelectionTarget {
  std::string target; // the target atom's name ("UTF8_STRING", "image/png")
  std::string bytes;
  bool operator==(const SelectionTarget&) const = default;
};
using ClipboardContents = std::vector<SelectionTarget>;

// The keystroke that copies in the front window.
enum class CopyChord { kControlC, kControlShiftC };

class Selections {
public:
  virtual ~Selections() = default;

  // The process that owns PRIMARY (XRes), or nothing when nobody owns it or
  // the owner's process cannot be told.
  virtual std::optional<int> primaryOwnerPid() = 0;
  // Whether the desktop tells PRIMARY's owner at all. Where it does not
  // (Wayland gives no client another's pid), PRIMARY counts as the
  // selection of the application in front.
  virtual bool tellsPrimaryOwner() const { return true; }
  // PRIMARY as UTF-8 text: "" when its owner answers with empty text,
  // nothing when it has no owner or gives no text.
  virtual std::optional<std::string> primaryText() = 0;
  // Starts reading PRIMARY as text in the background, for a primaryText()
  // that is about to follow: that call then takes this answer, when PRIMARY
  // still has the owner it came from, instead of asking the owner again.
  // Where the desktop has no such means, nothing happens.
  virtual void readPrimaryAhead() {}
  // Drops an answer read ahead and not taken, so that no later read uses it.
  virtual void dropPrimaryAhead() {}
  // Starts, in the background and without waiting, the one-time set-up that
  // the first read would otherwise pay for while the user waits (a
  // connection to the compositor). Called once, after the launch has
  // settled; nothing happens where there is no such set-up.
  virtual void warmUp() {}

  // A number that changes whenever the CLIPBOARD changes hands (owner or
  // ownership timestamp).
  virtual uint64_t clipboardChangeCount() = 0;
  // Every target the CLIPBOARD owner offers, with its bytes; targets whose
  // data cannot be read are left out. Empty when nobody owns it. An owner in
  // this very process is saved too.
  virtual ClipboardContents saveClipboard() = 0;
  // The CLIPBOARD as UTF-8 text, nothing when it holds none.
  virtual std::optional<std::string> clipboardText() = 0;
  // Takes the CLIPBOARD and offers exactly the saved targets, byte for byte.
  virtual void restoreClipboard(const ClipboardContents& contents) = 0;

  // Waits (bounded) until no key is held down, so the hotkey's modifiers do
  // not mix into the chord, then sends the chord to the focused window.
  // False when the chord could not be sent.
  virtual bool sendCopyChord(CopyChord chord) = 0;
  // Lets the time pass; the copy wait polls through it. The reads, the save
  // and the pauses may run the calling thread's main loop meanwhile.
  virtual void pause(std::chrono::milliseconds duration) = 0;

  // For a process about to exit that owns the restored CLIPBOARD: hands it to
  // the clipboard manager, or, without one, starts a background process that
  // serves the bytes itself until another client takes it or ten minutes
  // pass, and returns once that process has taken the CLIPBOARD over.
  virtual void keepClipboardAfterExit() = 0;
};

} // namespace orvane
