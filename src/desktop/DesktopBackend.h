// One desktop API, a backend per kind of session: the backend hands out the
// seams that reach other applications (their windows, their selections, the
// global hotkeys) and Orvane's own windows. The chooser picks it once at
// start-up; nothing above src/desktop/ knows which one runs.
#pragma once

#include "desktop/Accessibility.h"
#include "desktop/FrontWindows.h"
#include "desktop/Hotkeys.h"
#include "desktop/OwnWindows.h"
#include "desktop/Screens.h"
#include "desktop/Selections.h"
#include "desktop/Windows.h"

#include <memory>
#include <string>

namespace orvane {

class DesktopBackend {
public:
  virtual ~DesktopBackend() = default;
  // What the launch logs after "desktop: ": "X11 (openbox)", "KDE Plasma
  // (Wayland)", "GNOME (Wayland) — no backend".
  virtual std::string description() const = 0;
  // Whether Orvane has no means at all on this desktop to reach other
  // applications, so that the launch tells the user at once (the hotkeys
  // that would otherwise bring the news never fire).
  virtual bool lacksMeans() const { return false; }

  virtual std::unique_ptr<Screens> makeScreens() = 0;
  virtual std::unique_ptr<Accessibility> makeAccessibility() = 0;
  virtual std::unique_ptr<Hotkeys> makeHotkeys() = 0;
  virtual std::unique_ptr<FrontWindows> makeFrontWindows() = 0;
  virtual std::unique_ptr<Selections> makeSelections() = 0;
  virtual std::unique_ptr<Windows> makeWindows() = 0;
  virtual std::unique_ptr<OwnWindows> makeOwnWindows() = 0;
};

} // namespace orvane
