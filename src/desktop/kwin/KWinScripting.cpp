#include "desktop/kwin/KWinScripting.h"

#include "base/SparLog.h"
#include "base/Text.h"
#include "desktop/kwin/PrivateWait.h"

#include <algorithm>
#include <cmath>
#include <glib/gstdio.h>
#include <unistd.h>

namespace orvane {

namespace {

// Bounds on what an answer may hold.
constexpr size_t kMaxIdLength = 64;
constexpr size_t kMaxTextBytes = 64 * 1024;
constexpr double kMaxCoordinate = 1e6;
// How long the clean-up after a query may wait for KWin.
constexpr int kUnloadMs = 500;

const char* const kAnswerXml = R"(<node>
  <interface name="com.tarnwick.orvane.KWinScript">
    <method name="Answer">
      <arg type="s" name="token" direction="in"/>
      <arg type="s" name="answer" direction="in"/>
    </method>
  </interface>
</node>)";

// The script around a query's body. SERVICE, TOKEN, PATH, INTERFACE and
// BODY are replaced; everything else is constant.
const char* const kScriptTemplate = R"JS((function () {
  var service = @SERVICE@, token = @TOKEN@;
  // Names longer than any real one are cut here, so that one window with
  // a huge title cannot make the whole answer too long to be taken.
  function text(value) {
    if (value === undefined || value === null)
      return "";
    if (typeof value === "string")
      return value.length > 4096 ? value.substring(0, 4096) : value;
    if (value instanceof ArrayBuffer) {
      var bytes = new Uint8Array(value), out = [];
      for (var i = 0; i < bytes.length && i < 4096; ++i)
        out.push(bytes[i]);
      return out;
    }
    return text(String(value));
  }
  function rect(g) {
    if (!g)
      return null;
    return {x: Number(g.x), y: Number(g.y), width: Number(g.width), height: Number(g.height)};
  }
  function describe(c) {
    return {id: String(c.internalId), pid: Number(c.pid), caption: text(c.caption),
            resourceClass: text(c.resourceClass), resourceName: text(c.resourceName),
            desktopFileName: text(c.desktopFileName), normal: !!c.normalWindow,
            fullScreen: !!c.fullScreen, frame: rect(c.frameGeometry)};
  }
  // KWin 5.27's names first; Plasma 6 renamed them.
  function windows() {
    return workspace.clientList ? workspace.clientList() : workspace.windowList();
  }
  function active() {
    return workspace.activeClient !== undefined ? workspace.activeClient : workspace.activeWindow;
  }
  function activate(c) {
    if (workspace.activeClient !== undefined)
      workspace.activeClient = c;
    else
      workspace.activeWindow = c;
  }
  function outputs() {
    if (workspace.numScreens === undefined)
      return workspace.screens;
    var list = [];
    for (var i = 0; i < workspace.numScreens; ++i)
      list.push(i);
    return list;
  }
  function area(kind, output) {
    return rect(workspace.clientArea(kind, output, workspace.currentDesktop));
  }
  function find(id) {
    var list = windows();
    for (var i = 0; i < list.length; ++i)
      if (String(list[i].internalId) === id)
        return list[i];
    return null;
  }
  function screens() {
    var list = [];
    try {
      var all = outputs();
      for (var i = 0; i < all.length; ++i)
        list.push(area(KWin.FullScreenArea, all[i]));
    } catch (e) {
    }
    return list;
  }
  var answer;
  try {
    var result = (function () {
@BODY@
    })();
    answer = {ok: true, result: result === undefined ? null : result, screens: screens()};
  } catch (e) {
    answer = {ok: false, error: String(e)};
  }
  callDBus(service, @PATH@, @INTERFACE@, "Answer", token, JSON.stringify(answer));
})();
)JS";

