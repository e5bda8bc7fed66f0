#include "capture/SelectionCapture.h"

#include "base/Paths.h"
#include "base/SparLog.h"
#include "base/Text.h"
#include "capture/CopyChords.h"
#include "desktop/ProcessDocuments.h"

#include <glib.h>
#include <glib/gstdio.h>

namespace orvane {

namespace {

// Main thread only, as every capture is.
bool capture_running = false;

constexpr size_t kLoggedNameLength = 80;

std::string WindowName(const std::optional<FrontWindow>& front) {
  if (!front)
    return "?";
  const std::string& name = front->wm_class.empty() ? front->wm_instance : front->wm_class;
  return name.empty() ? "?" : ShortenedText(name, kLoggedNameLength);
}

} // namespace

void AskForTrustOnce(const Accessibility& accessibility, Notifications& notifications,
                     const std::string& handoff_folder) {
  std::string marker = JoinPath(handoff_folder, kAskedForAccessibilityMarker);
  if (g_file_test(marker.c_str(), G_FILE_TEST_EXISTS))
    return;
  std::string reason = accessibility.reasonNotTrusted();
  std::string body = reason.empty() ? "" : reason + "\n\n";
  body += "Until then Orvane's hotkeys cannot take text you select in other applications. "
          "This notice is shown once.";
  notifications.notify("Orvane cannot read your selection", body);
  // Writes into the hand-off folder ignore errors: the prompt then simply
  // comes again at the next capture.
  g_mkdir_with_parents(handoff_folder.c_str(), 0700);
  g_file_set_contents(marker.c_str(), "", 0, nullptr);
}

namespace {

std::optional<std::string> NonEmpty(std::optional<std::string> text) {
  if (text && text->empty())
    return std::nullopt;
  return text;
}

// The synthetic copy: the chord goes to the front window, and whatever it
// put on the CLIPBOARD is read and replaced by what was there before.
CapturedSelection CopyThroughClipboard(const std::optional<FrontWindow>& front,
                                       Selections& selections, const std::string& proc_root) {
  std::optional<CopyChord> chord =
      front ? CopyChordFor(front->wm_instance, front->wm_class,
                           [&] { return HoldsPseudoTerminalMaster(front->pid, proc_root); })
            : CopyChord::kControlC;
  if (!chord) {
    SparLog("capture: %@ has no copy chord — nothing sent", WindowName(front));
    return {};
  }
  uint64_t count = selections.clipboardChangeCount();
  ClipboardContents saved = selections.saveClipboard();
  if (!selections.sendCopyChord(*chord)) {
    SparLog("capture: could not send %@", CopyChordText(*chord));
    return {};
  }
  for (int attempt = 0; attempt < kCopyWaitTries; ++attempt) {
    if (selections.clipboardChangeCount() != count)
      break;
    selections.pause(kCopyWaitPause);
  }
  if (selections.clipboardChangeCount() == count)
    return {}; // nothing copied, and the clipboard was not touched
  CapturedSelection captured;
  captured.text = NonEmpty(selections.clipboardText());
  // With nothing saved the empty restore still takes the copy off the
  // clipboard, as clearing it would.
  selections.restoreClipboard(saved);
  captured.restored_clipboard = !saved.empty();
  return captured;
}

} // namespace

bool SelectionCaptureRunning() {
  return capture_running;
}

CapturedSelection CaptureSelection(const std::optional<FrontWindow>& front,
                                   const SelectionCaptureSeams& seams,
                                   const std::string& handoff_folder) {
  // The selection seam lets the main loop run while it waits on other
  // clients, so a capture can be asked for again meanwhile: a second
  // capture on top of the first would save the first's copy as the user's
  // clipboard. It takes nothing instead.
  if (capture_running) {
    SparLog("capture: another capture is still running, this one takes nothing");
    return {};
  }
  capture_running = true;
  struct Done {
    ~Done() { capture_running = false; }
  } done;
  g_mkdir_with_parents(handoff_folder.c_str(), 0700);
  if (!seams.accessibility.isTrusted()) {
    AskForTrustOnce(seams.accessibility, seams.notifications, handoff_folder);
    SparLog("capture: no Accessibility permission");
    return {};
  }
  // The direct read: PRIMARY is the selection of the window that owns it
  // (of the window in front, where the desktop does not tell the owner).
  // Any text from it, even none, is the answer.
  if (front && front->pid > 0) {
    bool front_owns_primary = !seams.selections.tellsPrimaryOwner();
    if (!front_owns_primary) {
      std::optional<int> owner = seams.selections.primaryOwnerPid();
      front_owns_primary = owner && *owner == front->pid;
    }
    if (front_owns_primary) {
      if (std::optional<std::string> primary = seams.selections.primaryText())
        return {NonEmpty(std::move(primary)), false};
    }
  }
  return CopyThroughClipboard(front, seams.selections, seams.proc_root);
}

Point AttentionPoint(const std::optional<FrontWindow>& front, const Screens& screens) {
  Point point;
  const char* source;
  if (front && front->frame && front->frame->width > 0 && front->frame->height > 0) {
    const Rect& frame = *front->frame;
    point = {frame.x + frame.width * 0.5, frame.y + frame.height * 0.5};
    source = "focused window";
  } else {
    point = screens.mouseLocation();
    source = "pointer";
  }
  SparLog("capture: attention at %@ from %@", PointText(point), source);
  return point;
}

} // namespace orvane
