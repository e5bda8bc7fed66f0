#include "desktop/gnome/GnomeShell.h"

#include "base/SparLog.h"
#include "base/Text.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace orvane {

namespace {

bool InRange(double value) {
  return std::isfinite(value) && std::fabs(value) <= kShellMaxCoordinate;
}

bool UsableSize(double value) {
  return std::isfinite(value) && value > 0 && value <= kShellMaxCoordinate;
}

std::optional<std::string> StringEntry(GVariant* dictionary, const char* key) {
  GVariantPtr value(g_variant_lookup_value(dictionary, key, G_VARIANT_TYPE_STRING));
  if (!value)
    return std::nullopt;
  gsize length = 0;
  const gchar* text = g_variant_get_string(value.get(), &length);
  if (length > kShellMaxNameBytes)
    return std::nullopt;
  return ValidUtf8(std::string_view(text, length));
}

std::optional<bool> BoolEntry(GVariant* dictionary, const char* key) {
  GVariantPtr value(g_variant_lookup_value(dictionary, key, G_VARIANT_TYPE_BOOLEAN));
  if (!value)
    return std::nullopt;
  return bool(g_variant_get_boolean(value.get()));
}

std::optional<int32_t> IntEntry(GVariant* dictionary, const char* key) {
  GVariantPtr value(g_variant_lookup_value(dictionary, key, G_VARIANT_TYPE_INT32));
  if (!value)
    return std::nullopt;
  return g_variant_get_int32(value.get());
}

} // namespace

std::optional<ShellWindow> ParseShellWindow(GVariant* dictionary, std::string& why) {
  if (!dictionary || !g_variant_is_of_type(dictionary, G_VARIANT_TYPE_VARDICT)) {
    why = "a window that is not a dictionary";
    return std::nullopt;
  }
  ShellWindow window;
  GVariantPtr id(g_variant_lookup_value(dictionary, "id", G_VARIANT_TYPE_UINT64));
  if (!id) {
    why = "a window without an id";
    return std::nullopt;
  }
  window.id = g_variant_get_uint64(id.get());
  std::optional<int32_t> pid = IntEntry(dictionary, "pid");
  if (!pid || *pid < 0) {
    why = "a window without a possible pid";
    return std::nullopt;
  }
  window.pid = *pid;
  std::optional<std::string> wm_class = StringEntry(dictionary, "wm_class");
  std::optional<std::string> wm_instance = StringEntry(dictionary, "wm_instance");
  std::optional<std::string> app_id = StringEntry(dictionary, "app_id");
  std::optional<std::string> title = StringEntry(dictionary, "title");
  if (!wm_class || !wm_instance || !app_id || !title) {
    why = "a window with a missing or malformed name";
    return std::nullopt;
  }
  window.wm_class = std::move(*wm_class);
  window.wm_instance = std::move(*wm_instance);
  window.app_id = std::move(*app_id);
  window.title = std::move(*title);
  std::optional<int32_t> x = IntEntry(dictionary, "x"), y = IntEntry(dictionary, "y");
  std::optional<int32_t> width = IntEntry(dictionary, "width");
  std::optional<int32_t> height = IntEntry(dictionary, "height");
  if (width && height && *width >= 0 && *height >= 0 && (*width == 0 || *height == 0)) {
    why = kShellWindowWithoutArea;
    return std::nullopt;
  }
  if (!x || !y || !width || !height || !InRange(*x) || !InRange(*y) || !UsableSize(*width) ||
      !UsableSize(*height)) {
    why = "a window with a missing or impossible frame";
    return std::nullopt;
  }
  window.frame = {double(*x), double(*y), double(*width), double(*height)};
  std::optional<bool> normal = BoolEntry(dictionary, "normal");
  std::optional<bool> full_screen = BoolEntry(dictionary, "full_screen");
  std::optional<bool> maximized = BoolEntry(dictionary, "maximized");
  std::optional<bool> focused = BoolEntry(dictionary, "focused");
  std::optional<bool> on_active = BoolEntry(dictionary, "on_active_workspace");
  if (!normal || !full_screen || !maximized || !focused || !on_active) {
    why = "a window with missing or malformed states";
    return std::nullopt;
  }
  window.normal = *normal;
  window.full_screen = *full_screen;
  window.maximized = *maximized;
  window.focused = *focused;
  window.on_active_workspace = *on_active;
  return window;
}

