// Showing the quick panel: from the hand-off files a capture process left,
// or with a selection and screen taken at a hotkey press; centred on the
// screen the user was looking at.
#pragma once

#include "capture/PanelServerCheck.h"
#include "capture/PanelShowGate.h"
#include "capture/PanelWindow.h"
#include "desktop/Scheduler.h"
#include "desktop/Screens.h"
#include "web/LibraryWindow.h"
#include "web/WebPage.h"

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

namespace orvane {

// The panel's frame centred in the visible frame, each side capped at the
// visible frame's, the origin rounded half away from zero.
Rect CentredPanelFrame(const Rect& visible_frame, Size panel_size);

class QuickPanel {
public:
  // `server_check` makes the development server's check (EnsureServer with
  // the current site and project folder) that comes before each page load.
  QuickPanel(PanelWindow& window, WebPage& web, LibraryWindow& library, const Screens& screens,
             Scheduler& scheduler, std::function<PanelServerCheck::Check()> server_check);
  ~QuickPanel();
  QuickPanel(const QuickPanel&) = delete;
  QuickPanel& operator=(const QuickPanel&) = delete;

  void showPanel();
  std::optional<std::string> takeHandoffFile(const std::string& path);
  std::optional<Screen> takePressScreen();
  // The timestamp is the X server time of the key press that summoned the
  // panel (0: now); presenting with it lets the panel take the keyboard.
  void showPanelWithSelection(const std::optional<std::string>& selection,
                              const std::optional<Screen>& screen, uint32_t timestamp = 0);
  // The two halves of showPanelWithSelection, for a summon that starts the
  // page as soon as its selection is known and shows the panel later.
  void loadPanelPage(const std::optional<std::string>& selection);
  // Starts the check that the next page load waits for, ahead of it.
  void startServerCheck() { server_check_.start(); }
  void presentPanel(const std::optional<Screen>& screen, uint32_t timestamp = 0);
  void centrePanelOnScreen(const std::optional<Screen>& screen);
  // Hides the panel, and drops a showing that waits for its page.
  void hidePanel();

private:
  void showNow(const std::optional<Screen>& screen, uint32_t timestamp);
  void logShown();

  PanelWindow& window_;
  WebPage& web_;
  LibraryWindow& library_;
  const Screens& screens_;
  PanelServerCheck server_check_;
  PanelShowGate show_gate_;
  // The length of the selection in the page last loaded and not yet shown.
  std::optional<size_t> loaded_selection_length_;
};

} // namespace orvane