// The template with each "@NAME@" replaced by its value in one pass, so
// that nothing inside a value is ever taken for a placeholder.
std::string Expand(const std::string& text, const std::map<std::string, std::string>& values) {
  std::string out;
  size_t at = 0;
  while (at < text.size()) {
    size_t open = text.find('@', at);
    size_t close = open == std::string::npos ? open : text.find('@', open + 1);
    if (close == std::string::npos) {
      out.append(text, at, std::string::npos);
      break;
    }
    auto value = values.find(text.substr(open + 1, close - open - 1));
    if (value == values.end()) {
      out.append(text, at, close - at);
      at = close;
      continue;
    }
    out.append(text, at, open - at).append(value->second);
    at = close + 1;
  }
  return out;
}

// A text field: a string, or the bytes of a byte array (KWin hands some
// names over as byte arrays), as valid UTF-8.
std::optional<std::string> TextField(const nlohmann::json& object, const char* name) {
  auto it = object.find(name);
  if (it == object.end() || it->is_null())
    return std::string();
  if (it->is_string()) {
    const std::string& text = it->get_ref<const std::string&>();
    if (text.size() > kMaxTextBytes)
      return std::nullopt;
    return ValidUtf8(text);
  }
  if (it->is_array()) {
    if (it->size() > kMaxTextBytes)
      return std::nullopt;
    std::string bytes;
    for (const auto& item : *it) {
      if (!item.is_number_integer() && !item.is_number_unsigned())
        return std::nullopt;
      long long value = item.get<long long>();
      if (value < 0 || value > 255)
        return std::nullopt;
      bytes += char(value);
    }
    return ValidUtf8(bytes);
  }
  return std::nullopt;
}

std::optional<bool> BoolField(const nlohmann::json& object, const char* name) {
  auto it = object.find(name);
  if (it == object.end() || !it->is_boolean())
    return std::nullopt;
  return it->get<bool>();
}

std::string OwnerOf(GDBusConnection* bus, const std::string& name, int timeout_ms,
                    std::string& why) {
  GErrorPtr error;
  GVariantPtr reply(g_dbus_connection_call_sync(
      bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetNameOwner",
      g_variant_new("(s)", name.c_str()), G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NONE, timeout_ms,
      nullptr, error.out()));
  if (!reply) {
    why = name + " is not on the session bus";
    return "";
  }
  const gchar* owner = nullptr;
  g_variant_get(reply.get(), "(&s)", &owner);
  return owner ? owner : "";
}

std::string RandomToken() {
  std::string uuid = NewUpperCaseUuid();
  std::string token;
  for (char c : uuid)
    if (c != '-')
      token += c;
  return token;
}

} // namespace

std::string ScriptString(const std::string& text) {
  // Invalid UTF-8 would make the encoder throw; the script gets U+FFFD.
  return nlohmann::json(ValidUtf8(text)).dump(-1, ' ', true);
}

std::optional<std::string> ScriptNumber(double value) {
  if (!std::isfinite(value))
    return std::nullopt;
  return nlohmann::json(value).dump();
}

std::string KWinScriptText(const std::string& service, const std::string& token,
                           const std::string& body) {
  return Expand(kScriptTemplate, {{"SERVICE", ScriptString(service)},
                                  {"TOKEN", ScriptString(token)},
                                  {"PATH", ScriptString(KWinScripting::kAnswerPath)},
                                  {"INTERFACE", ScriptString(KWinScripting::kAnswerInterface)},
                                  {"BODY", body}});
}

std::optional<Rect> ParseKWinRect(const nlohmann::json& value) {
  if (!value.is_object())
    return std::nullopt;
  double numbers[4];
  const char* names[4] = {"x", "y", "width", "height"};
  for (int i = 0; i < 4; ++i) {
    auto it = value.find(names[i]);
    if (it == value.end() || !it->is_number())
      return std::nullopt;
    numbers[i] = it->get<double>();
    if (!std::isfinite(numbers[i]) || std::fabs(numbers[i]) > kMaxCoordinate)
      return std::nullopt;
  }
  if (numbers[2] < 0 || numbers[3] < 0)
    return std::nullopt;
  return Rect{numbers[0], numbers[1], numbers[2], numbers[3]};
}

