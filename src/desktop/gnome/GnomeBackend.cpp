#include "desktop/gnome/GnomeBackend.h"

#include "base/SparLog.h"

#include "desktop/gnome/GnomeExtensionSetup.h"
#include "desktop/gnome/GnomeSeams.h"
#include "desktop/gnome/GnomeShell.h"
#include "desktop/session/DBusNotifications.h"
#include "desktop/wayland/ListedOwnWindows.h"

namespace orvane {

GnomeBackend::GnomeBackend()
    : GnomeBackend(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr), true,
                   std::make_unique<DBusNotifications>()) {
  // The constructor above took a reference of its own.
  if (bus_)
    g_object_unref(bus_.get());
}

GnomeBackend::GnomeBackend(GDBusConnection* session_bus, bool set_up_extension,
                           std::unique_ptr<Notifications> notifications)
    : bus_(GObjectPtr<GDBusConnection>::retain(session_bus)),
      notifications_(std::move(notifications)), shell_(std::make_unique<GnomeShell>(bus_.get())),
      own_window_list_(std::make_unique<GnomeWindows>(*shell_)) {
  bool told = false;
  if (set_up_extension) {
    GnomeExtensionSetup::Options options;
    options.hold_log = true;
    GnomeExtensionSetup setup(bus_.get(), StandardGnomeExtensionPlaces(), notifications_.get(),
                              options);
    setup.run();
    setup_note_ = setup.noteForUser();
    told = setup.notified();
    // The launch's first lines come first: what the set-up did is logged
    // once the main loop runs.
    if (!setup.heldLines().empty()) {
      auto* lines = new std::vector<std::string>(setup.heldLines());
      guint source = g_idle_add_full(
          G_PRIORITY_DEFAULT_IDLE,
          +[](gpointer data) -> gboolean {
            for (const std::string& line : *static_cast<std::vector<std::string>*>(data))
              WriteLogLine(line);
            return G_SOURCE_REMOVE;
          },
          lines, +[](gpointer data) { delete static_cast<std::vector<std::string>*>(data); });
      g_source_set_name_by_id(source, "[orvane] GNOME extension set-up lines");
    }
  }
  lacks_means_ = !told && !shell_->version();
}

GnomeBackend::~GnomeBackend() = default;

std::unique_ptr<Screens> GnomeBackend::makeScreens() {
  return std::make_unique<GnomeScreens>(*shell_);
}

std::unique_ptr<Accessibility> GnomeBackend::makeAccessibility() {
  return std::make_unique<GnomeAccessibility>(*shell_, setup_note_);
}

std::unique_ptr<Hotkeys> GnomeBackend::makeHotkeys() {
  return std::make_unique<GnomeHotkeys>(*shell_);
}

std::unique_ptr<FrontWindows> GnomeBackend::makeFrontWindows() {
  return std::make_unique<GnomeFrontWindows>(*shell_);
}

std::unique_ptr<Selections> GnomeBackend::makeSelections() {
  return std::make_unique<GnomeSelections>(*shell_);
}

std::unique_ptr<Windows> GnomeBackend::makeWindows() {
  return std::make_unique<GnomeWindows>(*shell_);
}

std::unique_ptr<OwnWindows> GnomeBackend::makeOwnWindows() {
  ListedOwnWindows::Options options;
  GnomeWindows* list = own_window_list_.get();
  options.make_panel = [list](unsigned long id) { return list->makePanel(id); };
  return std::make_unique<ListedOwnWindows>(*own_window_list_, std::move(options));
}

} // namespace orvane
