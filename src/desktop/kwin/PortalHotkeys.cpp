#include "desktop/kwin/PortalHotkeys.h"

#include "base/SparLog.h"
#include "base/Text.h"
#include "desktop/Geometry.h"
#include "desktop/kwin/PrivateWait.h"

#include <algorithm>
#include <cctype>

namespace orvane {

namespace {

constexpr const char* kPortalName = "org.freedesktop.portal.Desktop";
constexpr const char* kPortalPath = "/org/freedesktop/portal/desktop";
constexpr const char* kShortcutsInterface = "org.freedesktop.portal.GlobalShortcuts";
constexpr const char* kRequestInterface = "org.freedesktop.portal.Request";
// Fixed: KDE names the shortcuts' component after the application id and
// this token, and keeps the keys a user chose under that name.
constexpr const char* kSessionToken = "orvane";
// Longest accelerator text looked at; real ones are a few dozen bytes.
constexpr size_t kMaxAccelerator = 256;

std::string Upper(std::string text) {
  for (char& c : text)
    c = char(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

std::optional<std::string> ModifierName(const std::string& gtk_name) {
  std::string name = Upper(gtk_name);
  if (name == "ALT" || name == "MOD1")
    return "ALT";
  if (name == "CONTROL" || name == "CTRL" || name == "CTL" || name == "PRIMARY")
    return "CTRL";
  if (name == "SHIFT" || name == "SHFT")
    return "SHIFT";
  if (name == "SUPER" || name == "META" || name == "HYPER" || name == "MOD4")
    return "LOGO";
  return std::nullopt;
}

// A new handle token: the portal's Request path ends in it, so it must be a
// valid object-path element.
std::string NewHandleToken() {
  std::string uuid = NewUpperCaseUuid();
  std::string token = "orvane_";
  for (char c : uuid)
    if (c != '-')
      token += c;
  return token;
}

GVariant* ShortcutList(const std::vector<const Hotkeys::Request*>& requests,
                       const std::vector<std::string>& triggers) {
  GVariantBuilder list;
  g_variant_builder_init(&list, G_VARIANT_TYPE("a(sa{sv})"));
  for (size_t i = 0; i < requests.size(); ++i) {
    GVariantBuilder properties;
    g_variant_builder_init(&properties, G_VARIANT_TYPE_VARDICT);
    g_variant_builder_add(&properties, "{sv}", "description",
                          g_variant_new_string(requests[i]->description.c_str()));
    g_variant_builder_add(&properties, "{sv}", "preferred_trigger",
                          g_variant_new_string(triggers[i].c_str()));
    g_variant_builder_add(&list, "(sa{sv})", requests[i]->id.c_str(), &properties);
  }
  return g_variant_builder_end(&list);
}

// The unique name owning a well-known name, or nothing (with the reason).
std::optional<std::string> NameOwner(GDBusConnection* bus, const char* name, std::string& why) {
  GErrorPtr error;
  GVariantPtr reply(g_dbus_connection_call_sync(
      bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetNameOwner",
      g_variant_new("(s)", name), G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NONE, 2000, nullptr,
      error.out()));
  if (!reply) {
    GCharPtr remote(g_dbus_error_get_remote_error(error.get()));
    if (remote && remote.str() == "org.freedesktop.DBus.Error.NameHasNoOwner")
      why = std::string(name).append(" is not on the session bus");
    else
      why = error.message();
    return std::nullopt;
  }
  const gchar* owner = nullptr;
  g_variant_get(reply.get(), "(&s)", &owner);
  return std::string(owner ? owner : "");
}

} // namespace

std::optional<std::string> PortalTrigger(const std::string& accelerator) {
  if (accelerator.empty() || accelerator.size() > kMaxAccelerator)
    return std::nullopt;
  std::string trigger;
  size_t at = 0;
  while (at < accelerator.size() && accelerator[at] == '<') {
    size_t end = accelerator.find('>', at);
    if (end == std::string::npos)
      return std::nullopt;
    std::optional<std::string> modifier = ModifierName(accelerator.substr(at + 1, end - at - 1));
    if (!modifier)
      return std::nullopt;
    // Each modifier once, in the order given.
    if (("+" + trigger).find("+" + *modifier + "+") == std::string::npos)
      trigger += *modifier + "+";
    at = end + 1;
  }
  std::string key = accelerator.substr(at);
  if (key.empty())
    return std::nullopt;
  for (char c : key)
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_')
      return std::nullopt;
  return trigger + key;
}

std::string PortalRequestPath(const std::string& unique_name, const std::string& token) {
  std::string sender = unique_name;
  if (!sender.empty() && sender[0] == ':')
    sender.erase(0, 1);
  for (char& c : sender)
    if (c == '.')
      c = '_';
  std::string path = kPortalPath;
  path.append("/request/").append(sender).append("/").append(token);
  return path;
}

std::optional<std::set<std::string>> BoundShortcutIds(GVariant* results) {
  if (!results || !g_variant_is_of_type(results, G_VARIANT_TYPE_VARDICT))
    return std::nullopt;
  GVariantPtr shortcuts(g_variant_lookup_value(results, "shortcuts", G_VARIANT_TYPE("a(sa{sv})")));
  if (!shortcuts)
    return std::nullopt;
  std::set<std::string> ids;
  GVariantIter iter;
  g_variant_iter_init(&iter, shortcuts.get());
  const gchar* id = nullptr;
  GVariant* properties = nullptr;
  while (g_variant_iter_next(&iter, "(&s@a{sv})", &id, &properties)) {
    ids.insert(id);
    g_variant_unref(properties);
  }
  return ids;
}

// The Response of one portal Request.
struct PortalHotkeys::Answer {
  std::string sender; // only this unique name may answer
  bool received = false;
  guint32 code = 2;
  GVariantPtr results;
};

PortalHotkeys::PortalHotkeys(GDBusConnection* session_bus, double answer_seconds)
    : bus_(GObjectPtr<GDBusConnection>::retain(session_bus)), answer_seconds_(answer_seconds) {}

PortalHotkeys::~PortalHotkeys() {
  closeSession();
}

bool PortalHotkeys::bind(const std::string& accelerator, Handler) {
  SparLog("hotkeys: %@ not bound — the GlobalShortcuts portal takes shortcuts only as a named set",
          accelerator);
  return false;
}

void PortalHotkeys::closeSession() {
  if (activated_subscription_ && bus_)
    g_dbus_connection_signal_unsubscribe(bus_.get(), activated_subscription_);
  activated_subscription_ = 0;
  if (!session_.empty() && bus_ && !portal_owner_.empty())
    g_dbus_connection_call(bus_.get(), portal_owner_.c_str(), session_.c_str(),
                           "org.freedesktop.portal.Session", "Close", nullptr, nullptr,
                           G_DBUS_CALL_FLAGS_NO_AUTO_START, 2000, nullptr, nullptr, nullptr);
  session_.clear();
  handlers_.clear();
}

bool PortalHotkeys::awaitRequest(const char* method, GVariant* parameters, const std::string& token,
                                 Answer& answer, std::string& why) {
  GVariantPtr owned(g_variant_ref_sink(parameters));
  PrivateWait wait;
  auto on_response = [](GDBusConnection*, const gchar* sender, const gchar*, const gchar*,
                        const gchar*, GVariant* parameters, gpointer data) {
    auto* answer = static_cast<Answer*>(data);
    if (answer->received || !sender || answer->sender != sender ||
        !g_variant_is_of_type(parameters, G_VARIANT_TYPE("(ua{sv})")))
      return;
    GVariant* results = nullptr;
    g_variant_get(parameters, "(u@a{sv})", &answer->code, &results);
    answer->results = GVariantPtr(results);
    answer->received = true;
  };
  auto subscribe = [&](const std::string& path) {
    return g_dbus_connection_signal_subscribe(
        bus_.get(), answer.sender.c_str(), kRequestInterface, "Response", path.c_str(), nullptr,
        G_DBUS_SIGNAL_FLAGS_NONE, on_response, &answer, nullptr);
  };
  // Subscribed before the call, so a fast Response is not missed.
  const gchar* own_name = g_dbus_connection_get_unique_name(bus_.get());
  std::string expected = PortalRequestPath(own_name ? own_name : "", token);
  std::vector<guint> subscriptions{subscribe(expected)};
  // The call and its Response share one budget.
  gint64 deadline = g_get_monotonic_time() + gint64(answer_seconds_ * 1e6);
  GErrorPtr error;
  GVariantPtr reply(g_dbus_connection_call_sync(
      bus_.get(), answer.sender.c_str(), kPortalPath, kShortcutsInterface, method, owned.get(),
      G_VARIANT_TYPE("(o)"), G_DBUS_CALL_FLAGS_NO_AUTO_START, int(answer_seconds_ * 1000), nullptr,
      error.out()));
  bool answered = false;
  if (!reply) {
    why = std::string(method) + " failed: " + error.message();
  } else {
    const gchar* handle = nullptr;
    g_variant_get(reply.get(), "(&o)", &handle);
    // An older portal names a Request path of its own.
    if (handle && expected != handle)
      subscriptions.push_back(subscribe(handle));
    answered = wait.until([&] { return answer.received; },
                          double(std::max<gint64>(0, deadline - g_get_monotonic_time())) / 1e6);
    if (!answered)
      why = "no answer to " + std::string(method) + " within " + NumberText(answer_seconds_) + " s";
    else if (answer.code != 0)
      why = std::string(method) + (answer.code == 1 ? " was cancelled" : " was refused") +
            " (response " + std::to_string(answer.code) + ")";
  }
  for (guint id : subscriptions)
    g_dbus_connection_signal_unsubscribe(bus_.get(), id);
  return answered && answer.code == 0;
}

std::vector<bool> PortalHotkeys::bindAll(const std::vector<Request>& requests) {
  std::vector<bool> bound(requests.size(), false);
  closeSession();
  if (requests.empty())
    return bound;
  if (!bus_) {
    SparLog("hotkeys: the GlobalShortcuts portal cannot be reached: no session bus");
    return bound;
  }
  std::string why;
  std::optional<std::string> owner = NameOwner(bus_.get(), kPortalName, why);
  if (!owner) {
    SparLog("hotkeys: the GlobalShortcuts portal cannot be reached: %@", why);
    return bound;
  }
  portal_owner_ = *owner;

  // The requests the portal is asked for: a usable id, once, and a chord
  // the portal can read.
  std::vector<const Request*> asked;
  std::vector<std::string> triggers;
  std::vector<size_t> positions;
  std::set<std::string> ids;
  for (size_t i = 0; i < requests.size(); ++i) {
    const Request& request = requests[i];
    std::optional<std::string> trigger = PortalTrigger(request.accelerator);
    if (!trigger || request.id.empty() || !g_utf8_validate(request.id.c_str(), -1, nullptr) ||
        !g_utf8_validate(request.description.c_str(), -1, nullptr) || !request.handler ||
        !ids.insert(request.id).second) {
      SparLog("hotkeys: %@ (%@) cannot be given to the GlobalShortcuts portal", request.accelerator,
              request.id);
      continue;
    }
    asked.push_back(&request);
    triggers.push_back(*trigger);
    positions.push_back(i);
  }
  if (asked.empty())
    return bound;

  GVariantBuilder options;
  g_variant_builder_init(&options, G_VARIANT_TYPE_VARDICT);
  std::string token = NewHandleToken();
  g_variant_builder_add(&options, "{sv}", "handle_token", g_variant_new_string(token.c_str()));
  g_variant_builder_add(&options, "{sv}", "session_handle_token",
                        g_variant_new_string(kSessionToken));
  g_variant_builder_add(&options, "{sv}", "shortcuts", ShortcutList(asked, triggers));
  Answer created;
  created.sender = portal_owner_;
  if (!awaitRequest("CreateSession", g_variant_new("(a{sv})", &options), token, created, why)) {
    SparLog("hotkeys: the GlobalShortcuts portal bound nothing: %@", why);
    return bound;
  }
  const gchar* session = nullptr;
  if (!created.results ||
      !(g_variant_lookup(created.results.get(), "session_handle", "&s", &session) ||
        g_variant_lookup(created.results.get(), "session_handle", "&o", &session)) ||
      !session || !g_variant_is_object_path(session)) {
    SparLog("hotkeys: the GlobalShortcuts portal bound nothing: its session answer names no "
            "session");
    return bound;
  }
  session_ = session;

  GVariantBuilder bind_options;
  g_variant_builder_init(&bind_options, G_VARIANT_TYPE_VARDICT);
  std::string bind_token = NewHandleToken();
  g_variant_builder_add(&bind_options, "{sv}", "handle_token",
                        g_variant_new_string(bind_token.c_str()));
  Answer bound_answer;
  bound_answer.sender = portal_owner_;
  if (!awaitRequest("BindShortcuts",
                    g_variant_new("(o@a(sa{sv})sa{sv})", session_.c_str(),
                                  ShortcutList(asked, triggers), "", &bind_options),
                    bind_token, bound_answer, why)) {
    SparLog("hotkeys: the GlobalShortcuts portal bound nothing: %@", why);
    closeSession();
    return bound;
  }
  std::optional<std::set<std::string>> accepted = BoundShortcutIds(bound_answer.results.get());
  if (!accepted) {
    SparLog("hotkeys: the GlobalShortcuts portal bound nothing: its answer lists no shortcuts");
    closeSession();
    return bound;
  }
  for (size_t i = 0; i < asked.size(); ++i)
    if (accepted->count(asked[i]->id)) {
      handlers_[asked[i]->id] = asked[i]->handler;
      bound[positions[i]] = true;
    }
  // On the main loop's context: the PrivateWait above is gone.
  activated_subscription_ = g_dbus_connection_signal_subscribe(
      bus_.get(), portal_owner_.c_str(), kShortcutsInterface, "Activated", kPortalPath, nullptr,
      G_DBUS_SIGNAL_FLAGS_NONE, &PortalHotkeys::OnActivated, this, nullptr);
  return bound;
}

void PortalHotkeys::OnActivated(GDBusConnection*, const gchar* sender, const gchar*, const gchar*,
                                const gchar*, GVariant* parameters, gpointer data) {
  auto* self = static_cast<PortalHotkeys*>(data);
  // Only the portal itself may press Orvane's keys.
  if (!sender || self->portal_owner_ != sender ||
      !g_variant_is_of_type(parameters, G_VARIANT_TYPE("(osta{sv})")))
    return;
  const gchar* session = nullptr;
  const gchar* id = nullptr;
  guint64 timestamp = 0;
  g_variant_get(parameters, "(&o&sta{sv})", &session, &id, &timestamp, nullptr);
  if (self->session_ != session)
    return;
  auto handler = self->handlers_.find(id);
  if (handler == self->handlers_.end())
    return;
  // The portal's time is not the display's clock that GTK's times come
  // from, so the handler is told there is none.
  Handler run = handler->second;
  run(0);
}

} // namespace orvane
