// Showing the quick panel: from the hand-off files a capture process left,
// or with a selection and screen taken at a hotkey press; centred on the
// screen the user was looking at.
#pragma once

#include "capture/PanelWindow.h"
#include "desktop/Screens.h"
#include "web/LibraryWindow.h"
#include "web/WebPage.h"

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
  void showPanelWithSelection(const std::optional<std::string>& selection,
                              const std::optional<Screen>& screen);
  void centrePanelOnScreen(const std::optional<Screen>& screen);

  // The hand-over of a hotkey summon: whichever of the reopen event, a
  // delayed call and a refused activation comes first shows the panel.
  void setPendingSummon(std::optional<std::string> selection, std::optional<Screen> screen);
  bool hasPendingSummon() const { return pending_summon_; }
  void takePendingSummon();

private:
  void logShown();

  PanelWindow& window_;
  WebPage& web_;
  LibraryWindow& library_;
  const Screens& screens_;
  std::function<void()> ensure_server_;

  std::optional<std::string> pending_selection_;
  std::optional<Screen> pending_screen_;
  bool pending_summon_ = false;
};

} // namespace orvane
