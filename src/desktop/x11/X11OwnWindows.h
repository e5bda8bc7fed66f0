// Orvane's own windows on X11: frames from the X server, activation through
// the window manager (_NET_ACTIVE_WINDOW).
#pragma once

#include "desktop/OwnWindows.h"

namespace orvane {

class X11OwnWindows final : public OwnWindows {
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
