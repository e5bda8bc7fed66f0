// The GNOME backend's seams against the real extension in a headless GNOME
// Shell 43 session with two monitors (1600 x 1000 with the top bar, and
// 1280 x 800 to its right), native Wayland GTK clients, and keys pressed
// through the session's one remote-desktop keyboard.
#include "desktop/gnome/GnomeSeams.h"
#include "desktop/gnome/GnomeShell.h"

#include "support/MainLoop.h"
#include "support/NativeWindowProcess.h"
#include "support/TempDir.h"

#include <cmath>
#include <fstream>
#include <gtest/gtest.h>
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

std::string UniqueTitle(const std::string& what) {
  return "Orvane GNOME " + what + " " + std::to_string(g_random_int());
}

TEST(GnomeSessionTest, TheExtensionAnswersAndTheTwoMonitorsAreScreens) {
  auto bus = SessionBusConnection();
  GnomeShell shell(bus.get());
  std::optional<uint32_t> version = shell.version();
  ASSERT_TRUE(version);
  EXPECT_EQ(*version, 1u);
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
  GCharPtr address(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SESSION, nullptr, nullptr));
  auto other = GObjectPtr<GDBusConnection>::adopt(g_dbus_connection_new_for_address_sync(
      address.get(),
      GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                           G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, nullptr));
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

} // namespace
} // namespace orvane