std::optional<ScriptAnswer> ParseScriptAnswer(const std::string& text, std::string& why) {
  if (text.size() > kMaxScriptAnswer) {
    why = "an answer of " + std::to_string(text.size()) + " bytes";
    return std::nullopt;
  }
  nlohmann::json value = nlohmann::json::parse(text, nullptr, false);
  if (value.is_discarded() || !value.is_object()) {
    why = "an answer that is not a JSON object";
    return std::nullopt;
  }
  std::optional<bool> ok = BoolField(value, "ok");
  if (!ok) {
    why = "an answer without its outcome";
    return std::nullopt;
  }
  if (!*ok) {
    auto error = value.find("error");
    why = "the script failed: " + ShortenedText(error != value.end() && error->is_string()
                                                    ? error->get<std::string>()
                                                    : std::string("(no reason)"),
                                                200);
    return std::nullopt;
  }
  ScriptAnswer answer;
  auto result = value.find("result");
  if (result != value.end())
    answer.result = *result;
  auto screens = value.find("screens");
  if (screens != value.end()) {
    if (!screens->is_array() || screens->size() > 64) {
      why = "an answer with a malformed screen list";
      return std::nullopt;
    }
    for (const auto& screen : *screens) {
      std::optional<Rect> rect = ParseKWinRect(screen);
      if (!rect) {
        why = "an answer with a malformed screen";
        return std::nullopt;
      }
      answer.screens.push_back(*rect);
    }
  }
  return answer;
}

std::optional<KWinWindow> ParseKWinWindow(const nlohmann::json& value, std::string& why) {
  if (!value.is_object()) {
    why = "a window that is not an object";
    return std::nullopt;
  }
  KWinWindow window;
  auto id = value.find("id");
  if (id == value.end() || !id->is_string() || id->get_ref<const std::string&>().empty() ||
      id->get_ref<const std::string&>().size() > kMaxIdLength) {
    why = "a window without a usable id";
    return std::nullopt;
  }
  window.internal_id = ValidUtf8(id->get<std::string>());
  auto pid = value.find("pid");
  if (pid == value.end() || !pid->is_number()) {
    why = "a window without a pid";
    return std::nullopt;
  }
  double pid_value = pid->get<double>();
  if (!std::isfinite(pid_value) || pid_value < 0 || pid_value > 2147483647.0 ||
      pid_value != std::floor(pid_value)) {
    why = "a window with an impossible pid";
    return std::nullopt;
  }
  window.pid = int(pid_value);
  std::optional<std::string> caption = TextField(value, "caption");
  std::optional<std::string> resource_class = TextField(value, "resourceClass");
  std::optional<std::string> resource_name = TextField(value, "resourceName");
  std::optional<std::string> desktop_file = TextField(value, "desktopFileName");
  if (!caption || !resource_class || !resource_name || !desktop_file) {
    why = "a window with a malformed name";
    return std::nullopt;
  }
  window.caption = *caption;
  window.resource_class = *resource_class;
  window.resource_name = *resource_name;
  window.desktop_file_name = *desktop_file;
  std::optional<bool> normal = BoolField(value, "normal");
  std::optional<bool> full_screen = BoolField(value, "fullScreen");
  if (!normal || !full_screen) {
    why = "a window with malformed states";
    return std::nullopt;
  }
  window.normal = *normal;
  window.full_screen = *full_screen;
  auto frame = value.find("frame");
  if (frame != value.end() && !frame->is_null()) {
    window.frame = ParseKWinRect(*frame);
    if (!window.frame) {
      why = "a window with a malformed frame";
      return std::nullopt;
    }
  }
  return window;
}

