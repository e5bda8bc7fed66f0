// The KDE Plasma backend's classes against the real services of a headless
// KWin 5.27 session: KWin's scripting, the GlobalShortcuts portal
// (xdg-desktop-portal with its KDE backend), native Wayland GTK clients and
// keys pressed through KWin's fake-input.
#include "desktop/kwin/AppScope.h"
#include "desktop/kwin/KWinScreens.h"
#include "desktop/kwin/KWinScripting.h"
#include "desktop/kwin/KWinWindows.h"
#include "desktop/kwin/PortalHotkeys.h"

#include "support/LogCapture.h"
#include "support/MainLoop.h"
#include "support/NativeWindowProcess.h"
#include "support/PeerConnection.h"
#include "support/TempDir.h"

#include "base/Text.h"

#include <atomic>
#include <cmath>
#include <fstream>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace orvane {
namespace {

GObjectPtr<GDBusConnection> SessionBusConnection() {
  return GObjectPtr<GDBusConnection>::adopt(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr));
}

std::string UniqueTitle(const std::string& what) {
  return "Orvane KWin " + what + " " + std::to_string(g_random_int());
}

TEST(KWinScriptingSessionTest, KWinAnswersWithItsTwoScreens) {
  auto bus = SessionBusConnection();
  ASSERT_TRUE(bus);
  KWinScripting scripting(bus.get());
  std::optional<ScriptAnswer> answer = scripting.query("      return {sum: 40 + 2};");
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->result, nlohmann::json({{"sum", 42}}));
  EXPECT_EQ(answer->screens, (std::vector<Rect>{{0, 0, 1600, 1000}, {1600, 0, 1600, 1000}}));
}

TEST(KWinScreensSessionTest, TwoOutputsSideBySideAndThePointerOnOne) {
  auto bus = SessionBusConnection();
  KWinScripting scripting(bus.get());
  KWinScreens screens(scripting);
  std::vector<Screen> seen = screens.screens();
  EXPECT_EQ(seen, (std::vector<Screen>{{0, {0, 0, 1600, 1000}, {0, 0, 1600, 1000}},
                                       {1, {1600, 0, 1600, 1000}, {1600, 0, 1600, 1000}}}));
  Point pointer = screens.mouseLocation();
  bool inside = false;
  for (const Screen& screen : seen)
    inside = inside || screen.frame.contains(pointer);
  EXPECT_TRUE(inside) << PointText(pointer);
}

TEST(KWinScriptingSessionTest, AScriptErrorIsALoggedEmptyAnswer) {
  LogCapture log;
  auto bus = SessionBusConnection();
  KWinScripting scripting(bus.get());
  EXPECT_FALSE(scripting.query("      return no_such_thing.at_all;"));
  ASSERT_FALSE(log.messages().empty());
  EXPECT_NE(log.messages()[0].find("kwin: no answer from KWin's scripting: the script failed: "
                                   "ReferenceError"),
            std::string::npos)
      << log.messages()[0];
}

TEST(KWinScriptingSessionTest, ValuesPutIntoTheScriptStayValues) {
  auto bus = SessionBusConnection();
  KWinScripting scripting(bus.get());
  std::string hostile = "\"); workspace.activeClient = null; (\"\n\xe2\x80\xa8 </script> \\";
  std::optional<ScriptAnswer> answer =
      scripting.query("      return " + ScriptString(hostile) + ";");
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->result, nlohmann::json(hostile));
}

