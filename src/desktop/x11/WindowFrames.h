// Frames of Orvane's own GTK windows in desktop coordinates. A frame is the
// outer frame, window-manager decorations included.
#pragma once

#include "desktop/Geometry.h"

#include <functional>
#include <gtk/gtk.h>

namespace orvane {

// Follows the window onto and off the screen, so that its frame is read
// from the X server only when the server has a real one. Called once for
// each of Orvane's windows.
void TrackWindowFrame(GtkWindow* window);
// Runs the task once the window is on screen (at once when it is).
void WhenOnScreen(GtkWindow* window, std::function<void()> task);

Rect WindowFrame(GtkWindow* window);
// Runs the task once the window is on screen with that outer frame (within
// a point), as the X server reports it after the window manager applied a
// move or resize: at once when it is there already, else on the configure
// notification that brings it. The wait is dropped after limit_ms without
// running the task.
void WhenFrameIs(GtkWindow* window, const Rect& frame, unsigned limit_ms,
                 std::function<void()> task);
// Places the outer frame; the content gets the frame less the decorations.
void SetWindowFrame(GtkWindow* window, const Rect& frame);
// The content size that frame gives the window: the frame less the
// decorations as last seen (none before the window was first on screen).
Size ContentSizeOfFrame(GtkWindow* window, const Rect& frame);
// Whether the window is on the workspace the user is looking at (a window
// shown on every workspace always is).
bool IsOnActiveWorkspace(GtkWindow* window);

} // namespace orvane
