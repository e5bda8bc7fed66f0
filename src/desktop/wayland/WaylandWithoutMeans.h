// A Wayland desktop Orvane has no means on (yet): the core protocol lets an
// application neither bind global keys, nor read another application's
// selection, nor see or move other windows. Orvane's own windows work
// natively through GTK; everything that would reach other applications says
// it cannot, and the trust check says why and what the user can do.
#pragma once

#include "desktop/DesktopBackend.h"

namespace orvane {

class WaylandWithoutMeans final : public DesktopBackend {
public:
  // `desktop_name`: "GNOME", "sway", "KDE Plasma" …
  explicit WaylandWithoutMeans(std::string desktop_name);

  std::string description() const override;
  bool lacksMeans() const override { return true; }
  std::unique_ptr<Screens> makeScreens() override;
  std::unique_ptr<Accessibility> makeAccessibility() override;
  std::unique_ptr<Hotkeys> makeHotkeys() override;
  std::unique_ptr<FrontWindows> makeFrontWindows() override;
  std::unique_ptr<Selections> makeSelections() override;
  std::unique_ptr<Windows> makeWindows() override;
  std::unique_ptr<OwnWindows> makeOwnWindows() override;

private:
  std::string desktop_name_;
};

} // namespace orvane
