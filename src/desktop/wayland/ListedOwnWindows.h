// Orvane's own windows on a Wayland session whose compositor lists and
// places windows for Orvane (KWin's scripting, the GNOME Shell extension). A
// Wayland client cannot place its windows or learn where they are; the
// compositor can, so the frames are read and set through the desktop's
// window list (a Windows), on the window of this process whose title is the
// GTK window's title (the size decides between two of the same title). Once
// found, that listed window stays the GTK window's while it is mapped, so a
// resize in progress (the sizes differing for a moment) never loses it.
// Everything else is GTK's (GtkOwnWindows). Main thread only.
//
// A compositor keeps a window within the minimum size its client last
// committed, and a size hint set on a GtkWindow reaches the compositor only
// with the window's next painted frame: a frame is asked of the compositor
// once that frame is committed and the compositor has read it (a display
// sync after it), or after a short wait when no frame comes.
#pragma once

#include "desktop/OwnWindows.h"
#include "desktop/Windows.h"
#include "desktop/wayland/GtkOwnWindows.h"

#include <map>
#include <memory>
#include <optional>

namespace orvane {

class ListedOwnWindows final : public OwnWindows {
public:
  struct Options {
    // Makes the listed window the floating panel (above every other window,
    // on every workspace); empty where another layer does that (layer-shell
    // on KWin). Run each time the panel is mapped, once the desktop lists
    // its window: a Wayland window hidden and shown again is a new window
    // for the compositor.
    std::function<bool(unsigned long id)> make_panel;
    // How long a mapped window is looked for in the list (the panel to make
    // it the panel, a window to activate).
    unsigned panel_wait_ms = 2000;
  };

  // `windows` must outlive this object.
  explicit ListedOwnWindows(Windows& windows) : windows_(windows) {}
  ListedOwnWindows(Windows& windows, Options options)
      : windows_(windows), options_(std::move(options)) {}

  void track(GtkWindow* window) override;
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
  void makePanel(GtkWindow* window) override;
  // The desktop activates the window: a Wayland client cannot raise itself.
  void requestActivation(GtkWindow* window, uint32_t timestamp) override;

private:
  // The listed window for the GTK window, when the desktop lists it.
  std::optional<WindowInfo> listedWindowOf(GtkWindow* window);
  // Looks for the mapped panel in the list until it is there (then makes it
  // the panel) or the time is up.
  void makePanelWhenListed(GtkWindow* window);
  // Runs the task with the listed window once the desktop lists the mapped
  // window, or with nothing when it does not within Options::panel_wait_ms;
  // not at all when the window is hidden or this object goes meanwhile.
  void whenListed(GtkWindow* window, std::function<void(std::optional<WindowInfo>)> task);

  // Sets the frame through the desktop at once, or once the desktop lists
  // the mapped window (GTK's request when the desktop cannot).
  void applyFrame(GtkWindow* window, const Rect& frame);

  Windows& windows_;
  Options options_;
  GtkOwnWindows gtk_;
  // The listed window found for each mapped GTK window; forgotten when it is
  // unmapped (the compositor lists it anew when it is shown again).
  std::map<GtkWindow*, unsigned long> listed_ids_;
  // Frames still waiting for their commit are dropped once this object goes.
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

} // namespace orvane