Rect DesktopRectFromKWin(const Rect& kwin, const Rect& primary) {
  return {kwin.x - primary.x, primary.y + primary.height - (kwin.y + kwin.height), kwin.width,
          kwin.height};
}

Rect KWinRectFromDesktop(const Rect& desktop, const Rect& primary) {
  return {desktop.x + primary.x, primary.y + primary.height - (desktop.y + desktop.height),
          desktop.width, desktop.height};
}

// One query in flight.
struct KWinScripting::Pending {
  std::string sender; // the unique name owning KWin's name
  std::string token;
  bool received = false;
  std::string answer;
  KWinScripting* self = nullptr;
};

KWinScripting::KWinScripting(GDBusConnection* session_bus)
    : KWinScripting(session_bus, Options{}) {}

KWinScripting::KWinScripting(GDBusConnection* session_bus, Options options)
    : bus_(GObjectPtr<GDBusConnection>::retain(session_bus)), options_(std::move(options)) {
  if (!options_.new_token)
    options_.new_token = RandomToken;
}

KWinScripting::~KWinScripting() {
  if (!folder_.empty())
    g_rmdir(folder_.c_str());
}

void KWinScripting::fail(const std::string& why) {
  long held_back = 0;
  if (!throttle_.admit(this, held_back))
    return;
  if (held_back > 0)
    SparLog("kwin: no answer from KWin's scripting: %@ (%ld more like it held back)", why,
            held_back);
  else
    SparLog("kwin: no answer from KWin's scripting: %@", why);
}

unsigned long KWinScripting::idFor(const std::string& internal_id) {
  auto it = ids_.find(internal_id);
  if (it != ids_.end())
    return it->second;
  unsigned long id = ids_.size() + 1;
  ids_[internal_id] = id;
  internal_ids_[id] = internal_id;
  return id;
}

std::optional<std::string> KWinScripting::internalIdOf(unsigned long id) const {
  auto it = internal_ids_.find(id);
  if (it == internal_ids_.end())
    return std::nullopt;
  return it->second;
}

void KWinScripting::OnAnswer(GDBusConnection*, const gchar* sender, const gchar*, const gchar*,
                             const gchar* method, GVariant* parameters,
                             GDBusMethodInvocation* invocation, gpointer data) {
  auto* pending = static_cast<Pending*>(data);
  const gchar* token = nullptr;
  const gchar* answer = nullptr;
  // GDBus has checked the signature against the interface already.
  if (g_strcmp0(method, "Answer") == 0 && g_variant_is_of_type(parameters, G_VARIANT_TYPE("(ss)")))
    g_variant_get(parameters, "(&s&s)", &token, &answer);
  if (!sender || pending->sender != sender || !token || pending->token != token ||
      pending->received) {
    g_dbus_method_invocation_return_dbus_error(
        invocation, "org.freedesktop.DBus.Error.AccessDenied", "not expected");
    if (!sender || pending->sender != sender)
      pending->self->fail(std::string("an answer from ") + (sender ? sender : "(nobody)") +
                          ", which is not KWin, was ignored");
    return;
  }
  pending->received = true;
  pending->answer = answer;
  g_dbus_method_invocation_return_value(invocation, nullptr);
}