std::optional<std::vector<ShellWindow>> ParseShellWindowList(GVariant* list, size_t& left_out,
                                                             std::string& why) {
  left_out = 0;
  if (!list || !g_variant_is_of_type(list, G_VARIANT_TYPE("aa{sv}")) ||
      g_variant_n_children(list) > kShellMaxWindows) {
    why = "a window list that is not a list of at most " + std::to_string(kShellMaxWindows);
    return std::nullopt;
  }
  std::vector<ShellWindow> windows;
  size_t count = g_variant_n_children(list);
  for (size_t i = 0; i < count; ++i) {
    GVariantPtr item(g_variant_get_child_value(list, i));
    std::string reason;
    std::optional<ShellWindow> window = ParseShellWindow(item.get(), reason);
    if (window) {
      windows.push_back(std::move(*window));
    } else if (reason != kShellWindowWithoutArea) {
      ++left_out;
      why = reason;
    }
  }
  return windows;
}

std::optional<ShellMonitors> ParseShellMonitors(GVariant* reply, std::string& why) {
  if (!reply || !g_variant_is_of_type(reply, G_VARIANT_TYPE("(a(iiiiiiii)i)"))) {
    why = "a monitor answer of the wrong type";
    return std::nullopt;
  }
  GVariantPtr list(g_variant_get_child_value(reply, 0));
  GVariantPtr primary(g_variant_get_child_value(reply, 1));
  size_t count = g_variant_n_children(list.get());
  if (count == 0 || count > kShellMaxMonitors) {
    why = "a monitor answer with " + std::to_string(count) + " monitors";
    return std::nullopt;
  }
  int32_t primary_index = g_variant_get_int32(primary.get());
  if (primary_index < 0 || size_t(primary_index) >= count) {
    why = "a monitor answer whose primary monitor is not among them";
    return std::nullopt;
  }
  ShellMonitors monitors;
  monitors.primary = size_t(primary_index);
  for (size_t i = 0; i < count; ++i) {
    int32_t v[8];
    g_variant_get_child(list.get(), i, "(iiiiiiii)", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5],
                        &v[6], &v[7]);
    for (int j : {0, 4}) {
      if (!InRange(v[j]) || !InRange(v[j + 1]) || !UsableSize(v[j + 2]) || !UsableSize(v[j + 3])) {
        why =
            "a monitor answer with an impossible " + std::string(j == 0 ? "monitor" : "work area");
        return std::nullopt;
      }
    }
    monitors.frames.push_back({double(v[0]), double(v[1]), double(v[2]), double(v[3])});
    monitors.work_areas.push_back({double(v[4]), double(v[5]), double(v[6]), double(v[7])});
  }
  return monitors;
}

std::optional<ClipboardContents> ParseShellClipboard(GVariant* reply, std::string& why) {
  if (!reply || !g_variant_is_of_type(reply, G_VARIANT_TYPE("(a(say))"))) {
    why = "a clipboard answer of the wrong type";
    return std::nullopt;
  }
  GVariantPtr list(g_variant_get_child_value(reply, 0));
  size_t count = g_variant_n_children(list.get());
  if (count > kShellMaxClipboardTypes) {
    why = "a clipboard answer with " + std::to_string(count) + " types";
    return std::nullopt;
  }
  ClipboardContents contents;
  size_t total = 0;
  for (size_t i = 0; i < count; ++i) {
    GVariantPtr entry(g_variant_get_child_value(list.get(), i));
    GVariantPtr type(g_variant_get_child_value(entry.get(), 0));
    GVariantPtr bytes(g_variant_get_child_value(entry.get(), 1));
    gsize type_length = 0;
    const gchar* type_text = g_variant_get_string(type.get(), &type_length);
    if (type_length == 0 || type_length > 255) {
      why = "a clipboard answer with an empty or overlong type name";
      return std::nullopt;
    }
    gsize size = 0;
    const void* data = g_variant_get_fixed_array(bytes.get(), &size, 1);
    total += size;
    if (total > kShellMaxClipboardBytes) {
      why = "a clipboard answer of more than " + std::to_string(kShellMaxClipboardBytes) + " bytes";
      return std::nullopt;
    }
    contents.push_back(
        {std::string(type_text, type_length), std::string(static_cast<const char*>(data), size)});
  }
  return contents;
}

std::optional<std::map<std::string, bool>> ParseShellBoundHotkeys(GVariant* reply,
                                                                  std::string& why) {
  if (!reply || !g_variant_is_of_type(reply, G_VARIANT_TYPE("(a{sb})"))) {
    why = "a hotkey answer of the wrong type";
    return std::nullopt;
  }
  GVariantPtr list(g_variant_get_child_value(reply, 0));
  size_t count = g_variant_n_children(list.get());
  if (count > kShellMaxHotkeys) {
    why = "a hotkey answer with " + std::to_string(count) + " entries";
    return std::nullopt;
  }
  std::map<std::string, bool> bound;
  for (size_t i = 0; i < count; ++i) {
    const gchar* name = nullptr;
    gboolean value = FALSE;
    g_variant_get_child(list.get(), i, "{&sb}", &name, &value);
    if (name && std::strlen(name) <= 64)
      bound[name] = value;
  }
  return bound;
}

