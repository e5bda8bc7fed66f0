#include "capture/QuickPanel.h"

#include "base/Settings.h"
#include "base/SparLog.h"
#include "base/Text.h"
#include "capture/HandoffFolder.h"
#include "capture/QueryEscape.h"
#include "capture/ScreenContainingPoint.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace orvane {

Rect CentredPanelFrame(const Rect& vf, Size size) {
  double width = std::min(size.width, vf.width);
  double height = std::min(size.height, vf.height);
  return {std::round(vf.x + (vf.width - width) * 0.5),
          std::round(vf.y + (vf.height - height) * 0.5), width, height};
}

QuickPanel::QuickPanel(PanelWindow& window, WebPage& web, LibraryWindow& library,
                       const Screens& screens, Scheduler& scheduler,
                       std::function<PanelServerCheck::Check()> server_check)
    : window_(window), web_(web), library_(library), screens_(screens),
      server_check_(std::move(server_check)), show_gate_(scheduler) {
  // The end of the page's load (after its load event, or its failure) lets
  // a waiting showing through.
  web_.onLoadFinished([this] { show_gate_.loadEnded(); });
}

QuickPanel::~QuickPanel() {
  web_.onLoadFinished(nullptr);
}

void QuickPanel::showPanel() {
  std::optional<std::string> selection = takeHandoffFile(HandoffFile("selection.txt"));
  std::optional<Screen> screen = takePressScreen();
  showPanelWithSelection(selection, screen);
}

std::optional<std::string> QuickPanel::takeHandoffFile(const std::string& path) {
  return TakeHandoffFile(path);
}

std::optional<Screen> QuickPanel::takePressScreen() {
  std::optional<std::string> text = takeHandoffFile(HandoffFile("screen.txt"));
  std::optional<Point> hint = text ? ParseScreenHint(*text) : std::nullopt;
  Point point = hint ? *hint : screens_.mouseLocation();
  std::optional<Screen> screen = ScreenContainingPoint(screens_.screens(), point);
  SparLog("panel screen: point %@ -> %@", PointText(point),
          screen ? RectText(screen->frame) : std::string("(no screens)"));
  return screen;
}

void QuickPanel::showPanelWithSelection(const std::optional<std::string>& selection,
                                        const std::optional<Screen>& screen, uint32_t timestamp) {
  loadPanelPage(selection);
  presentPanel(screen, timestamp);
}

void QuickPanel::loadPanelPage(const std::optional<std::string>& selection) {
  // The page never loads before the server's check has ended (started
  // here unless a summon started it at its key press).
  server_check_.finish();
  std::string text = selection.value_or("");
  // Every summon reloads the page.
  web_.load(PanelAddress(SiteAddress(), text));
  // After the call: the end of a load it replaced is not this one's.
  show_gate_.loadStarted();
  loaded_selection_length_ = text.empty() ? std::nullopt : std::optional(Utf16Length(text));
}

void QuickPanel::presentPanel(const std::optional<Screen>& screen, uint32_t timestamp) {
  // Written when the panel opens, after whatever the summon logged before.
  if (std::optional<size_t> length = std::exchange(loaded_selection_length_, std::nullopt))
    SparLog("panel opens with a %lu-char selection", *length);

  // The panel is mapped once its new page has loaded: until then it would
  // show the page it had before, and mapping it would slow that load down.
  show_gate_.show([this, screen, timestamp] { showNow(screen, timestamp); });
}

void QuickPanel::hidePanel() {
  show_gate_.cancel();
  window_.orderOut();
}

void QuickPanel::showNow(const std::optional<Screen>& screen, uint32_t timestamp) {
  // Activating the program must not pull the user to another workspace.
  if (library_.isVisible() && !window_.ownWindows().isOnActiveWorkspace(library_.gtkWindow()))
    library_.orderOut();

  window_.makeKeyAndOrderFront(timestamp);
  // The panel is placed once the window manager has framed it, when its
  // frame is known.
  window_.ownWindows().whenOnScreen(window_.gtkWindow(), [this, screen] {
    centrePanelOnScreen(screen);
    logShown();
  });
}

void QuickPanel::logShown() {
  std::string screen_list;
  for (const Screen& s : screens_.screens())
    screen_list += RectText(s.frame) + " ";
  // The window flags in the form of the original log line: the collection
  // behaviour 0x101 means "every workspace, over full-screen windows", level
  // 3 "floating", policy 1 "no task-bar entry".
  unsigned long behavior = (window_.onEveryWorkspace() ? 0x1UL : 0) | 0x100UL;
  long level = window_.keepsAbove() ? 3 : 0;
  int active = gtk_window_is_active(window_.gtkWindow()) || library_.isKeyWindow() ? 1 : 0;
  SparLog("panel shown: active=%d key=%d visible=%d onActiveSpace=%d behavior=%lu level=%ld "
          "policy=%ld frame=%@ screens=%@ mouse=%@",
          active, window_.isKeyWindow() ? 1 : 0, window_.isVisible() ? 1 : 0,
          window_.ownWindows().isOnActiveWorkspace(window_.gtkWindow()) ? 1 : 0, behavior, level,
          1L, RectText(window_.frame()), screen_list, PointText(screens_.mouseLocation()));
}

void QuickPanel::centrePanelOnScreen(const std::optional<Screen>& screen) {
  if (!screen)
    return;
  Rect asked = CentredPanelFrame(screen->visibleFrame, window_.frame().size());
  window_.setFrame(asked);
  SparLog("panel placed: asked %@ got %@", RectText(asked), RectText(window_.frame()));
}

} // namespace orvane
