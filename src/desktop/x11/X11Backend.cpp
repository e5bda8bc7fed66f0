#include "desktop/x11/X11Backend.h"

#include "base/Text.h"
#include "desktop/session/GdkScreens.h"
#include "desktop/x11/KeybinderHotkeys.h"
#include "desktop/x11/WnckWindows.h"
#include "desktop/x11/X11Accessibility.h"
#include "desktop/x11/X11FrontWindows.h"
#include "desktop/x11/X11OwnWindows.h"
#include "desktop/x11/X11Selections.h"

#include <gdk/gdkx.h>

namespace orvane {

std::string X11Backend::description() const {
  GdkScreen* screen = gdk_screen_get_default();
  const char* name = screen && GDK_IS_X11_SCREEN(screen)
                         ? gdk_x11_screen_get_window_manager_name(screen)
                         : nullptr;
  // GDK says "unknown" when no EWMH window manager answers.
  std::string wm = name && *name && std::string(name) != "unknown" ? ShortenedText(name, 40)
                                                                   : "no window manager";
  return "X11 (" + wm + ")";
}

std::unique_ptr<Screens> X11Backend::makeScreens() {
  return std::make_unique<GdkScreens>();
}

std::unique_ptr<Accessibility> X11Backend::makeAccessibility() {
  return std::make_unique<X11Accessibility>();
}

std::unique_ptr<Hotkeys> X11Backend::makeHotkeys() {
  return std::make_unique<KeybinderHotkeys>();
}

std::unique_ptr<FrontWindows> X11Backend::makeFrontWindows() {
  return std::make_unique<X11FrontWindows>();
}

std::unique_ptr<Selections> X11Backend::makeSelections() {
  return std::make_unique<X11Selections>();
}

std::unique_ptr<Windows> X11Backend::makeWindows() {
  return std::make_unique<WnckWindows>();
}

std::unique_ptr<OwnWindows> X11Backend::makeOwnWindows() {
  return std::make_unique<X11OwnWindows>();
}

} // namespace orvane