GnomeShell::GnomeShell(GDBusConnection* session_bus) : GnomeShell(session_bus, Options{}) {}

GnomeShell::GnomeShell(GDBusConnection* session_bus, Options options)
    : bus_(GObjectPtr<GDBusConnection>::retain(session_bus)), options_(std::move(options)) {
  if (!bus_ || !options_.keep_monitors)
    return;
  // The kept monitors belong to one shell: a shell that goes or is
  // replaced takes them along, and its version with them.
  auto appeared = +[](GDBusConnection*, const gchar*, const gchar* owner, gpointer data) {
    auto* self = static_cast<GnomeShell*>(data);
    if (self->owner_ != (owner ? owner : "")) {
      self->owner_ = owner ? owner : "";
      self->kept_monitors_.reset();
      self->version_.reset();
    }
  };
  auto vanished = +[](GDBusConnection*, const gchar*, gpointer data) {
    auto* self = static_cast<GnomeShell*>(data);
    self->owner_.clear();
    self->kept_monitors_.reset();
    self->version_.reset();
  };
  owner_watch_ = g_bus_watch_name_on_connection(bus_.get(), options_.service.c_str(),
                                                G_BUS_NAME_WATCHER_FLAGS_NONE, appeared, vanished,
                                                this, nullptr);
  monitors_changed_ = g_dbus_connection_signal_subscribe(
      bus_.get(), nullptr, kInterface, "MonitorsChanged", kPath, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
      &GnomeShell::OnMonitorsChanged, this, nullptr);
}

GnomeShell::~GnomeShell() {
  if (monitors_changed_)
    g_dbus_connection_signal_unsubscribe(bus_.get(), monitors_changed_);
  if (owner_watch_)
    g_bus_unwatch_name(owner_watch_);
}

void GnomeShell::OnMonitorsChanged(GDBusConnection*, const gchar* sender, const gchar*,
                                   const gchar*, const gchar*, GVariant*, gpointer data) {
  auto* self = static_cast<GnomeShell*>(data);
  if (!sender || self->owner_.empty() || self->owner_ != sender) {
    self->fail("MonitorsChanged", std::string("a signal from ") + (sender ? sender : "(nobody)") +
                                      ", which is not GNOME Shell, was ignored");
    return;
  }
  self->kept_monitors_.reset();
}

void GnomeShell::fail(const std::string& what, const std::string& why) {
  complain("gnome: " + what + " failed: " + why);
}

void GnomeShell::complain(const std::string& line) {
  long held_back = 0;
  if (!throttle_.admit(this, held_back))
    return;
  if (held_back > 0)
    SparLog("%@ (%ld more like it held back)", line, held_back);
  else
    SparLog("%@", line);
}

GVariantPtr GnomeShell::call(const char* method, GVariant* parameters, const char* reply_type,
                             double seconds, std::string* why) {
  last_call_worked_ = false;
  auto failed = [&](const std::string& reason) {
    if (why)
      *why = reason;
    else
      fail(method, reason);
  };
  if (!bus_) {
    if (parameters)
      g_variant_unref(g_variant_ref_sink(parameters));
    failed("no session bus");
    return GVariantPtr();
  }
  GErrorPtr error;
  GVariantPtr reply(g_dbus_connection_call_sync(
      bus_.get(), options_.service.c_str(), kPath, kInterface, method, parameters,
      G_VARIANT_TYPE(reply_type), G_DBUS_CALL_FLAGS_NO_AUTO_START, int(seconds * 1000), nullptr,
      error.out()));
  if (!reply) {
    // Whatever was kept may have gone with the shell.
    kept_monitors_.reset();
    failed(ShortenedText(error.message(), 300));
    return GVariantPtr();
  }
  last_call_worked_ = true;
  return reply;
}

std::optional<uint32_t> GnomeShell::version() {
  std::string why;
  GVariantPtr reply = call("Version", nullptr, "(u)", options_.call_seconds, &why);
  if (!reply)
    return std::nullopt;
  guint32 version = 0;
  g_variant_get(reply.get(), "(u)", &version);
  if (version == 0) {
    last_call_worked_ = false;
    return std::nullopt;
  }
  version_ = version;
  return version;
}