TEST(KWinScriptingSessionTest, AnAnswerFromAPeerThatIsNotKWinIsIgnored) {
  LogCapture log;
  auto bus = SessionBusConnection();
  KWinScripting::Options options;
  options.new_token = [] { return std::string("known-token"); };
  KWinScripting scripting(bus.get(), options);
  std::string target = g_dbus_connection_get_unique_name(bus.get());

  // Another peer that knows the token answers first, again and again.
  std::atomic<bool> stop{false};
  std::atomic<int> refused{0};
  std::thread forger([&] {
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(context);
    auto peer = NewPeerConnection();
    while (!stop) {
      GError* error = nullptr;
      GVariant* reply = g_dbus_connection_call_sync(
          peer.get(), target.c_str(), KWinScripting::kAnswerPath, KWinScripting::kAnswerInterface,
          "Answer",
          g_variant_new("(ss)", "known-token", R"({"ok":true,"result":"forged","screens":[]})"),
          nullptr, G_DBUS_CALL_FLAGS_NONE, 1000, nullptr, &error);
      if (reply)
        g_variant_unref(reply);
      if (error && g_dbus_error_is_remote_error(error)) {
        GCharPtr name(g_dbus_error_get_remote_error(error));
        if (name.str() == "org.freedesktop.DBus.Error.AccessDenied")
          ++refused;
      }
      g_clear_error(&error);
      g_usleep(2000);
    }
    peer = {};
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
  });
  std::optional<ScriptAnswer> answer;
  for (int i = 0; i < 3; ++i)
    answer = scripting.query("      return 'from KWin';");
  stop = true;
  forger.join();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->result, nlohmann::json("from KWin"));
  EXPECT_GT(refused.load(), 0);
  bool logged = false;
  for (const auto& line : log.messages())
    logged = logged || line.find(", which is not KWin, was ignored") != std::string::npos;
  EXPECT_TRUE(logged);
}

TEST(KWinScriptingSessionTest, TheMainLoopsOtherSourcesDoNotRunDuringAQuery) {
  auto bus = SessionBusConnection();
  KWinScripting scripting(bus.get());
  bool ran = false;
  guint idle = g_idle_add(
      [](gpointer data) -> gboolean {
        *static_cast<bool*>(data) = true;
        return G_SOURCE_REMOVE;
      },
      &ran);
  EXPECT_TRUE(scripting.query("      return 1;"));
  EXPECT_FALSE(ran);
  EXPECT_TRUE(SpinUntil([&] { return ran; }, 5));
  if (!ran)
    g_source_remove(idle);
}

TEST(KWinWindowsSessionTest, AWindowWithAHugeTitleIsListedWithItCutAndHidesNoOther) {
  auto bus = SessionBusConnection();
  KWinScripting scripting(bus.get());
  KWinWindows windows(scripting);
  std::string huge = "Huge " + std::string(100000, 'x');
  NativeWindow x11(huge, "x11");
  ASSERT_TRUE(x11.mapped());
  std::string title = UniqueTitle("beside the huge one");
  NativeWindow native(title);
  ASSERT_TRUE(native.mapped());
  std::optional<WindowInfo> huge_one, other;
  EXPECT_TRUE(SpinUntil([&] {
    huge_one.reset();
    other.reset();
    for (const WindowInfo& window : windows.normalWindows()) {
      if (window.pid == x11.pid())
        huge_one = window;
      if (window.pid == native.pid())
        other = window;
    }
    return huge_one && other && BeginsWith(huge_one->title, "Huge xxx");
  }));
  ASSERT_TRUE(huge_one && other);
  EXPECT_LE(huge_one->title.size(), 4096u);
  EXPECT_EQ(other->title, title);
}

TEST(KWinFrontWindowsSessionTest, ANativeGtkClientInFrontIsReportedWithItsPidAndTitle) {
  auto bus = SessionBusConnection();
  KWinScripting scripting(bus.get());
  KWinFrontWindows front(scripting);
  std::string title = UniqueTitle("front");
  NativeWindow window(title);
  ASSERT_TRUE(window.mapped());
  std::optional<FrontWindow> seen = FrontWindowOf(front, window.pid());
  ASSERT_TRUE(seen);
  EXPECT_EQ(seen->title, title);
  EXPECT_EQ(seen->wm_class, "orvane-kwin-native");
  EXPECT_NE(seen->id, 0u);
  ASSERT_TRUE(seen->frame);
  EXPECT_GT(seen->frame->width, 0);
  EXPECT_GT(seen->frame->height, 0);
}

