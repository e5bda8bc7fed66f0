// Frames of Orvane's own GTK windows in desktop coordinates. A frame is the
// outer frame, window-manager decorations included.
#pragma once

#include "desktop/Geometry.h"

#include <gtk/gtk.h>

namespace orvane {

Rect WindowFrame(GtkWindow* window);
// Places the outer frame; the content gets the frame less the decorations.
void SetWindowFrame(GtkWindow* window, const Rect& frame);
// Whether the window is on the workspace the user is looking at (a window
// shown on every workspace always is).
bool IsOnActiveWorkspace(GtkWindow* window);
// "x y w h" of a frame, and back.
std::string FrameString(const Rect& frame);
bool ParseFrameString(const std::string& text, Rect* frame);

} // namespace orvane
