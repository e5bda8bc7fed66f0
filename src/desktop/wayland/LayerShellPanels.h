// Orvane's floating panel on a Wayland compositor with layer-shell (KWin,
// sway): an overlay surface that the compositor keeps above every window and
// full-screen application, centred on the monitor it is put on (no anchors),
// with the keyboard while it is shown. Every other window, and the panel on
// a compositor without layer-shell, is left to the wrapped implementation.
#pragma once

#include "desktop/OwnWindows.h"

#include <memory>
#include <set>

namespace orvane {

class LayerShellPanels final : public OwnWindows {
public:
  explicit LayerShellPanels(std::unique_ptr<OwnWindows> others);

  void track(GtkWindow* window) override;
  void makePanel(GtkWindow* window) override;
  void whenOnScreen(GtkWindow* window, std::function<void()> task) override;
  Rect frame(GtkWindow* window) override;
  void whenFrameIs(GtkWindow* window, const Rect& frame, unsigned limit_ms,
                   std::function<void()> task) override;
  void setFrame(GtkWindow* window, const Rect& frame) override;
  Size contentSizeOfFrame(GtkWindow* window, const Rect& frame) override;
  bool isOnActiveWorkspace(GtkWindow* window) override;
  bool hasInputFocus(GtkWindow* window) override;
  void requestActivation(GtkWindow* window, uint32_t timestamp) override;

private:
  bool isPanel(GtkWindow* window) const { return panels_.count(window) > 0; }

  std::unique_ptr<OwnWindows> others_;
  std::set<GtkWindow*> panels_;
};

} // namespace orvane