TEST(KWinWindowsSessionTest, ANativeWindowMovesOntoTheSecondOutputAndItsFrameIsReadBack) {
  auto bus = SessionBusConnection();
  KWinScripting scripting(bus.get());
  KWinWindows windows(scripting);
  NativeWindow window(UniqueTitle("move"));
  ASSERT_TRUE(window.mapped());
  std::optional<std::vector<WindowInfo>> mine;
  ASSERT_TRUE(SpinUntil(
      [&] {
        mine = windows.windowsOfPid(window.pid());
        return mine && mine->size() == 1;
      },
      10));
  WindowInfo info = mine->front();
  EXPECT_TRUE(info.normal);
  // The second output is x 1600–3200; desktop y counts up from the primary's
  // bottom edge, so this frame's top is 200 px below the screens' top edge.
  Rect target{1700, 300, 700, 500};
  ASSERT_TRUE(windows.setFrame(info.id, target));
  std::optional<WindowInfo> now;
  EXPECT_TRUE(SpinUntil(
      [&] {
        now = windows.window(info.id);
        return now && Near(now->frame, target);
      },
      10))
      << (now ? RectText(now->frame) : "gone");
  bool listed = false;
  for (const WindowInfo& normal : windows.normalWindows())
    listed = listed || (normal.id == info.id && Near(normal.frame, target));
  EXPECT_TRUE(listed);
}

TEST(KWinWindowsSessionTest, ActivateBringsAWindowToTheFrontAndFullScreenIsLeft) {
  auto bus = SessionBusConnection();
  KWinScripting scripting(bus.get());
  KWinWindows windows(scripting);
  KWinFrontWindows front(scripting);
  NativeWindow first(UniqueTitle("first"));
  ASSERT_TRUE(first.mapped());
  NativeWindow second(UniqueTitle("second"));
  ASSERT_TRUE(second.mapped());
  ASSERT_TRUE(FrontWindowOf(front, second.pid()));
  auto listed = windows.windowsOfPid(first.pid());
  ASSERT_TRUE(listed && listed->size() == 1);
  unsigned long id = listed->front().id;
  EXPECT_TRUE(windows.activate(id));
  EXPECT_TRUE(FrontWindowOf(front, first.pid()));

  auto internal_id = scripting.internalIdOf(id);
  ASSERT_TRUE(internal_id);
  ASSERT_TRUE(scripting.query("      find(" + ScriptString(*internal_id) +
                              ").fullScreen = true;\n      return true;"));
  ASSERT_TRUE(SpinUntil([&] {
    auto now = windows.window(id);
    return now && now->full_screen;
  }));
  EXPECT_TRUE(windows.leaveFullScreen(id));
  EXPECT_TRUE(SpinUntil([&] {
    auto now = windows.window(id);
    return now && !now->full_screen;
  }));
  EXPECT_FALSE(windows.activate(987654));
  EXPECT_EQ(windows.window(987654), std::nullopt);
}

TEST(KWinWindowsSessionTest, TheProcessesOfAnApplicationByItsClass) {
  auto bus = SessionBusConnection();
  KWinScripting scripting(bus.get());
  KWinWindows windows(scripting);
  NativeWindow window(UniqueTitle("app"));
  ASSERT_TRUE(window.mapped());
  std::vector<int> pids;
  EXPECT_TRUE(SpinUntil([&] {
    pids = windows.pidsOfApplication("orvane-kwin-native");
    return std::find(pids.begin(), pids.end(), window.pid()) != pids.end();
  }));
  EXPECT_TRUE(windows.pidsOfApplication("no-such-application").empty());
  EXPECT_EQ(windows.windowsOfPid(999999), std::nullopt);
}

