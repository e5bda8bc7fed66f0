// The front window read from the X server: _NET_ACTIVE_WINDOW, its owner's
// pid (XRes, else _NET_WM_PID), WM_CLASS, title and outer frame.
#pragma once

#include "desktop/FrontWindows.h"

namespace orvane {

class X11FrontWindows final : public FrontWindows {
public:
  std::optional<FrontWindow> frontWindow() const override;
};

} // namespace orvane
