#include "desktop/kwin/KWinBackend.h"

#include "desktop/kwin/AppScope.h"
#include "desktop/kwin/KWinScreens.h"
#include "desktop/kwin/KWinScripting.h"
#include "desktop/kwin/KWinSelections.h"
#include "desktop/kwin/KWinWindows.h"
#include "desktop/kwin/PortalHotkeys.h"
#include "desktop/session/BusNames.h"
#include "desktop/wayland/DataControl.h"
#include "desktop/wayland/LayerShellPanels.h"
#include "desktop/wayland/ListedOwnWindows.h"

namespace orvane {

namespace {

constexpr int kCheckTimeoutMs = 1000;

// The portal offers GlobalShortcuts when it can tell that interface's
// version (xdg-desktop-portal lists only what a backend implements).
bool PortalHasGlobalShortcuts(GDBusConnection* bus) {
  if (!BusNameHasOwner(bus, "org.freedesktop.portal.Desktop", kCheckTimeoutMs))
    return false;
  GVariant* reply = g_dbus_connection_call_sync(
      bus, "org.freedesktop.portal.Desktop", "/org/freedesktop/portal/desktop",
      "org.freedesktop.DBus.Properties", "Get",
      g_variant_new("(ss)", "org.freedesktop.portal.GlobalShortcuts", "version"),
      G_VARIANT_TYPE("(v)"), G_DBUS_CALL_FLAGS_NO_AUTO_START, kCheckTimeoutMs, nullptr, nullptr);
  if (!reply)
    return false;
  g_variant_unref(reply);
  return true;
}

} // namespace

KWinAccessibility::KWinAccessibility(std::function<KWinMeans()> check, GDBusConnection* bus)
    : check_(std::move(check)) {
  if (!bus)
    return;
  // Each report of an owner, or of none, drops what was kept: after its
  // first report a watch reports only changes (gone, or a new process).
  auto changed = +[](GDBusConnection*, const gchar*, gpointer data) {
    static_cast<KWinAccessibility*>(data)->kept_ = false;
  };
  auto appeared = +[](GDBusConnection*, const gchar*, const gchar*, gpointer data) {
    static_cast<KWinAccessibility*>(data)->kept_ = false;
  };
  for (const char* name : kWatchedNames)
    watches_.push_back(g_bus_watch_name_on_connection(bus, name, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                                      appeared, changed, this, nullptr));
}

KWinAccessibility::~KWinAccessibility() {
  for (guint watch : watches_)
    g_bus_unwatch_name(watch);
}

KWinMeans KWinAccessibility::means() const {
  if (kept_)
    return {true, true, true};
  KWinMeans means = check_();
  kept_ = !watches_.empty() && means.kwin_scripting && means.global_shortcuts && means.data_control;
  return means;
}

bool KWinAccessibility::isTrusted() const {
  KWinMeans means = this->means();
  return means.kwin_scripting && means.global_shortcuts && means.data_control;
}

std::string KWinAccessibility::reasonNotTrusted() const {
  KWinMeans means = this->means();
  std::string missing;
  auto add = [&](bool present, const char* what) {
    if (present)
      return;
    if (!missing.empty())
      missing += "; ";
    missing += what;
  };
  add(means.kwin_scripting, "KWin does not answer on the session bus, so Orvane cannot see or "
                            "move other windows");
  add(means.global_shortcuts,
      "the desktop portal offers no global shortcuts (install xdg-desktop-portal-kde), so the "
      "hotkeys cannot be bound");
  add(means.data_control, "the compositor offers no data-control, so Orvane cannot read the "
                          "text you select in other applications");
  if (missing.empty())
    return "";
  return "On KDE Plasma's Wayland session: " + missing +
         ". Until then, bind the command \"orvane --capture-selection\" to a keyboard shortcut "
         "in System Settings (see the README).";
}

KWinBackend::KWinBackend()
    : bus_(
          GObjectPtr<GDBusConnection>::adopt(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr))),
      scripting_(std::make_unique<KWinScripting>(bus_.get())),
      own_window_list_(std::make_unique<KWinWindows>(*scripting_)) {}

KWinBackend::~KWinBackend() = default;

KWinMeans KWinBackend::checkMeans() const {
  KWinMeans means;
  means.kwin_scripting = BusNameHasOwner(bus_.get(), "org.kde.KWin", kCheckTimeoutMs);
  means.global_shortcuts = PortalHasGlobalShortcuts(bus_.get());
  means.data_control = DataControlOffered();
  return means;
}

std::unique_ptr<Screens> KWinBackend::makeScreens() {
  return std::make_unique<KWinScreens>(*scripting_);
}

std::unique_ptr<Accessibility> KWinBackend::makeAccessibility() {
  return std::make_unique<KWinAccessibility>([this] { return checkMeans(); }, bus_.get());
}

std::unique_ptr<Hotkeys> KWinBackend::makeHotkeys() {
  // The portal knows an application by its systemd scope.
  EnsureAppScope(bus_.get());
  return std::make_unique<PortalHotkeys>(bus_.get());
}

std::unique_ptr<FrontWindows> KWinBackend::makeFrontWindows() {
  return std::make_unique<KWinFrontWindows>(*scripting_);
}

std::unique_ptr<Selections> KWinBackend::makeSelections() {
  return std::make_unique<KWinSelections>();
}

std::unique_ptr<Windows> KWinBackend::makeWindows() {
  return std::make_unique<KWinWindows>(*scripting_);
}

std::unique_ptr<OwnWindows> KWinBackend::makeOwnWindows() {
  return std::make_unique<LayerShellPanels>(std::make_unique<ListedOwnWindows>(*own_window_list_));
}

} // namespace orvane
