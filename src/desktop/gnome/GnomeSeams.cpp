#include "desktop/gnome/GnomeSeams.h"

#include "base/MainThread.h"
#include "base/SparLog.h"
#include "desktop/ApplicationNames.h"
#include "desktop/ProcessDocuments.h"
#include "desktop/session/BusNames.h"
#include "desktop/session/GdkScreens.h"

#include <cerrno>
#include <cstring>
#include <signal.h>

namespace orvane {

namespace {

constexpr size_t kMaxHotkeyName = 64;

// Whether a failed call's reason says that nothing serves the interface
// (no shell, or a shell without the extension's object).
bool ExtensionIsMissing(const std::string& why) {
  for (const char* name :
       {"org.freedesktop.DBus.Error.ServiceUnknown", "org.freedesktop.DBus.Error.NameHasNoOwner",
        "org.freedesktop.DBus.Error.UnknownMethod", "org.freedesktop.DBus.Error.UnknownObject",
        "org.freedesktop.DBus.Error.UnknownInterface"})
    if (why.find(name) != std::string::npos)
      return true;
  return false;
}

bool ProcessExists(int pid) {
  return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM);
}

} // namespace

WindowInfo WindowInfoFromShell(const ShellWindow& window, const Rect& primary) {
  WindowInfo info;
  info.id = window.id;
  info.pid = window.pid;
  info.normal = window.normal;
  info.title = window.title;
  info.wm_instance = window.wm_instance;
  info.wm_class = window.wm_class;
  info.frame = DesktopRectFromTopLeft(window.frame, primary);
  info.full_screen = window.full_screen;
  return info;
}

FrontWindow FrontWindowFromShell(const ShellWindow& window, const Rect& primary) {
  FrontWindow front;
  front.id = window.id;
  front.pid = window.pid;
  front.wm_instance = window.wm_instance;
  front.wm_class = window.wm_class;
  front.title = window.title;
  front.frame = DesktopRectFromTopLeft(window.frame, primary);
  return front;
}

std::vector<Screen> ScreensFromShell(const ShellMonitors& monitors) {
  std::vector<Screen> screens;
  const Rect& primary = monitors.primaryFrame();
  auto add = [&](size_t i) {
    screens.push_back(Screen{int(screens.size()),
                             DesktopRectFromTopLeft(monitors.frames[i], primary),
                             DesktopRectFromTopLeft(monitors.work_areas[i], primary)});
  };
  add(monitors.primary);
  for (size_t i = 0; i < monitors.frames.size(); ++i)
    if (i != monitors.primary)
      add(i);
  return screens;
}

// Screens.

std::vector<Screen> GnomeScreens::screens() const {
  std::optional<ShellMonitors> monitors = shell_.monitors();
  return monitors ? ScreensFromShell(*monitors) : std::vector<Screen>{};
}

Point GnomeScreens::mouseLocation() const {
  std::optional<Point> pointer = shell_.pointer();
  if (!pointer)
    return {};
  std::optional<ShellMonitors> monitors = shell_.monitors();
  if (!monitors)
    return {};
  return DesktopPointFromTopLeft(*pointer, monitors->primaryFrame());
}

// Trust.

bool GnomeAccessibility::isTrusted() const {
  if (answered_ && shell_.lastCallWorked())
    return true;
  answered_ = shell_.version().has_value();
  return answered_;
}

std::string GnomeAccessibility::reasonNotTrusted() const {
  if (isTrusted())
    return "";
  std::string missing =
      BusNameHasOwner(shell_.bus(), shell_.options().service.c_str(), 1000)
          ? "Orvane's GNOME Shell extension (orvane@tarnwick.com) does not answer: it is not "
            "installed, not enabled, or GNOME has not loaded it since it was installed"
          : "GNOME Shell does not answer on the session bus";
  std::string reason = "On GNOME's Wayland session: " + missing +
                       ", so Orvane cannot bind its hotkeys, read the text you select in other "
                       "applications, or see and move their windows. ";
  if (!setup_note_.empty())
    reason += setup_note_ + ". ";
  else
    reason += "Install and enable the extension (Orvane installs it for you on its first run "
              "when it is missing; the Extensions application enables it), then log out and "
              "back in. ";
  reason += "Until then, bind the command \"orvane --capture-selection\" to a keyboard shortcut "
            "in GNOME's Settings (see the README).";
  return reason;
}

// Hotkeys.

