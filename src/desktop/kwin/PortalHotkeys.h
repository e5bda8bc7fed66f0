// Global hotkeys through the desktop portal's GlobalShortcuts interface
// (org.freedesktop.portal.GlobalShortcuts), as KDE Plasma offers them on
// Wayland. The portal knows the application by its systemd scope (see
// AppScope.h), so the process must be in its app scope before the first
// call. The shortcuts are registered as one set: CreateSession carries the
// list (KDE 5.27 reads it only there) and BindShortcuts repeats it (newer
// portals read it there); the session token is fixed, because KDE names the
// shortcuts' component after it and keeps the user's own keys under that
// name. Each wait for the portal's answer is bounded and runs none of the
// main loop's other sources. Main thread only.
#pragma once

#include "base/GObjectPtr.h"
#include "desktop/Hotkeys.h"

#include <gio/gio.h>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace orvane {

// The portal's notation for a GTK accelerator: "<Alt>b" is "ALT+b",
// "<Control><Shift>F5" is "CTRL+SHIFT+F5". Nothing for text that is not an
// accelerator of known modifiers and one key name.
std::optional<std::string> PortalTrigger(const std::string& accelerator);

// The object path of the portal's Request for a call made by the connection
// with this unique name and this handle token.
std::string PortalRequestPath(const std::string& unique_name, const std::string& token);

// The ids of the shortcuts that a BindShortcuts Response's results name as
// bound (the "shortcuts" entry, a(sa{sv})); nothing when the results do not
// carry that entry with that type.
std::optional<std::set<std::string>> BoundShortcutIds(GVariant* results);

class PortalHotkeys final : public Hotkeys {
public:
  // `session_bus` may be null (no bus: nothing can be bound). Each of the
  // portal's answers is awaited at most `answer_seconds`.
  explicit PortalHotkeys(GDBusConnection* session_bus, double answer_seconds = 5);
  ~PortalHotkeys() override;
  PortalHotkeys(const PortalHotkeys&) = delete;
  PortalHotkeys& operator=(const PortalHotkeys&) = delete;

  // A single chord has no id and no description to give the portal: false.
  bool bind(const std::string& accelerator, Handler handler) override;
  // Registers the whole set in one portal session; a later call replaces
  // the set. The handlers run on the main loop with a timestamp of 0.
  std::vector<bool> bindAll(const std::vector<Request>& requests) override;

  // The session the shortcuts live in ("" before a successful bindAll).
  const std::string& session() const { return session_; }

private:
  struct Answer;
  bool awaitRequest(const char* method, GVariant* parameters, const std::string& token,
                    Answer& answer, std::string& why);
  void closeSession();
  static void OnActivated(GDBusConnection*, const gchar* sender, const gchar* path,
                          const gchar* interface, const gchar* signal, GVariant* parameters,
                          gpointer self);

  GObjectPtr<GDBusConnection> bus_;
  double answer_seconds_;
  std::string portal_owner_; // the unique name owning org.freedesktop.portal.Desktop
  std::string session_;
  std::map<std::string, Handler> handlers_;
  guint activated_subscription_ = 0;
};

} // namespace orvane
