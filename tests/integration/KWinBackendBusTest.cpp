// The KDE Plasma backend's classes on a real session bus where none of
// their services runs (no desktop portal, no systemd user manager, no KWin):
// each answers "nothing" at once and says why in one log line.
#include "desktop/kwin/AppScope.h"
#include "desktop/kwin/KWinBackend.h"
#include "desktop/kwin/KWinScripting.h"
#include "desktop/kwin/KWinWindows.h"
#include "desktop/kwin/PortalHotkeys.h"

#include "support/LogCapture.h"
#include "support/MainLoop.h"
#include "support/PeerConnection.h"
#include "support/TempDir.h"

#include <atomic>
#include <gtest/gtest.h>
#include <mutex>
#include <thread>

namespace orvane {
namespace {

GObjectPtr<GDBusConnection> Bus() {
  return GObjectPtr<GDBusConnection>::adopt(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr));
}

// A connection of its own, as another process on the bus would have, that
// takes and gives back a well-known name.
class NameHolder {
public:
  NameHolder() : bus_(NewPeerConnection()) {}
  bool call(const char* method, const std::string& name) {
    GVariant* reply = g_dbus_connection_call_sync(
        bus_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method,
        std::string(method) == "RequestName" ? g_variant_new("(su)", name.c_str(), 4u)
                                             : g_variant_new("(s)", name.c_str()),
        G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, 2000, nullptr, nullptr);
    if (!reply)
      return false;
    guint32 result = 0;
    g_variant_get(reply, "(u)", &result);
    g_variant_unref(reply);
    return result == 1; // primary owner / released
  }

private:
  GObjectPtr<GDBusConnection> bus_;
};

TEST(KWinBackendBusTest, TrustIsKeptUntilKWinOrThePortalChangesHandsOnTheBus) {
  auto bus = Bus();
  ASSERT_TRUE(bus);
  int checks = 0;
  KWinMeans means{true, true, true};
  KWinAccessibility accessibility(
      [&] {
        ++checks;
        return means;
      },
      bus.get());
  // The watches' first reports (nobody owns either name) come in first.
  SpinFor(0.2);
  EXPECT_TRUE(accessibility.isTrusted());
  EXPECT_TRUE(accessibility.isTrusted());
  EXPECT_EQ(accessibility.reasonNotTrusted(), "");
  EXPECT_EQ(checks, 1);

  for (const char* name : KWinAccessibility::kWatchedNames) {
    NameHolder holder;
    int before = checks;
    ASSERT_TRUE(holder.call("RequestName", name)) << name;
    // Asked until the new owner's report drops what was kept.
    EXPECT_TRUE(SpinUntil(
        [&] {
          accessibility.isTrusted();
          return checks > before;
        },
        5))
        << name;
    EXPECT_TRUE(accessibility.isTrusted());
    before = checks;
    means.global_shortcuts = false;
    ASSERT_TRUE(holder.call("ReleaseName", name)) << name;
    EXPECT_TRUE(SpinUntil([&] { return !accessibility.isTrusted(); }, 5)) << name;
    EXPECT_GT(checks, before);
    // A missing means is looked for again on every question.
    before = checks;
    EXPECT_FALSE(accessibility.isTrusted());
    EXPECT_FALSE(accessibility.isTrusted());
    EXPECT_EQ(checks, before + 2);
    means.global_shortcuts = true;
    EXPECT_TRUE(accessibility.isTrusted());
  }
}

TEST(KWinBackendBusTest, WithoutTheDesktopPortalEveryHotkeyIsFalseAndOneLineSaysWhy) {
  LogCapture log;
  auto bus = Bus();
  ASSERT_TRUE(bus);
  PortalHotkeys hotkeys(bus.get());
  int fired = 0;
  std::vector<Hotkeys::Request> requests;
  for (const char* key : {"b", "c", "q", "v"})
    requests.push_back({std::string("key-") + key, "A key", std::string("<Alt>") + key,
                        [&](uint32_t) { ++fired; }});
  EXPECT_EQ(hotkeys.bindAll(requests), (std::vector<bool>{false, false, false, false}));
  EXPECT_EQ(log.messages(),
            (std::vector<std::string>{"hotkeys: the GlobalShortcuts portal cannot be reached: "
                                      "org.freedesktop.portal.Desktop is not on the session bus"}));
  EXPECT_TRUE(hotkeys.session().empty());
  EXPECT_EQ(fired, 0);
}

TEST(KWinBackendBusTest, WithoutASystemdUserManagerTheMoveIntoAScopeIsLogged) {
  LogCapture log;
  auto bus = Bus();
  TempDir dir;
  std::string cgroup = dir.write("cgroup", "0::/user.slice/user-0.slice/session-1.scope\n");
  EXPECT_FALSE(EnsureAppScope(bus.get(), cgroup));
  EXPECT_EQ(log.messages(), (std::vector<std::string>{
                                "hotkeys: cannot move into a systemd scope (no systemd user "
                                "manager on the session bus) — the desktop may not know Orvane's "
                                "shortcuts"}));
}

TEST(KWinBackendBusTest, WithoutKWinNoWindowIsKnownAndTheLogSaysWhyOnce) {
  LogCapture log;
  auto bus = Bus();
  KWinScripting scripting(bus.get());
  KWinFrontWindows front(scripting);
  KWinWindows windows(scripting);
  EXPECT_EQ(front.frontWindow(), std::nullopt);
  EXPECT_TRUE(windows.normalWindows().empty());
  EXPECT_EQ(windows.windowsOfPid(getpid()), std::nullopt);
  EXPECT_TRUE(windows.pidsOfApplication("evince").empty());
  // Repeats within a second are held back.
  EXPECT_EQ(log.messages(), (std::vector<std::string>{"kwin: no answer from KWin's scripting: "
                                                      "org.kde.KWin is not on the session bus"}));
}

// A peer on its own thread that owns a name and answers the scripting
// calls the way KWin does (loadScript gives 5, /5 run succeeds), but whose
// script never calls back; or, when `silent`, never answers loadScript at
// all.
class UnansweringKWin {
public:
  explicit UnansweringKWin(bool silent) : silent_(silent) {
    thread_ = std::thread([this] { run(); });
    while (!ready_)
      g_usleep(1000);
  }
  ~UnansweringKWin() {
    stop_ = true;
    thread_.join();
  }
  std::vector<std::string> calls() {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }
  static constexpr const char* kName = "com.tarnwick.test.UnansweringKWin";

private:
  static void OnCall(GDBusConnection*, const gchar*, const gchar* path, const gchar*,
                     const gchar* method, GVariant*, GDBusMethodInvocation* invocation,
                     gpointer data) {
    auto* self = static_cast<UnansweringKWin*>(data);
    {
      std::lock_guard<std::mutex> lock(self->mutex_);
      self->calls_.push_back(std::string(path) + " " + method);
    }
    std::string name = method;
    if (self->silent_ && name == "loadScript") {
      self->held_.push_back(invocation); // answered only when the peer goes
      return;
    }
    if (name == "loadScript")
      g_dbus_method_invocation_return_value(invocation, g_variant_new("(i)", 5));
    else if (name == "unloadScript")
      g_dbus_method_invocation_return_value(invocation, g_variant_new("(b)", TRUE));
    else
      g_dbus_method_invocation_return_value(invocation, nullptr);
  }

