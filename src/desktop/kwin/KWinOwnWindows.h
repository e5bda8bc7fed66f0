// Orvane's own windows on KDE Plasma's Wayland session. A Wayland client
// cannot place its windows or learn where they are; KWin can, so the frames
// are read and set through KWin's scripting, on the window of this process
// whose caption is the GTK window's title (the size decides between two of
// the same title). Everything else is GTK's (GtkOwnWindows). Main thread only.
#pragma once

#include "desktop/OwnWindows.h"
#include "desktop/kwin/KWinWindows.h"
#include "desktop/wayland/GtkOwnWindows.h"

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

  Windows& windows_;
  GtkOwnWindows gtk_;
};

} // namespace orvane
