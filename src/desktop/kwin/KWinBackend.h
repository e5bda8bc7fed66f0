// The desktop on KDE Plasma's Wayland session: global hotkeys through the
// GlobalShortcuts portal, other windows, the screens and the pointer through
// KWin's scripting, selections through data-control and KWin's fake-input,
// the quick panel as a layer-shell surface.
#pragma once

#include "base/GObjectPtr.h"
#include "desktop/DesktopBackend.h"

#include <functional>
#include <gio/gio.h>
#include <memory>
#include <vector>

namespace orvane {

class KWinScripting;
class KWinWindows;

// What the KWin backend needs from the session, each checked when asked.
struct KWinMeans {
  bool kwin_scripting = false;   // org.kde.KWin answers on the session bus
  bool global_shortcuts = false; // the portal offers GlobalShortcuts
  bool data_control = false;     // the compositor offers data-control
};

// Trusted only with every means; otherwise says which are missing. With a
// bus, a full set of means is kept (every capture asks) until KWin or the
// portal leaves or changes hands on that bus; a missing means is checked
// again each time. Without one, every question checks.
class KWinAccessibility final : public Accessibility {
public:
  explicit KWinAccessibility(std::function<KWinMeans()> check, GDBusConnection* bus = nullptr);
  ~KWinAccessibility() override;
  KWinAccessibility(const KWinAccessibility&) = delete;
  KWinAccessibility& operator=(const KWinAccessibility&) = delete;

  bool isTrusted() const override;
  std::string reasonNotTrusted() const override;

  // The names whose owners the kept means depend on.
  static constexpr const char* kWatchedNames[] = {"org.kde.KWin", "org.freedesktop.portal.Desktop"};

private:
  KWinMeans means() const;

  std::function<KWinMeans()> check_;
  std::vector<guint> watches_;
  mutable bool kept_ = false; // every means was there, and nobody left since
};

class KWinBackend final : public DesktopBackend {
public:
  KWinBackend();
  ~KWinBackend() override;

  std::string description() const override { return "KDE Plasma (Wayland)"; }
  std::unique_ptr<Screens> makeScreens() override;
  std::unique_ptr<Accessibility> makeAccessibility() override;
  std::unique_ptr<Hotkeys> makeHotkeys() override;
  std::unique_ptr<FrontWindows> makeFrontWindows() override;
  std::unique_ptr<Selections> makeSelections() override;
  std::unique_ptr<Windows> makeWindows() override;
  std::unique_ptr<OwnWindows> makeOwnWindows() override;

private:
  KWinMeans checkMeans() const;

  GObjectPtr<GDBusConnection> bus_;
  std::unique_ptr<KWinScripting> scripting_;
  // The window list Orvane's own windows are found and placed through.
  std::unique_ptr<KWinWindows> own_window_list_;
};

} // namespace orvane
