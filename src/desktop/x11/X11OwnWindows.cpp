#include "desktop/x11/X11OwnWindows.h"

#include "desktop/x11/InputFocus.h"
#include "desktop/x11/WindowFrames.h"

namespace orvane {

void X11OwnWindows::track(GtkWindow* window) {
  TrackWindowFrame(window);
}

void X11OwnWindows::whenOnScreen(GtkWindow* window, std::function<void()> task) {
  WhenOnScreen(window, std::move(task));
}

Rect X11OwnWindows::frame(GtkWindow* window) {
  return WindowFrame(window);
}

void X11OwnWindows::whenFrameIs(GtkWindow* window, const Rect& frame, unsigned limit_ms,
                                std::function<void()> task) {
  WhenFrameIs(window, frame, limit_ms, std::move(task));
}

void X11OwnWindows::setFrame(GtkWindow* window, const Rect& frame) {
  SetWindowFrame(window, frame);
}

Size X11OwnWindows::contentSizeOfFrame(GtkWindow* window, const Rect& frame) {
  return ContentSizeOfFrame(window, frame);
}

bool X11OwnWindows::isOnActiveWorkspace(GtkWindow* window) {
  return IsOnActiveWorkspace(window);
}

bool X11OwnWindows::hasInputFocus(GtkWindow* window) {
  return HasInputFocus(window);
}

void X11OwnWindows::requestActivation(GtkWindow* window, uint32_t timestamp) {
  RequestActivation(window, timestamp);
}

} // namespace orvane