std::optional<ScriptAnswer> KWinScripting::query(const std::string& body) {
  if (!bus_) {
    fail("no session bus");
    return std::nullopt;
  }
  // One budget for the whole query, so a KWin that hangs costs at most
  // that (and a short unload).
  gint64 deadline = g_get_monotonic_time() + gint64(options_.answer_seconds * 1e6);
  auto remaining_ms = [&] {
    return int(std::max<gint64>(1, (deadline - g_get_monotonic_time()) / 1000));
  };
  std::string why;
  Pending pending;
  pending.self = this;
  pending.sender = OwnerOf(bus_.get(), options_.kwin_service, remaining_ms(), why);
  if (pending.sender.empty()) {
    fail(why);
    return std::nullopt;
  }
  if (folder_.empty()) {
    GErrorPtr error;
    GCharPtr folder(g_dir_make_tmp("orvane-kwin-XXXXXX", error.out()));
    if (!folder) {
      fail("no folder for the script: " + error.message());
      return std::nullopt;
    }
    folder_ = folder.str();
  }
  pending.token = options_.new_token();
  const gchar* own_name = g_dbus_connection_get_unique_name(bus_.get());
  std::string script = KWinScriptText(own_name ? own_name : "", pending.token, body);
  ++queries_;
  std::string path = folder_ + "/query-" + std::to_string(queries_) + ".js";
  std::string plugin = "orvane-" + std::to_string(getpid()) + "-" + std::to_string(queries_) + "-" +
                       RandomToken().substr(0, 8);
  {
    GErrorPtr error;
    if (!g_file_set_contents(path.c_str(), script.data(), gssize(script.size()), error.out())) {
      fail("the script could not be written: " + error.message());
      return std::nullopt;
    }
  }
  {
    PrivateWait wait;
    static GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kAnswerXml, nullptr);
    static const GDBusInterfaceVTable vtable{&KWinScripting::OnAnswer, nullptr, nullptr, {}};
    GErrorPtr error;
    guint registration = g_dbus_connection_register_object(
        bus_.get(), kAnswerPath, node->interfaces[0], &vtable, &pending, nullptr, error.out());
    if (!registration) {
      why = "the answer object could not be registered: " + error.message();
    } else {
      GVariantPtr loaded(g_dbus_connection_call_sync(
          bus_.get(), pending.sender.c_str(), "/Scripting", "org.kde.kwin.Scripting", "loadScript",
          g_variant_new("(ss)", path.c_str(), plugin.c_str()), G_VARIANT_TYPE("(i)"),
          G_DBUS_CALL_FLAGS_NO_AUTO_START, remaining_ms(), nullptr, error.out()));
      gint32 id = -1;
      if (loaded)
        g_variant_get(loaded.get(), "(i)", &id);
      if (!loaded) {
        why = "loadScript failed: " + error.message();
      } else if (id < 0) {
        why = "loadScript refused the script";
      } else {
        // KWin 5.27 names a script's object /<id>; Plasma 6 names it
        // /Scripting/Script<id>.
        bool started = false;
        for (std::string object :
             {"/" + std::to_string(id), "/Scripting/Script" + std::to_string(id)}) {
          GVariantPtr ran(g_dbus_connection_call_sync(
              bus_.get(), pending.sender.c_str(), object.c_str(), "org.kde.kwin.Script", "run",
              nullptr, nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, remaining_ms(), nullptr,
              error.out()));
          if (ran) {
            started = true;
            break;
          }
        }
        if (!started)
          why = "the script could not be run: " + error.message();
        else if (!wait.until([&] { return pending.received; }, remaining_ms() / 1000.0))
          why = "no answer within " + NumberText(options_.answer_seconds) + " s";
        GVariantPtr unloaded(g_dbus_connection_call_sync(
            bus_.get(), pending.sender.c_str(), "/Scripting", "org.kde.kwin.Scripting",
            "unloadScript", g_variant_new("(s)", plugin.c_str()), nullptr,
            G_DBUS_CALL_FLAGS_NO_AUTO_START, kUnloadMs, nullptr, nullptr));
      }
      // Calls that came in meanwhile get their refusal before the object
      // goes.
      wait.drain();
      g_dbus_connection_unregister_object(bus_.get(), registration);
    }
  }
  g_unlink(path.c_str());
  if (!pending.received) {
    fail(why);
    return std::nullopt;
  }
  std::optional<ScriptAnswer> answer = ParseScriptAnswer(pending.answer, why);
  if (!answer)
    fail(why);
  return answer;
}

} // namespace orvane