GnomeHotkeys::GnomeHotkeys(GnomeShell& shell) : shell_(shell) {}

GnomeHotkeys::~GnomeHotkeys() {
  if (subscription_)
    g_dbus_connection_signal_unsubscribe(shell_.bus(), subscription_);
  if (watch_)
    g_bus_unwatch_name(watch_);
}

bool GnomeHotkeys::bind(const std::string&, Handler) {
  return false;
}

std::vector<bool> GnomeHotkeys::bindAll(const std::vector<Request>& requests) {
  std::vector<bool> result(requests.size(), false);
  if (!shell_.bus())
    return result;
  handlers_.clear();
  for (const Request& request : requests)
    handlers_[request.id] = request.handler;
  if (!subscription_) {
    subscription_ = g_dbus_connection_signal_subscribe(
        shell_.bus(), nullptr, GnomeShell::kInterface, "HotkeyPressed", GnomeShell::kPath, nullptr,
        G_DBUS_SIGNAL_FLAGS_NONE, &GnomeHotkeys::OnSignal, this, nullptr);
    watch_ = g_bus_watch_name_on_connection(
        shell_.bus(), shell_.options().service.c_str(), G_BUS_NAME_WATCHER_FLAGS_NONE,
        &GnomeHotkeys::OnShellAppeared, &GnomeHotkeys::OnShellVanished, this, nullptr);
  }
  owner_ = shell_.ownerOfService();
  std::string why;
  std::optional<std::map<std::string, bool>> bound = shell_.bindHotkeys(why);
  if (!bound) {
    // Without the extension the launch's trust line and notice say so; any
    // other failure is told here.
    if (!ExtensionIsMissing(why))
      SparLog("hotkeys: Orvane's GNOME Shell extension does not bind them: %@", why);
    return result;
  }
  bound_with_ = owner_;
  for (size_t i = 0; i < requests.size(); ++i) {
    auto it = bound->find(requests[i].id);
    result[i] = it != bound->end() && it->second;
  }
  return result;
}

void GnomeHotkeys::OnSignal(GDBusConnection*, const gchar* sender, const gchar*, const gchar*,
                            const gchar*, GVariant* parameters, gpointer data) {
  auto* self = static_cast<GnomeHotkeys*>(data);
  if (!sender || self->owner_.empty() || self->owner_ != sender) {
    self->shell_.fail("HotkeyPressed", std::string("a signal from ") +
                                           (sender ? sender : "(nobody)") +
                                           ", which is not GNOME Shell, was ignored");
    return;
  }
  if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(su)"))) {
    self->shell_.fail("HotkeyPressed", "a signal of the wrong type was ignored");
    return;
  }
  const gchar* name = nullptr;
  guint32 timestamp = 0;
  g_variant_get(parameters, "(&su)", &name, &timestamp);
  auto it = strlen(name) <= kMaxHotkeyName ? self->handlers_.find(name) : self->handlers_.end();
  if (it == self->handlers_.end() || !it->second) {
    self->shell_.fail("HotkeyPressed", "a signal for an unknown hotkey was ignored");
    return;
  }
  // A copy: the handler may bind again.
  Handler handler = it->second;
  handler(timestamp);
}

void GnomeHotkeys::OnShellAppeared(GDBusConnection*, const gchar*, const gchar* owner,
                                   gpointer data) {
  auto* self = static_cast<GnomeHotkeys*>(data);
  self->owner_ = owner ? owner : "";
  // A shell that restarted has forgotten the bindings.
  if (!self->bound_with_.empty() && self->bound_with_ != self->owner_ && !self->handlers_.empty()) {
    std::string why;
    std::optional<std::map<std::string, bool>> bound = self->shell_.bindHotkeys(why);
    if (bound) {
      self->bound_with_ = self->owner_;
      SparLog("hotkeys: GNOME Shell restarted; the hotkeys were bound again");
    }
  }
}

void GnomeHotkeys::OnShellVanished(GDBusConnection*, const gchar*, gpointer data) {
  static_cast<GnomeHotkeys*>(data)->owner_.clear();
}

// Front window.

std::optional<FrontWindow> GnomeFrontWindows::frontWindow() const {
  std::optional<std::optional<ShellWindow>> front = shell_.frontWindow();
  if (!front || !*front)
    return std::nullopt;
  std::optional<ShellMonitors> monitors = shell_.monitors();
  if (!monitors)
    return std::nullopt;
  return FrontWindowFromShell(**front, monitors->primaryFrame());
}