  void run() {
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(context);
    auto bus = NewPeerConnection();
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(
        R"(<node><interface name="org.kde.kwin.Scripting">
             <method name="loadScript"><arg type="s" direction="in"/><arg type="s" direction="in"/>
               <arg type="i" direction="out"/></method>
             <method name="unloadScript"><arg type="s" direction="in"/>
               <arg type="b" direction="out"/></method>
           </interface><interface name="org.kde.kwin.Script"><method name="run"/></interface>
           </node>)",
        nullptr);
    GDBusInterfaceVTable vtable{&UnansweringKWin::OnCall, nullptr, nullptr, {}};
    guint scripting = g_dbus_connection_register_object(
        bus.get(), "/Scripting", node->interfaces[0], &vtable, this, nullptr, nullptr);
    guint script = g_dbus_connection_register_object(bus.get(), "/5", node->interfaces[1], &vtable,
                                                     this, nullptr, nullptr);
    GVariantPtr owned(g_dbus_connection_call_sync(
        bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "RequestName", g_variant_new("(su)", kName, 4u), nullptr, G_DBUS_CALL_FLAGS_NONE, 2000,
        nullptr, nullptr));
    ready_ = true;
    while (!stop_)
      if (!g_main_context_iteration(context, FALSE))
        g_usleep(1000);
    for (GDBusMethodInvocation* invocation : held_)
      g_dbus_method_invocation_return_value(invocation, g_variant_new("(i)", -1));
    g_dbus_connection_unregister_object(bus.get(), scripting);
    g_dbus_connection_unregister_object(bus.get(), script);
    g_dbus_node_info_unref(node);
    g_dbus_connection_flush_sync(bus.get(), nullptr, nullptr);
    bus = {};
    while (g_main_context_iteration(context, FALSE)) {
    }
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
  }

  bool silent_;
  std::atomic<bool> ready_{false};
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  std::vector<std::string> calls_;
  std::vector<GDBusMethodInvocation*> held_;
  std::thread thread_;
};

KWinScripting::Options Within(double seconds) {
  KWinScripting::Options options;
  options.answer_seconds = seconds;
  options.kwin_service = UnansweringKWin::kName;
  return options;
}

TEST(KWinBackendBusTest, AScriptThatNeverAnswersEndsAtTheDeadlineAndIsUnloaded) {
  LogCapture log;
  UnansweringKWin kwin(false);
  auto bus = Bus();
  KWinScripting scripting(bus.get(), Within(0.5));
  bool ran = false;
  guint idle = g_idle_add(
      [](gpointer data) -> gboolean {
        *static_cast<bool*>(data) = true;
        return G_SOURCE_REMOVE;
      },
      &ran);
  EXPECT_EQ(scripting.query("      return 1;"), std::nullopt);
  EXPECT_FALSE(ran); // the main loop's sources waited
  if (!ran)
    g_source_remove(idle);
  std::vector<std::string> calls = kwin.calls();
  EXPECT_EQ(calls, (std::vector<std::string>{"/Scripting loadScript", "/5 run",
                                             "/Scripting unloadScript"}));
  ASSERT_EQ(log.messages().size(), 1u);
  EXPECT_EQ(log.messages()[0], "kwin: no answer from KWin's scripting: no answer within 0.5 s");
}

TEST(KWinBackendBusTest, AKWinThatNeverAnswersTheLoadEndsAtTheDeadline) {
  LogCapture log;
  UnansweringKWin kwin(true);
  auto bus = Bus();
  KWinScripting scripting(bus.get(), Within(0.5));
  EXPECT_EQ(scripting.query("      return 1;"), std::nullopt);
  ASSERT_EQ(log.messages().size(), 1u);
  EXPECT_NE(log.messages()[0].find("kwin: no answer from KWin's scripting: loadScript failed: "),
            std::string::npos)
      << log.messages()[0];
  EXPECT_EQ(kwin.calls(), (std::vector<std::string>{"/Scripting loadScript"}));
}

} // namespace
} // namespace orvane
