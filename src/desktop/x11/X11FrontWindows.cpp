#include "desktop/x11/X11FrontWindows.h"

namespace orvane {

// Placeholder until the X11 reading lands: no front window is known.
std::optional<FrontWindow> X11FrontWindows::frontWindow() const {
  return std::nullopt;
}

} // namespace orvane
