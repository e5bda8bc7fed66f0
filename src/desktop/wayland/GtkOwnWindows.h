// Orvane's own windows on a Wayland session, through GTK alone. A Wayland
// client neither learns nor chooses where its windows are: the frame is the
// window's size at the origin of its monitor, a requested position is left
// to the compositor and only the size is applied.
#pragma once

#include "desktop/OwnWindows.h"

namespace orvane {

class GtkOwnWindows final : public OwnWindows {
public:
  void track(GtkWindow* window) override;
  void whenOnScreen(GtkWindow* window, std::function<void()> task) override;
  Rect frame(GtkWindow* window) override;
  void whenFrameIs(GtkWindow* window, const Rect& frame, unsigned limit_ms,
                   std::function<void()> task) override;
  void setFrame(GtkWindow* window, const Rect& frame) override;
  Size contentSizeOfFrame(GtkWindow* window, const Rect& frame) override;
  bool isOnActiveWorkspace(GtkWindow* window) override;
  bool hasInputFocus(GtkWindow* window) override;
  void requestActivation(GtkWindow* window, uint32_t timestamp) override;
};

} // namespace orvane