// The portal's hotkeys need this process in an app scope of Orvane.
class PortalHotkeysSessionTest : public ::testing::Test {
protected:
  void SetUp() override {
    ASSERT_TRUE(EnsureAppScope(bus.get()))
        << "not in an app-com.tarnwick.orvane-*.scope (run under tests/wayland/in-app-scope)";
  }
  std::vector<Hotkeys::Request> requests() {
    return {{"summon", "Summon Orvane", "<Alt>b", [this](uint32_t) { ++fired["summon"]; }},
            {"copy", "Copy into Orvane", "<Alt>c", [this](uint32_t) { ++fired["copy"]; }},
            {"quote", "Quote to Orvane", "<Alt>q", [this](uint32_t) { ++fired["quote"]; }},
            {"paste", "Paste from Orvane", "<Alt>v", [this](uint32_t) { ++fired["paste"]; }}};
  }
  void press(const std::string& chord) {
    const char* tool = getenv("ORVANE_FAKE_KEYS");
    ASSERT_TRUE(tool) << "ORVANE_FAKE_KEYS names no key presser";
    std::string command = std::string(tool) + " " + chord;
    int status = system(command.c_str());
    ASSERT_EQ(status, 0) << command;
  }

  GObjectPtr<GDBusConnection> bus = SessionBusConnection();
  std::map<std::string, int> fired;
};

TEST_F(PortalHotkeysSessionTest, TheFourAreBoundAndAltBFiresSummonWithANativeAppInFront) {
  PortalHotkeys hotkeys(bus.get());
  // The waits for the portal run none of the main loop's sources.
  bool ran = false;
  guint idle = g_idle_add(
      [](gpointer data) -> gboolean {
        *static_cast<bool*>(data) = true;
        return G_SOURCE_REMOVE;
      },
      &ran);
  EXPECT_EQ(hotkeys.bindAll(requests()), (std::vector<bool>{true, true, true, true}));
  EXPECT_FALSE(ran);
  if (!ran)
    g_source_remove(idle);
  ASSERT_FALSE(hotkeys.session().empty());

  NativeWindow window(UniqueTitle("keys"));
  ASSERT_TRUE(window.mapped());
  KWinScripting scripting(bus.get());
  KWinFrontWindows front(scripting);
  ASSERT_TRUE(FrontWindowOf(front, window.pid()));
  press("alt+b");
  EXPECT_TRUE(SpinUntil([&] { return fired["summon"] == 1; }, 10));
  press("alt+q");
  EXPECT_TRUE(SpinUntil([&] { return fired["quote"] == 1; }, 10));
  SpinFor(0.3);
  EXPECT_EQ(fired, (std::map<std::string, int>{{"summon", 1}, {"quote", 1}}));
  // The native application never saw the chords' letters.
  std::string keys = window.keys();
  EXPECT_EQ(keys.find("b\n"), std::string::npos) << keys;
  EXPECT_EQ(keys.find("q\n"), std::string::npos) << keys;
}

TEST_F(PortalHotkeysSessionTest, AnActivatedSignalFromAnotherPeerIsIgnored) {
  PortalHotkeys hotkeys(bus.get());
  ASSERT_EQ(hotkeys.bindAll(requests()), (std::vector<bool>{true, true, true, true}));
  auto peer = NewPeerConnection();
  ASSERT_TRUE(peer);
  const char* portal_path = "/org/freedesktop/portal/desktop";
  const char* interface = "org.freedesktop.portal.GlobalShortcuts";
  auto emit = [&](GVariant* parameters) {
    EXPECT_TRUE(g_dbus_connection_emit_signal(peer.get(), nullptr, portal_path, interface,
                                              "Activated", parameters, nullptr));
  };
  std::string session = hotkeys.session();
  emit(g_variant_new("(osta{sv})", session.c_str(), "summon", guint64(1), nullptr));
  emit(g_variant_new("(osta{sv})", session.c_str(), "unknown", guint64(1), nullptr));
  emit(g_variant_new("(s)", "summon"));
  g_dbus_connection_flush_sync(peer.get(), nullptr, nullptr);
  SpinFor(0.5);
  EXPECT_TRUE(fired.empty());
  // The real portal still reaches the handler.
  press("alt+v");
  EXPECT_TRUE(SpinUntil([&] { return fired["paste"] == 1; }, 10));
}

} // namespace
} // namespace orvane