// Selections.

std::optional<std::string> GnomeSelections::primaryText() {
  std::optional<std::optional<std::string>> text = shell_.primaryText();
  return text ? *text : std::nullopt;
}

uint64_t GnomeSelections::clipboardChangeCount() {
  return shell_.clipboardChangeCount().value_or(0);
}

ClipboardContents GnomeSelections::saveClipboard() {
  return shell_.saveClipboard().value_or(ClipboardContents{});
}

std::optional<std::string> GnomeSelections::clipboardText() {
  std::optional<std::optional<std::string>> text = shell_.clipboardText();
  return text ? *text : std::nullopt;
}

void GnomeSelections::restoreClipboard(const ClipboardContents& contents) {
  std::optional<bool> ok = shell_.restoreClipboard(contents);
  if (ok && !*ok)
    SparLog("clipboard: GNOME Shell could not restore the clipboard");
}

bool GnomeSelections::sendCopyChord(CopyChord chord) {
  return shell_.sendCopyChord(chord == CopyChord::kControlShiftC ? "ctrl-shift-c" : "ctrl-c")
      .value_or(false);
}

void GnomeSelections::pause(std::chrono::milliseconds duration) {
  RunMainContextFor(duration);
}

// Windows.

std::optional<std::vector<WindowInfo>>
GnomeWindows::converted(const std::optional<std::vector<ShellWindow>>& windows) {
  if (!windows)
    return std::nullopt;
  std::optional<ShellMonitors> monitors = shell_.monitors();
  if (!monitors)
    return std::nullopt;
  std::vector<WindowInfo> result;
  for (const ShellWindow& window : *windows)
    result.push_back(WindowInfoFromShell(window, monitors->primaryFrame()));
  return result;
}

std::optional<std::vector<WindowInfo>> GnomeWindows::windowsOfPid(int pid) {
  if (pid <= 0)
    return std::nullopt;
  std::optional<std::vector<WindowInfo>> windows = converted(shell_.windowsOfPid(pid));
  if (!windows)
    return std::nullopt;
  // The extension answers for this pid only; a hostile answer's others are
  // dropped.
  std::erase_if(*windows, [&](const WindowInfo& window) { return window.pid != pid; });
  if (windows->empty() && !ProcessExists(pid))
    return std::nullopt;
  return windows;
}

std::vector<WindowInfo> GnomeWindows::normalWindows() {
  std::optional<std::vector<WindowInfo>> windows = converted(shell_.listWindows());
  if (!windows)
    return {};
  std::erase_if(*windows, [](const WindowInfo& window) { return !window.normal; });
  return *windows;
}

std::optional<WindowInfo> GnomeWindows::window(unsigned long id) {
  std::optional<std::optional<ShellWindow>> window = shell_.window(id);
  if (!window || !*window)
    return std::nullopt;
  std::optional<ShellMonitors> monitors = shell_.monitors();
  if (!monitors)
    return std::nullopt;
  return WindowInfoFromShell(**window, monitors->primaryFrame());
}

bool GnomeWindows::setFrame(unsigned long id, const Rect& frame) {
  std::optional<ShellMonitors> monitors = shell_.monitors();
  if (!monitors)
    return false;
  return shell_.moveResize(id, TopLeftRectFromDesktop(frame, monitors->primaryFrame()))
      .value_or(false);
}

bool GnomeWindows::activate(unsigned long id, uint32_t timestamp) {
  return shell_.activate(id, timestamp).value_or(false);
}

bool GnomeWindows::leaveFullScreen(unsigned long id) {
  return shell_.leaveFullScreen(id).value_or(false);
}

bool GnomeWindows::makePanel(unsigned long id) {
  return shell_.makePanel(id).value_or(false);
}

std::vector<int> GnomeWindows::pidsOfApplication(const std::string& name) {
  if (name.empty())
    return {};
  std::optional<std::vector<ShellWindow>> windows = shell_.listWindows();
  if (!windows)
    return {};
  std::vector<NamedWindow> named;
  for (const ShellWindow& window : *windows)
    if (window.normal)
      named.push_back({window.pid, {window.wm_class, window.wm_instance, window.app_id}});
  return PidsOfApplication(name, named);
}

std::vector<std::string> GnomeWindows::documentsOfPid(int pid) {
  return PdfFilesOfProcess(pid);
}

} // namespace orvane
