// Showing the quick panel: from the hand-off files a capture process left,
// or with a selection and screen taken at a hotkey press; centred on the
// screen the user was looking at.
#pragma once

#include "capture/PanelWindow.h"
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
  QuickPanel(PanelWindow& window, WebPage& web, LibraryWindow& library, const Screens& screens,
             std::function<void()> ensure_server);

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
  void presentPanel(const std::optional<Screen>& screen, uint32_t timestamp = 0);
  void centrePanelOnScreen(const std::optional<Screen>& screen);

private:
  void logShown();

  PanelWindow& window_;
  WebPage& web_;
  LibraryWindow& library_;
  const Screens& screens_;
  std::function<void()> ensure_server_;
  // The length of the selection in the page last loaded and not yet shown.
  std::optional<size_t> loaded_selection_length_;
};

} // namespace orvane
