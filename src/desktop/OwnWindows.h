// The own-windows seam: what Orvane does to its own GTK windows that GTK
// alone cannot do the same way on every desktop: read and place their outer
// frames in desktop coordinates, tell whether one has the keyboard, and ask
// the desktop to activate one. A frame is the outer frame, decorations
// included.
#pragma once

#include "desktop/Geometry.h"

#include <cstdint>
#include <functional>
#include <gtk/gtk.h>

namespace orvane {

class OwnWindows {
public:
  virtual ~OwnWindows() = default;

  // Follows the window onto and off the screen; called once for each of
  // Orvane's windows, before it is first shown.
  virtual void track(GtkWindow* window) = 0;
  // Makes the window the floating panel: above every other window, on every
  // workspace, shown on the screen its frame is set on. Called once, before
  // the window is first shown; the window has the panel's X11 hints already.
  virtual void makePanel(GtkWindow*) {}
  // Runs the task once the window is on screen (at once when it is).
  virtual void whenOnScreen(GtkWindow* window, std::function<void()> task) = 0;
  // The window's outer frame as the desktop last reported it.
  virtual Rect frame(GtkWindow* window) = 0;
  // Runs the task once the window has that outer frame (within a point) as
  // the desktop reports it after applying a move or resize; dropped without
  // running after limit_ms.
  virtual void whenFrameIs(GtkWindow* window, const Rect& frame, unsigned limit_ms,
                           std::function<void()> task) = 0;
  // Places the outer frame; the content gets the frame less the decorations.
  virtual void setFrame(GtkWindow* window, const Rect& frame) = 0;
  // The content size that frame gives the window.
  virtual Size contentSizeOfFrame(GtkWindow* window, const Rect& frame) = 0;
  // Whether the window is on the workspace the user is looking at.
  virtual bool isOnActiveWorkspace(GtkWindow* window) = 0;
  // Whether the window has the keyboard, asked of the desktop rather than of
  // GTK's "is-active" (which a global hotkey's grab turns off on X11).
  virtual bool hasInputFocus(GtkWindow* window) = 0;
  // Asks the desktop to raise the window and give it the keyboard, on behalf
  // of the user action at `timestamp` (0: now).
  virtual void requestActivation(GtkWindow* window, uint32_t timestamp) = 0;
};

} // namespace orvane