std::optional<std::optional<ShellWindow>> GnomeShell::oneWindow(const char* method,
                                                                GVariant* parameters) {
  GVariantPtr reply = call(method, parameters, "(a{sv})", options_.call_seconds);
  if (!reply)
    return std::nullopt;
  GVariantPtr dictionary(g_variant_get_child_value(reply.get(), 0));
  if (g_variant_n_children(dictionary.get()) == 0)
    return std::optional<ShellWindow>();
  std::string why;
  std::optional<ShellWindow> window = ParseShellWindow(dictionary.get(), why);
  if (!window) {
    last_call_worked_ = false;
    fail(method, why);
    return std::nullopt;
  }
  return window;
}

std::optional<std::vector<ShellWindow>> GnomeShell::windowList(const char* method,
                                                               GVariant* parameters) {
  GVariantPtr reply = call(method, parameters, "(aa{sv})", options_.call_seconds);
  if (!reply)
    return std::nullopt;
  GVariantPtr list(g_variant_get_child_value(reply.get(), 0));
  size_t left_out = 0;
  std::string why;
  std::optional<std::vector<ShellWindow>> windows = ParseShellWindowList(list.get(), left_out, why);
  if (!windows) {
    last_call_worked_ = false;
    fail(method, why);
  } else if (left_out > 0) {
    complain(std::string("gnome: ") + method + ": " + std::to_string(left_out) +
             " window(s) of the answer were left out: " + why);
  }
  return windows;
}

std::optional<bool> GnomeShell::okCall(const char* method, GVariant* parameters, double seconds) {
  GVariantPtr reply = call(method, parameters, "(b)", seconds);
  if (!reply)
    return std::nullopt;
  gboolean ok = FALSE;
  g_variant_get(reply.get(), "(b)", &ok);
  return bool(ok);
}

std::optional<std::optional<ShellWindow>> GnomeShell::frontWindow() {
  return oneWindow("FrontWindow", nullptr);
}

std::optional<std::vector<ShellWindow>> GnomeShell::listWindows() {
  return windowList("ListWindows", nullptr);
}

std::optional<std::vector<ShellWindow>> GnomeShell::windowsOfPid(int pid) {
  return windowList("WindowsOfPid", g_variant_new("(i)", gint32(pid)));
}

std::optional<std::optional<ShellWindow>> GnomeShell::window(uint64_t id) {
  return oneWindow("Window", g_variant_new("(t)", guint64(id)));
}

std::optional<bool> GnomeShell::moveResize(uint64_t id, const Rect& frame) {
  if (!InRange(frame.x) || !InRange(frame.y) || !UsableSize(frame.width) ||
      !UsableSize(frame.height)) {
    fail("MoveResize", "the frame " + RectText(frame) + " was not sent: it is out of range");
    return std::nullopt;
  }
  GVariantPtr reply = call("MoveResize",
                           g_variant_new("(tiiii)", guint64(id), gint32(std::lround(frame.x)),
                                         gint32(std::lround(frame.y)),
                                         gint32(std::max(1L, std::lround(frame.width))),
                                         gint32(std::max(1L, std::lround(frame.height)))),
                           "(ba{sv})", options_.slow_call_seconds);
  if (!reply)
    return std::nullopt;
  gboolean ok = FALSE;
  g_variant_get_child(reply.get(), 0, "b", &ok);
  return bool(ok);
}

std::optional<bool> GnomeShell::activate(uint64_t id, uint32_t timestamp) {
  return okCall("Activate", g_variant_new("(tu)", guint64(id), guint32(timestamp)),
                options_.call_seconds);
}

std::optional<bool> GnomeShell::leaveFullScreen(uint64_t id) {
  return okCall("LeaveFullScreen", g_variant_new("(t)", guint64(id)), options_.call_seconds);
}

std::optional<bool> GnomeShell::makePanel(uint64_t id) {
  return okCall("MakePanel", g_variant_new("(t)", guint64(id)), options_.call_seconds);
}

std::optional<ShellMonitors> GnomeShell::monitors() {
  if (kept_monitors_)
    return kept_monitors_;
  // Whether this shell's extension says when they change, asked once.
  if (options_.keep_monitors && !owner_.empty() && !version_)
    version();
  GVariantPtr reply = call("Monitors", nullptr, "(a(iiiiiiii)i)", options_.call_seconds);
  if (!reply)
    return std::nullopt;
  std::string why;
  std::optional<ShellMonitors> monitors = ParseShellMonitors(reply.get(), why);
  if (!monitors) {
    last_call_worked_ = false;
    fail("Monitors", why);
  } else if (options_.keep_monitors && !owner_.empty() && version_ &&
             *version_ >= kMonitorsChangedVersion) {
    kept_monitors_ = monitors;
  }
  return monitors;
}

