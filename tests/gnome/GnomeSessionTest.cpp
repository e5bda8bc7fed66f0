// The GNOME backend's seams against the real extension in a headless GNOME
// Shell 43 session with two monitors (1600 x 1000 with the top bar, and
// 1280 x 800 to its right), native Wayland GTK clients, and keys pressed
// through the session's one remote-desktop keyboard.
#include "desktop/gnome/GnomeSeams.h"
#include "desktop/gnome/GnomeShell.h"

#include "support/MainLoop.h"
#include "support/NativeWindowProcess.h"
#include "support/PeerConnection.h"
#include "support/TempDir.h"

#include <cmath>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <signal.h>
#include <sys/wait.h>

namespace orvane {
namespace {

GObjectPtr<GDBusConnection> SessionBusConnection() {
  return GObjectPtr<GDBusConnection>::adopt(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr));
}

// Presses a chord through the session's keyboard.
void Press(const std::string& chord) {
  std::ofstream fifo(getenv("ORVANE_GNOME_KEYS"));
  fifo << chord << "\n";
}

// Moves the second monitor `dy` pixels down for this session only, through
// mutter's display configuration (as GNOME's Settings does).
bool MoveSecondMonitor(GDBusConnection* bus, int dy) {
  auto call = [&](const char* method, GVariant* parameters) {
    return GVariantPtr(g_dbus_connection_call_sync(
        bus, "org.gnome.Mutter.DisplayConfig", "/org/gnome/Mutter/DisplayConfig",
        "org.gnome.Mutter.DisplayConfig", method, parameters, nullptr, G_DBUS_CALL_FLAGS_NONE,
        10000, nullptr, nullptr));
  };
  GVariantPtr state = call("GetCurrentState", nullptr);
  if (!state)
    return false;
  guint32 serial = 0;
  GVariantIter* monitors = nullptr;
  GVariantIter* logical = nullptr;
  g_variant_get(state.get(), "(ua((ssss)a(siiddada{sv})a{sv})a(iiduba(ssss)a{sv})a{sv})", &serial,
                &monitors, &logical, nullptr);
  // Each connector's current mode.
  std::map<std::string, std::string> modes;
  const gchar *connector = nullptr, *vendor = nullptr, *product = nullptr, *number = nullptr;
  GVariantIter* mode_list = nullptr;
  while (g_variant_iter_next(monitors, "((&s&s&s&s)a(siiddada{sv})@a{sv})", &connector, &vendor,
                             &product, &number, &mode_list, nullptr)) {
    GVariant* mode = nullptr;
    while ((mode = g_variant_iter_next_value(mode_list))) {
      const gchar* id = nullptr;
      GVariant* properties = nullptr;
      g_variant_get(mode, "(&siiddad@a{sv})", &id, nullptr, nullptr, nullptr, nullptr, nullptr,
                    &properties);
      gboolean current = FALSE;
      if (g_variant_lookup(properties, "is-current", "b", &current) && current)
        modes[connector] = id;
      g_variant_unref(properties);
      g_variant_unref(mode);
    }
    g_variant_iter_free(mode_list);
  }
  GVariantBuilder layout;
  g_variant_builder_init(&layout, G_VARIANT_TYPE("a(iiduba(ssa{sv}))"));
  gint32 x = 0, y = 0;
  gdouble scale = 1;
  guint32 transform = 0;
  gboolean primary = FALSE;
  GVariantIter* monitor_ids = nullptr;
  while (g_variant_iter_next(logical, "(iiduba(ssss)@a{sv})", &x, &y, &scale, &transform, &primary,
                             &monitor_ids, nullptr)) {
    const gchar *connector_name = nullptr, *a = nullptr, *b = nullptr, *c = nullptr;
    g_variant_iter_next(monitor_ids, "(&s&s&s&s)", &connector_name, &a, &b, &c);
    GVariantBuilder assigned;
    g_variant_builder_init(&assigned, G_VARIANT_TYPE("a(ssa{sv})"));
    g_variant_builder_add(&assigned, "(ss@a{sv})", connector_name, modes[connector_name].c_str(),
                          g_variant_new_array(G_VARIANT_TYPE("{sv}"), nullptr, 0));
    g_variant_builder_add(&layout, "(iidub@a(ssa{sv}))", x, primary ? y : y + dy, scale, transform,
                          primary, g_variant_builder_end(&assigned));
    g_variant_iter_free(monitor_ids);
  }
  g_variant_iter_free(monitors);
  g_variant_iter_free(logical);
  // 1: temporary, not written to monitors.xml.
  return bool(call("ApplyMonitorsConfig",
                   g_variant_new("(uu@a(iiduba(ssa{sv}))@a{sv})", serial, 1u,
                                 g_variant_builder_end(&layout),
                                 g_variant_new_array(G_VARIANT_TYPE("{sv}"), nullptr, 0))));
}

std::string UniqueTitle(const std::string& what) {
  return "Orvane GNOME " + what + " " + std::to_string(g_random_int());
}

TEST(GnomeSessionTest, TheExtensionAnswersAndTheTwoMonitorsAreScreens) {
  auto bus = SessionBusConnection();
  GnomeShell shell(bus.get());
  std::optional<uint32_t> version = shell.version();
  ASSERT_TRUE(version);
  EXPECT_EQ(*version, GnomeShell::kMonitorsChangedVersion);
  GnomeAccessibility accessibility(shell, "");
  EXPECT_TRUE(accessibility.isTrusted());
  GnomeScreens screens(shell);
  std::vector<Screen> list = screens.screens();
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0].frame, (Rect{0, 0, 1600, 1000}));
  // The top bar: 32 px off the primary's top.
  EXPECT_EQ(list[0].visibleFrame, (Rect{0, 0, 1600, 968}));
  EXPECT_EQ(list[1].frame, (Rect{1600, 200, 1280, 800}));
  Point pointer = screens.mouseLocation();
  EXPECT_TRUE(list[0].frame.contains(pointer) || list[1].frame.contains(pointer));
}

