// The KDE Plasma backend's classes on a real session bus where none of
// their services runs (no desktop portal, no systemd user manager, no KWin):
// each answers "nothing" at once and says why in one log line.
#include "desktop/kwin/AppScope.h"
#include "desktop/kwin/KWinScripting.h"
#include "desktop/kwin/KWinWindows.h"
#include "desktop/kwin/PortalHotkeys.h"

#include "support/LogCapture.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

namespace orvane {
namespace {

GObjectPtr<GDBusConnection> Bus() {
  return GObjectPtr<GDBusConnection>::adopt(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr));
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

} // namespace
} // namespace orvane