std::optional<Point> GnomeShell::pointer() {
  GVariantPtr reply = call("Pointer", nullptr, "(ii)", options_.call_seconds);
  if (!reply)
    return std::nullopt;
  gint32 x = 0, y = 0;
  g_variant_get(reply.get(), "(ii)", &x, &y);
  if (!InRange(x) || !InRange(y)) {
    last_call_worked_ = false;
    fail("Pointer", "a pointer out of range");
    return std::nullopt;
  }
  return Point{double(x), double(y)};
}

std::optional<std::optional<std::string>> GnomeShell::selectionText(const char* method) {
  GVariantPtr reply = call(method, nullptr, "(bs)", options_.call_seconds);
  if (!reply)
    return std::nullopt;
  gboolean has = FALSE;
  GVariantPtr text(g_variant_get_child_value(reply.get(), 1));
  g_variant_get_child(reply.get(), 0, "b", &has);
  gsize length = 0;
  const gchar* bytes = g_variant_get_string(text.get(), &length);
  if (length > kShellMaxSelectionBytes) {
    last_call_worked_ = false;
    fail(method, "a text of " + std::to_string(length) + " bytes");
    return std::nullopt;
  }
  if (!has)
    return std::optional<std::string>();
  return std::optional<std::string>(ValidUtf8(std::string_view(bytes, length)));
}

std::optional<std::optional<std::string>> GnomeShell::primaryText() {
  return selectionText("PrimaryText");
}

std::optional<std::optional<std::string>> GnomeShell::clipboardText() {
  return selectionText("ClipboardText");
}

std::optional<uint64_t> GnomeShell::clipboardChangeCount() {
  GVariantPtr reply = call("ClipboardChangeCount", nullptr, "(t)", options_.call_seconds);
  if (!reply)
    return std::nullopt;
  guint64 count = 0;
  g_variant_get(reply.get(), "(t)", &count);
  return count;
}

std::optional<ClipboardContents> GnomeShell::saveClipboard() {
  GVariantPtr reply = call("SaveClipboard", nullptr, "(a(say))", options_.slow_call_seconds);
  if (!reply)
    return std::nullopt;
  std::string why;
  std::optional<ClipboardContents> contents = ParseShellClipboard(reply.get(), why);
  if (!contents) {
    last_call_worked_ = false;
    fail("SaveClipboard", why);
  }
  return contents;
}

std::optional<bool> GnomeShell::restoreClipboard(const ClipboardContents& contents) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a(say)"));
  for (const SelectionTarget& target : contents) {
    // A type name D-Bus cannot carry (not UTF-8) is left out.
    if (target.target.empty() ||
        !g_utf8_validate(target.target.data(), gssize(target.target.size()), nullptr))
      continue;
    GVariant* bytes =
        g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, target.bytes.data(), target.bytes.size(), 1);
    g_variant_builder_add(&builder, "(s@ay)", target.target.c_str(), bytes);
  }
  return okCall("RestoreClipboard", g_variant_new("(a(say))", &builder),
                options_.slow_call_seconds);
}

std::optional<bool> GnomeShell::sendCopyChord(const std::string& chord) {
  return okCall("SendCopyChord", g_variant_new("(s)", chord.c_str()), options_.slow_call_seconds);
}

std::optional<std::map<std::string, bool>> GnomeShell::bindHotkeys(std::string& why) {
  GVariantPtr reply = call("BindHotkeys", nullptr, "(a{sb})", options_.call_seconds, &why);
  if (!reply)
    return std::nullopt;
  std::optional<std::map<std::string, bool>> bound = ParseShellBoundHotkeys(reply.get(), why);
  if (!bound)
    last_call_worked_ = false;
  return bound;
}

std::string GnomeShell::ownerOfService() {
  if (!bus_)
    return "";
  GVariantPtr reply(g_dbus_connection_call_sync(
      bus_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
      "GetNameOwner", g_variant_new("(s)", options_.service.c_str()), G_VARIANT_TYPE("(s)"),
      G_DBUS_CALL_FLAGS_NONE, int(options_.call_seconds * 1000), nullptr, nullptr));
  if (!reply)
    return "";
  const gchar* owner = nullptr;
  g_variant_get(reply.get(), "(&s)", &owner);
  return owner ? owner : "";
}

} // namespace orvane
