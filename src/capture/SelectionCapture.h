// Taking the selected text of the application in front, and the point on
// the desktop the user looks at.
#pragma once

#include "desktop/Accessibility.h"
#include "desktop/FrontWindows.h"
#include "desktop/Notifications.h"
#include "desktop/Screens.h"
#include "desktop/Selections.h"

#include <chrono>
#include <optional>
#include <string>

namespace orvane {

// The marker in the hand-off folder that says the permission prompt was
// shown once to this account.
inline constexpr char kAskedForAccessibilityMarker[] = "asked-for-accessibility";
// How long the synthetic copy may take to change the CLIPBOARD: this many
// polls of this pause (half a second in all).
inline constexpr int kCopyWaitTries = 25;
inline constexpr std::chrono::milliseconds kCopyWaitPause{20};

struct SelectionCaptureSeams {
  Selections& selections;
  const Accessibility& accessibility;
  Notifications& notifications;
  // Where the process table is read ("/proc"; unit tests give a folder of
  // their own) to tell a terminal the table does not know.
  std::string proc_root = "/proc";
};

struct CapturedSelection {
  // Never an empty string.
  std::optional<std::string> text;
  // The capture wrote saved CLIPBOARD contents back, so this process now
  // owns the user's clipboard.
  bool restored_clipboard = false;
};

// The selection of the front window: PRIMARY when the window's process owns
// it, else a synthetic copy through the CLIPBOARD, which is put back
// afterwards. Without trust nothing is tried; the first such attempt of the
// account (no marker in `handoff_folder`) shows a notification saying why.
CapturedSelection CaptureSelection(const std::optional<FrontWindow>& front,
                                   const SelectionCaptureSeams& seams,
                                   const std::string& handoff_folder);

// The once-per-account notice that selections cannot be read: says why and
// what to do, and writes the marker in `handoff_folder`. Nothing when the
// marker is there.
void AskForTrustOnce(const Accessibility& accessibility, Notifications& notifications,
                     const std::string& handoff_folder);

// True while a capture waits on other clients (the main loop runs
// meanwhile), so that a key pressed again can be left for the first to end.
bool SelectionCaptureRunning();

// The centre of the front window's frame when it has an area, else the
// pointer; logs which it was.
Point AttentionPoint(const std::optional<FrontWindow>& front, const Screens& screens);

} // namespace orvane
