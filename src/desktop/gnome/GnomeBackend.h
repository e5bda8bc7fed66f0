// The desktop on GNOME's Wayland session, through Orvane's GNOME Shell
// extension (GnomeShell): the global hotkeys as the extension's
// keybindings, the front window, other windows, the screens and the pointer,
// PRIMARY and the CLIPBOARD, the copy chord, and the placing of Orvane's own
// windows (the quick panel kept above the others by the extension; GNOME
// has no layer-shell). At start-up the extension is set up for the user
// (GnomeExtensionSetup). Without the extension the backend stays, not
// trusted, and the launch says so once.
#pragma once

#include "base/GObjectPtr.h"
#include "desktop/DesktopBackend.h"
#include "desktop/Notifications.h"

#include <gio/gio.h>
#include <memory>

namespace orvane {

class GnomeShell;
class GnomeWindows;

class GnomeBackend final : public DesktopBackend {
public:
  GnomeBackend();
  // For tests: the bus, the places the extension is set up from, and where
  // its notice goes (null: none).
  GnomeBackend(GDBusConnection* session_bus, bool set_up_extension,
               std::unique_ptr<Notifications> notifications);
  ~GnomeBackend() override;

  std::string description() const override { return "GNOME (Wayland)"; }
  // Without the extension no hotkey ever fires, so the launch tells the
  // user at once; unless setting the extension up has just told them to log
  // in again, which is all they can do.
  bool lacksMeans() const override { return lacks_means_; }
  std::unique_ptr<Screens> makeScreens() override;
  std::unique_ptr<Accessibility> makeAccessibility() override;
  std::unique_ptr<Hotkeys> makeHotkeys() override;
  std::unique_ptr<FrontWindows> makeFrontWindows() override;
  std::unique_ptr<Selections> makeSelections() override;
  std::unique_ptr<Windows> makeWindows() override;
  std::unique_ptr<OwnWindows> makeOwnWindows() override;

private:
  GObjectPtr<GDBusConnection> bus_;
  std::unique_ptr<Notifications> notifications_;
  std::unique_ptr<GnomeShell> shell_;
  // The window list Orvane's own windows are found and placed through.
  std::unique_ptr<GnomeWindows> own_window_list_;
  std::string setup_note_;
  bool lacks_means_ = false;
};

} // namespace orvane