TEST(GnomeSessionTest, AnotherPeerIsRefusedAndSoNotTrusted) {
  auto other = NewPeerConnection();
  ASSERT_TRUE(other);
  GnomeShell shell(other.get());
  GnomeAccessibility accessibility(shell, "");
  EXPECT_FALSE(accessibility.isTrusted());
  EXPECT_NE(accessibility.reasonNotTrusted().find("does not answer"), std::string::npos);
}

TEST(GnomeSessionTest, ANativeClientInFrontIsReportedAndMovesOntoTheSecondMonitor) {
  auto bus = SessionBusConnection();
  GnomeShell shell(bus.get());
  GnomeFrontWindows front(shell);
  GnomeWindows windows(shell);
  std::string title = UniqueTitle("front");
  NativeWindow window(title);
  ASSERT_TRUE(window.mapped());
  std::optional<FrontWindow> seen = FrontWindowOf(front, window.pid());
  ASSERT_TRUE(seen);
  EXPECT_EQ(seen->title, title);
  EXPECT_EQ(seen->wm_class, "orvane-kwin-native");
  ASSERT_TRUE(seen->frame);
  EXPECT_GT(seen->frame->width, 0);

  std::optional<std::vector<WindowInfo>> mine = windows.windowsOfPid(window.pid());
  ASSERT_TRUE(mine);
  ASSERT_EQ(mine->size(), 1u);
  EXPECT_EQ((*mine)[0].id, seen->id);
  EXPECT_EQ(windows.pidsOfApplication("orvane-kwin-native"), (std::vector<int>{window.pid()}));
  // The second monitor is x 1600-2880; desktop y counts up from the
  // primary's bottom edge.
  Rect target{1700, 300, 700, 500};
  ASSERT_TRUE(windows.setFrame(seen->id, target));
  std::optional<WindowInfo> now;
  EXPECT_TRUE(SpinUntil(
      [&] {
        now = windows.window(seen->id);
        return now && Near(now->frame, target);
      },
      10))
      << (now ? RectText(now->frame) : "gone");
  EXPECT_TRUE(windows.activate(seen->id));
  EXPECT_FALSE(windows.activate(0xfffffffffffull));
}

TEST(GnomeSessionTest, AltBFiresSummonWithANativeAppInFrontThatSeesNoB) {
  auto bus = SessionBusConnection();
  GnomeShell shell(bus.get());
  GnomeFrontWindows front(shell);
  GnomeHotkeys hotkeys(shell);
  std::vector<std::string> fired;
  std::vector<Hotkeys::Request> requests;
  for (const char* name : {"summon", "quote", "friend-quote", "talk"})
    requests.push_back({name, "d", "", [&fired, name](uint32_t) { fired.push_back(name); }});
  EXPECT_EQ(hotkeys.bindAll(requests), (std::vector<bool>{true, true, true, true}));
  NativeWindow window(UniqueTitle("keys"));
  ASSERT_TRUE(window.mapped());
  ASSERT_TRUE(FrontWindowOf(front, window.pid()));
  Press("alt+b");
  ASSERT_TRUE(SpinUntil([&] { return !fired.empty(); }, 10));
  Press("alt+v");
  ASSERT_TRUE(SpinUntil([&] { return fired.size() >= 2; }, 10));
  SpinFor(0.3);
  EXPECT_EQ(fired, (std::vector<std::string>{"summon", "talk"}));
  EXPECT_EQ(window.keys().find("b\n"), std::string::npos) << window.keys();
}

// Last: the layout it changes and puts back is a reconfiguration of the
// shell the other tests need not see.
TEST(GnomeSessionTest, TheScreensFollowAChangedLayout) {
  auto bus = SessionBusConnection();
  GnomeShell shell(bus.get());
  GnomeScreens screens(shell);
  // Once the shell's owner is known, the answer is kept.
  SpinFor(0.2);
  ASSERT_EQ(screens.screens().size(), 2u);
  ASSERT_EQ(screens.screens()[1].frame, (Rect{1600, 200, 1280, 800}));
  ASSERT_TRUE(MoveSecondMonitor(bus.get(), 100));
  std::vector<Screen> now;
  EXPECT_TRUE(SpinUntil(
      [&] {
        now = screens.screens();
        return now.size() == 2 && now[1].frame == Rect{1600, 100, 1280, 800};
      },
      10))
      << (now.size() == 2 ? RectText(now[1].frame) : "not two screens");
  ASSERT_TRUE(MoveSecondMonitor(bus.get(), -100));
  EXPECT_TRUE(SpinUntil(
      [&] {
        now = screens.screens();
        return now.size() == 2 && now[1].frame == Rect{1600, 200, 1280, 800};
      },
      10));
}

} // namespace
} // namespace orvane
