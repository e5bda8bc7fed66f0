// The quick panel's window: a utility window that floats above others, is
// shown on every workspace, stays out of the task bar, takes the keyboard,
// and hides (never closes) on Escape or its close button.
#pragma once

#include "desktop/Geometry.h"
#include "desktop/OwnWindows.h"

#include <cstdint>
#include <gtk/gtk.h>

namespace orvane {

inline constexpr int kPanelWidth = 560;
inline constexpr int kPanelHeight = 680;

class PanelWindow {
public:
  PanelWindow(GtkApplication* application, GtkWidget* content, OwnWindows& own_windows);
  ~PanelWindow();
  PanelWindow(const PanelWindow&) = delete;
  PanelWindow& operator=(const PanelWindow&) = delete;

  GtkWindow* gtkWindow() const { return window_; }
  OwnWindows& ownWindows() const { return own_windows_; }
  void orderOut();
  // Shows the panel and gives it the keyboard. The time is that of the user
  // action that asked for it (a key press), so the window manager's
  // focus-stealing prevention lets the panel take the focus; 0 means now.
  void makeKeyAndOrderFront(uint32_t timestamp = 0);
  bool isVisible() const;
  bool isKeyWindow() const;
  bool keepsAbove() const { return true; }
  bool onEveryWorkspace() const { return true; }
  Rect frame() const;
  void setFrame(const Rect& frame);

private:
  GtkWindow* window_;
  OwnWindows& own_windows_;
  // Counts the presentations and hides, so that a late activation request
  // of an earlier presentation is dropped.
  unsigned presentation_ = 0;
};

} // namespace orvane
