// The desktop on X11 (and XWayland when the setting asks for it): EWMH
// through libwnck and Xlib, passive key grabs, the X selections.
#pragma once

#include "desktop/DesktopBackend.h"

namespace orvane {

class X11Backend final : public DesktopBackend {
public:
  // "X11 (openbox)": the window manager's name, as it announces itself.
  std::string description() const override;
  std::unique_ptr<Screens> makeScreens() override;
  std::unique_ptr<Accessibility> makeAccessibility() override;
  std::unique_ptr<Hotkeys> makeHotkeys() override;
  std::unique_ptr<FrontWindows> makeFrontWindows() override;
  std::unique_ptr<Selections> makeSelections() override;
  std::unique_ptr<Windows> makeWindows() override;
  std::unique_ptr<OwnWindows> makeOwnWindows() override;
};

} // namespace orvane
