// Orvane's own windows on KDE Plasma's Wayland session. A Wayland client
// cannot place its windows or learn where they are; KWin can, so the frames
// are read and set through KWin's scripting, on the window of this process
// whose caption is the GTK window's title (the size decides between two of
// the same title). Everything else is GTK's (GtkOwnWindows). Main thread only.
//
// KWin keeps a window within the minimum size its client last committed, and
// a size hint set on a GtkWindow reaches the compositor only with the
// window's next painted frame: a frame is asked of KWin once that frame is
// committed and KWin has read it (a display sync after it), or after a short
// wait when no frame comes.
#pragma once

#include "desktop/OwnWindows.h"
#include "desktop/kwin/KWinWindows.h"
#include "desktop/wayland/GtkOwnWindows.h"

#include <memory>
#include <optional>

namespace orvane {

class KWinOwnWindows final : public OwnWindows {
public:
  // `windows` must outlive this object.
  explicit KWinOwnWindows(Windows& windows) : windows_(windows) {}

  void track(GtkWindow* window) override { gtk_.track(window); }
  void whenOnScreen(GtkWindow* window, std::function<void()> task) override {
    gtk_.whenOnScreen(window, std::move(task));
  }
  Rect frame(GtkWindow* window) override;
  void whenFrameIs(GtkWindow* window, const Rect& frame, unsigned limit_ms,
                   std::function<void()> task) override;
  void setFrame(GtkWindow* window, const Rect& frame) override;
  Size contentSizeOfFrame(GtkWindow* window, const Rect& frame) override {
    return gtk_.contentSizeOfFrame(window, frame);
  }
  bool isOnActiveWorkspace(GtkWindow* window) override { return gtk_.isOnActiveWorkspace(window); }
  bool hasInputFocus(GtkWindow* window) override { return gtk_.hasInputFocus(window); }
  // KWin activates the window: a Wayland client cannot raise itself.
  void requestActivation(GtkWindow* window, uint32_t timestamp) override;

private:
  // KWin's window for the GTK window, when KWin lists it.
  std::optional<WindowInfo> kwinWindowOf(GtkWindow* window);

  // Sets the frame through KWin at once (GTK's request when KWin cannot).
  void applyFrame(GtkWindow* window, const Rect& frame);

  Windows& windows_;
  GtkOwnWindows gtk_;
  // Frames still waiting for their commit are dropped once this object goes.
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

} // namespace orvane
