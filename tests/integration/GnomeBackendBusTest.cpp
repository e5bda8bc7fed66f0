// The GNOME backend against a stand-in for GNOME Shell and Orvane's
// extension on the test's private session bus (support/StandInShell.h):
// well-formed answers become the seams' values in desktop coordinates;
// hostile ones (wrong types, huge lists, frames out of range, a peer that
// never answers, signals from a forging peer) become one logged failure and
// nothing else.
#include "desktop/ApplicationNames.h"
#include "desktop/gnome/GnomeBackend.h"
#include "desktop/gnome/GnomeSeams.h"
#include "desktop/gnome/GnomeShell.h"

#include "support/LogCapture.h"
#include "support/MainLoop.h"
#include "support/PeerConnection.h"
#include "support/StandInShell.h"

#include <cmath>
#include <gtest/gtest.h>
#include <unistd.h>

namespace orvane {
namespace {

GObjectPtr<GDBusConnection> Bus() {
  return GObjectPtr<GDBusConnection>::adopt(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr));
}

const char* const kMonitors =
    "([(0, 0, 1600, 1000, 0, 32, 1600, 968), (1600, 0, 1280, 800, 1600, 0, 1280, 800)], 0)";

std::string WindowText(uint64_t id, int pid, const std::string& title, int x, int y, int width,
                       int height, bool normal = true, const std::string& wm_class = "Evince") {
  return "{'id': <uint64 " + std::to_string(id) + ">, 'pid': <" + std::to_string(pid) +
         ">, 'wm_class': <'" + wm_class + "'>, 'wm_instance': <'" + LowerAscii(wm_class) +
         "'>, 'app_id': <'" + (wm_class == "Evince" ? "org.gnome.Evince" : "") + "'>, 'title': <'" +
         title + "'>, 'x': <" + std::to_string(x) + ">, 'y': <" + std::to_string(y) +
         ">, 'width': <" + std::to_string(width) + ">, 'height': <" + std::to_string(height) +
         ">, 'normal': <" + (normal ? "true" : "false") +
         ">, 'full_screen': <false>, 'maximized': <false>, 'focused': <true>, "
         "'on_active_workspace': <true>}";
}

GnomeShell::Options Quick() {
  GnomeShell::Options options;
  options.call_seconds = 0.5;
  options.slow_call_seconds = 0.5;
  return options;
}

TEST(GnomeBackendBusTest, TheStandInServesTheInterfaceOfTheSourceTree) {
  StandInShell shell;
  EXPECT_TRUE(shell.registered());
}

TEST(GnomeBackendBusTest, WindowsComeInDesktopCoordinatesOfThePrimaryMonitor) {
  StandInShell stand_in;
  stand_in.answer("Monitors", kMonitors);
  stand_in.answer("ListWindows", "([" + WindowText(7, 4242, "Paper", 100, 200, 400, 300) + ", " +
                                     WindowText(8, 4243, "Menu", 0, 0, 10, 10, false) + "],)");
  stand_in.answer("FrontWindow", "(" + WindowText(9, 77, "Front", 1700, 100, 500, 400) + ",)");
  auto bus = Bus();
  GnomeShell shell(bus.get(), Quick());
  GnomeWindows windows(shell);
  std::vector<WindowInfo> normal = windows.normalWindows();
  ASSERT_EQ(normal.size(), 1u);
  EXPECT_EQ(normal[0].id, 7u);
  EXPECT_EQ(normal[0].pid, 4242);
  EXPECT_EQ(normal[0].title, "Paper");
  EXPECT_EQ(normal[0].wm_class, "Evince");
  EXPECT_EQ(normal[0].wm_instance, "evince");
  EXPECT_EQ(normal[0].frame, (Rect{100, 500, 400, 300}));

  GnomeFrontWindows front(shell);
  std::optional<FrontWindow> in_front = front.frontWindow();
  ASSERT_TRUE(in_front);
  EXPECT_EQ(in_front->id, 9u);
  EXPECT_EQ(in_front->pid, 77);
  EXPECT_EQ(in_front->title, "Front");
  EXPECT_EQ(in_front->frame, (Rect{1700, 500, 500, 400}));

  GnomeScreens screens(shell);
  std::vector<Screen> list = screens.screens();
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0], (Screen{0, {0, 0, 1600, 1000}, {0, 0, 1600, 968}}));
  EXPECT_EQ(list[1], (Screen{1, {1600, 200, 1280, 800}, {1600, 200, 1280, 800}}));
}

TEST(GnomeBackendBusTest, ThePrimaryComesFirstWhereverTheShellListsIt) {
  StandInShell stand_in;
  stand_in.answer("Monitors",
                  "([(0, 0, 1280, 800, 0, 0, 1280, 800), (1280, 0, 1600, 1000, 1280, 0, 1600, "
                  "1000)], 1)");
  stand_in.answer("Pointer", "(1380, 100)");
  auto bus = Bus();
  GnomeShell shell(bus.get(), Quick());
  GnomeScreens screens(shell);
  std::vector<Screen> list = screens.screens();
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0].frame, (Rect{0, 0, 1600, 1000}));
  EXPECT_EQ(list[1].frame, (Rect{-1280, 200, 1280, 800}));
  EXPECT_EQ(screens.mouseLocation(), (Point{100, 900}));
}

TEST(GnomeBackendBusTest, AFrameIsSentInTheShellsCoordinatesAndTheAnswerCounts) {
  StandInShell stand_in;
  stand_in.answer("Monitors", kMonitors);
  stand_in.answer("MoveResize", "(true, " + WindowText(7, 1, "P", 1700, 100, 500, 400) + ")");
  stand_in.answer("Activate", "(true,)");
  stand_in.answer("LeaveFullScreen", "(false,)");
  auto bus = Bus();
  GnomeShell shell(bus.get(), Quick());
  GnomeWindows windows(shell);
  EXPECT_TRUE(windows.setFrame(7, Rect{1700, 500, 500, 400}));
  EXPECT_TRUE(windows.activate(7, 1234));
  EXPECT_FALSE(windows.leaveFullScreen(7));
  std::vector<std::string> calls = stand_in.calls();
  EXPECT_NE(std::find(calls.begin(), calls.end(), "MoveResize (7, 1700, 100, 500, 400)"),
            calls.end());
  EXPECT_NE(std::find(calls.begin(), calls.end(), "Activate (7, 1234)"), calls.end());
  // A frame out of range is never sent.
  stand_in.clearCalls();
  EXPECT_FALSE(windows.setFrame(7, Rect{1e9, 0, 100, 100}));
  EXPECT_FALSE(windows.setFrame(7, Rect{0, 0, std::nan(""), 100}));
  EXPECT_EQ(stand_in.callsOf("MoveResize"), 0u);
}

TEST(GnomeBackendBusTest, AnAnswerOfTheWrongTypeIsALoggedFailure) {
  LogCapture log;
  StandInShell stand_in;
  stand_in.answer("Monitors", "([(0, 0, 1600, 1000)], 0)");
  stand_in.answer("FrontWindow", "('not a window',)");
  stand_in.answer("PrimaryText", "(uint32 5,)");
  auto bus = Bus();
  GnomeShell shell(bus.get(), Quick());
  GnomeScreens screens(shell);
  EXPECT_TRUE(screens.screens().empty());
  EXPECT_FALSE(shell.lastCallWorked());
  GnomeFrontWindows front(shell);
  EXPECT_EQ(front.frontWindow(), std::nullopt);
  GnomeSelections selections(shell);
  EXPECT_EQ(selections.primaryText(), std::nullopt);
  std::vector<std::string> lines = log.messages();
  ASSERT_GE(lines.size(), 1u);
  // Repeats within a second are held back.
  EXPECT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].rfind("gnome: Monitors failed: ", 0), 0u) << lines[0];
  EXPECT_NE(lines[0].find("(a(iiii)i)"), std::string::npos) << lines[0];
  EXPECT_NE(lines[0].find("(a(iiiiiiii)i)"), std::string::npos) << lines[0];
}

TEST(GnomeBackendBusTest, HostileWindowListsAreRefusedOrFiltered) {
  LogCapture log;
  StandInShell stand_in;
  stand_in.answer("Monitors", kMonitors);
  // One window out of range, one with a string pid, one fine.
  std::string bad_type = WindowText(3, 1, "B", 0, 0, 10, 10);
  bad_type.replace(bad_type.find("'pid': <1>"), 10, "'pid': <'1'>");
  stand_in.answer("ListWindows", "([" + WindowText(1, 1, "Far", 2000000, 0, 10, 10) + ", " +
                                     bad_type + ", " + WindowText(2, 1, "Good", 0, 0, 10, 10) +
                                     ", " + WindowText(4, 1, "Flat", 0, 0, 10, 0) + "],)");
  auto bus = Bus();
  // The stand-in takes a while to read the huge list below.
  GnomeShell::Options options;
  options.call_seconds = 20;
  GnomeShell shell(bus.get(), options);
  GnomeWindows windows(shell);
  std::vector<WindowInfo> normal = windows.normalWindows();
  ASSERT_EQ(normal.size(), 1u);
  EXPECT_EQ(normal[0].title, "Good");
  ASSERT_FALSE(log.messages().empty());
  EXPECT_NE(log.messages()[0].find("gnome: ListWindows: 2 window(s) of the answer were left out"),
            std::string::npos)
      << log.messages()[0];

  // More windows than any desktop has: the whole list is refused.
  std::string huge = "([";
  for (size_t i = 0; i <= kShellMaxWindows; ++i)
    huge += (i ? ", " : "") + WindowText(i + 1, 1, "W", 0, 0, 10, 10);
  huge += "],)";
  stand_in.answer("ListWindows", huge);
  g_usleep(1100000); // past the log's one-second hold
  EXPECT_TRUE(windows.normalWindows().empty());
  EXPECT_NE(log.messages().back().find("a window list that is not a list of at most 10000"),
            std::string::npos)
      << log.messages().back();
}

TEST(GnomeBackendBusTest, ImpossibleMonitorsAndPointerAreRefused) {
  StandInShell stand_in;
  auto bus = Bus();
  GnomeShell shell(bus.get(), Quick());
  for (const char* hostile :
       {"(@a(iiiiiiii) [], 0)", "([(0, 0, 1600, 1000, 0, 0, 1600, 1000)], 1)",
        "([(0, 0, 1600, 1000, 0, 0, 1600, 1000)], -1)", "([(0, 0, 0, 1000, 0, 0, 1600, 1000)], 0)",
        "([(0, 0, 1600, 1000, 0, 0, 1600, -5)], 0)",
        "([(2000000, 0, 1600, 1000, 0, 0, 1600, 1000)], 0)"}) {
    stand_in.answer("Monitors", hostile);
    EXPECT_EQ(shell.monitors(), std::nullopt) << hostile;
  }
  std::string many = "([";
  for (size_t i = 0; i <= kShellMaxMonitors; ++i)
    many += std::string(i ? ", " : "") + "(0, 0, 10, 10, 0, 0, 10, 10)";
  stand_in.answer("Monitors", many + "], 0)");
  EXPECT_EQ(shell.monitors(), std::nullopt);
  stand_in.answer("Pointer", "(-2000000, 5)");
  EXPECT_EQ(shell.pointer(), std::nullopt);
}

TEST(GnomeBackendBusTest, SelectionsTravelUnchangedAndAHostileClipboardIsRefused) {
  StandInShell stand_in;
  stand_in.answer("PrimaryText", "(true, 'selected words')");
  stand_in.answer("ClipboardText", "(false, '')");
  stand_in.answer("ClipboardChangeCount", "(uint64 41,)");
  stand_in.answer("SaveClipboard",
                  "([('text/plain;charset=utf-8', [byte 0x68, 0x69]), ('image/png', [byte 0x89, "
                  "0x00, 0xff])],)");
  stand_in.answer("RestoreClipboard", "(true,)");
  stand_in.answer("SendCopyChord", "(true,)");
  auto bus = Bus();
  GnomeShell shell(bus.get(), Quick());
  GnomeSelections selections(shell);
  EXPECT_FALSE(selections.tellsPrimaryOwner());
  EXPECT_EQ(selections.primaryOwnerPid(), std::nullopt);
  EXPECT_EQ(selections.primaryText(), std::optional<std::string>("selected words"));
  EXPECT_EQ(selections.clipboardText(), std::nullopt);
  EXPECT_EQ(selections.clipboardChangeCount(), 41u);
  ClipboardContents saved = selections.saveClipboard();
  ASSERT_EQ(saved.size(), 2u);
  EXPECT_EQ(saved[0], (SelectionTarget{"text/plain;charset=utf-8", "hi"}));
  EXPECT_EQ(saved[1], (SelectionTarget{"image/png", std::string("\x89\x00\xff", 3)}));
  stand_in.clearCalls();
  selections.restoreClipboard(saved);
  EXPECT_TRUE(selections.sendCopyChord(CopyChord::kControlShiftC));
  EXPECT_TRUE(selections.sendCopyChord(CopyChord::kControlC));
  EXPECT_EQ(stand_in.calls(), (std::vector<std::string>{
                                  "RestoreClipboard ([('text/plain;charset=utf-8', [0x68, 0x69]), "
                                  "('image/png', [0x89, 0x00, 0xff])],)",
                                  "SendCopyChord ('ctrl-shift-c',)", "SendCopyChord ('ctrl-c',)"}));

  stand_in.answer("SaveClipboard", "([('', [byte 0x78])],)");
  EXPECT_TRUE(selections.saveClipboard().empty());
  std::string many = "([";
  for (size_t i = 0; i <= kShellMaxClipboardTypes; ++i)
    many += std::string(i ? ", " : "") + "('t" + std::to_string(i) + "', [byte 0x78])";
  stand_in.answer("SaveClipboard", many + "],)");
  EXPECT_TRUE(selections.saveClipboard().empty());
}

TEST(GnomeBackendBusTest, AShellThatNeverAnswersCostsTheTimeLimitAndRunsNoOtherSource) {
  LogCapture log;
  StandInShell stand_in;
  stand_in.answer("FrontWindow", "@hold");
  auto bus = Bus();
  GnomeShell shell(bus.get(), Quick());
  GnomeFrontWindows front(shell);
  bool ran = false;
  guint idle = g_idle_add(
      [](gpointer data) -> gboolean {
        *static_cast<bool*>(data) = true;
        return G_SOURCE_REMOVE;
      },
      &ran);
  gint64 start = g_get_monotonic_time();
  EXPECT_EQ(front.frontWindow(), std::nullopt);
  double seconds = (g_get_monotonic_time() - start) / 1e6;
  EXPECT_GE(seconds, 0.4);
  EXPECT_LT(seconds, 5.0);
  EXPECT_FALSE(ran);
  if (!ran)
    g_source_remove(idle);
  ASSERT_EQ(log.messages().size(), 1u);
  EXPECT_EQ(log.messages()[0].rfind("gnome: FrontWindow failed: ", 0), 0u) << log.messages()[0];
}

TEST(GnomeBackendBusTest, TrustFollowsTheExtensionAndIsKeptWhileCallsWork) {
  StandInShell stand_in;
  auto bus = Bus();
  GnomeShell shell(bus.get(), Quick());
  GnomeAccessibility accessibility(shell, "");
  // GNOME Shell answers, the extension does not.
  EXPECT_FALSE(accessibility.isTrusted());
  std::string reason = accessibility.reasonNotTrusted();
  EXPECT_NE(reason.find("orvane@tarnwick.com) does not answer"), std::string::npos) << reason;
  EXPECT_NE(reason.find("log out and back in"), std::string::npos) << reason;
  EXPECT_NE(reason.find("orvane --capture-selection"), std::string::npos) << reason;

  stand_in.answer("Version", "(uint32 1,)");
  stand_in.answer("Monitors", kMonitors);
  EXPECT_TRUE(accessibility.isTrusted());
  EXPECT_EQ(accessibility.reasonNotTrusted(), "");
  size_t asked = stand_in.callsOf("Version");
  // While the calls work, trust costs no call.
  GnomeScreens screens(shell);
  EXPECT_EQ(screens.screens().size(), 2u);
  EXPECT_TRUE(accessibility.isTrusted());
  EXPECT_TRUE(accessibility.isTrusted());
  EXPECT_EQ(stand_in.callsOf("Version"), asked);
  // After a failed call it is asked again.
  stand_in.answer("Monitors", "@error");
  EXPECT_TRUE(screens.screens().empty());
  stand_in.answer("Version", "@error");
  EXPECT_FALSE(accessibility.isTrusted());
  EXPECT_EQ(stand_in.callsOf("Version"), asked + 1);
  // A version of the wrong type or 0 is no extension.
  stand_in.answer("Version", "('1',)");
  EXPECT_FALSE(accessibility.isTrusted());
  stand_in.answer("Version", "(uint32 0,)");
  EXPECT_FALSE(accessibility.isTrusted());
}

TEST(GnomeBackendBusTest, WithoutGnomeShellTheReasonSaysSo) {
  auto bus = Bus();
  GnomeShell shell(bus.get(), Quick());
  GnomeAccessibility accessibility(shell, "a note from the set-up");
  EXPECT_FALSE(accessibility.isTrusted());
  std::string reason = accessibility.reasonNotTrusted();
  EXPECT_NE(reason.find("GNOME Shell does not answer on the session bus"), std::string::npos)
      << reason;
  EXPECT_NE(reason.find("a note from the set-up."), std::string::npos) << reason;
}

TEST(GnomeBackendBusTest, HotkeysAreDispatchedByNameOnlyFromTheShellsOwner) {
  LogCapture log;
  StandInShell stand_in;
  stand_in.answer("BindHotkeys", "({'summon': true, 'quote': true, 'friend-quote': false},)");
  auto bus = Bus();
  GnomeShell shell(bus.get(), Quick());
  GnomeHotkeys hotkeys(shell);
  std::vector<std::string> fired;
  auto request = [&](const char* name) {
    return Hotkeys::Request{name, "d", "<Alt>x", [&fired, name](uint32_t timestamp) {
                              fired.push_back(std::string(name) + " " + std::to_string(timestamp));
                            }};
  };
  std::vector<bool> bound = hotkeys.bindAll(
      {request("summon"), request("quote"), request("friend-quote"), request("talk")});
  EXPECT_EQ(bound, (std::vector<bool>{true, true, false, false}));
  EXPECT_EQ(hotkeys.shellOwner(), stand_in.uniqueName());
  std::string me = g_dbus_connection_get_unique_name(bus.get());

  stand_in.emitHotkey(me, g_variant_new("(su)", "quote", 4321u));
  EXPECT_TRUE(SpinUntil([&] { return !fired.empty(); }, 5));
  EXPECT_EQ(fired, (std::vector<std::string>{"quote 4321"}));

  // A second connection on the same bus forges the signal: ignored.
  auto forger = NewPeerConnection();
  ASSERT_TRUE(forger);
  for (const char* destination : {me.c_str(), (const char*)nullptr})
    g_dbus_connection_emit_signal(forger.get(), destination, GnomeShell::kPath,
                                  GnomeShell::kInterface, "HotkeyPressed",
                                  g_variant_new("(su)", "summon", 1u), nullptr);
  g_dbus_connection_flush_sync(forger.get(), nullptr, nullptr);
  // The owner's own hostile signals: an unknown name, the wrong type.
  stand_in.emitHotkey(me, g_variant_new("(su)", "format-disk", 2u));
  stand_in.emitHotkey(me, g_variant_new("(si)", "summon", 3));
  stand_in.emitHotkey(me, g_variant_new("(su)", "talk", 99u));
  EXPECT_TRUE(SpinUntil([&] { return fired.size() >= 2; }, 5));
  SpinFor(0.2);
  EXPECT_EQ(fired, (std::vector<std::string>{"quote 4321", "talk 99"}));
  std::vector<std::string> lines = log.messages();
  ASSERT_FALSE(lines.empty());
  EXPECT_NE(lines[0].find("which is not GNOME Shell, was ignored"), std::string::npos) << lines[0];
}

TEST(GnomeBackendBusTest, WithoutTheExtensionEveryHotkeyFails) {
  LogCapture log;
  StandInShell stand_in;
  auto bus = Bus();
  GnomeShell shell(bus.get(), Quick());
  GnomeHotkeys hotkeys(shell);
  std::vector<bool> bound =
      hotkeys.bindAll({{"summon", "d", "<Alt>b", [](uint32_t) {}}, {"talk", "d", "<Alt>v", {}}});
  EXPECT_EQ(bound, (std::vector<bool>{false, false}));
  EXPECT_FALSE(hotkeys.bind("<Alt>b", [](uint32_t) {}));
  // The extension answers with an error: said in one line.
  ASSERT_EQ(log.messages().size(), 1u);
  EXPECT_EQ(
      log.messages()[0].rfind("hotkeys: Orvane's GNOME Shell extension does not bind them: ", 0),
      0u)
      << log.messages()[0];
  EXPECT_NE(log.messages()[0].find("the stand-in has no answer"), std::string::npos);
  // A hostile answer is the same failure.
  stand_in.answer("BindHotkeys", "({'summon': 'yes'},)");
  EXPECT_EQ(hotkeys.bindAll({{"summon", "d", "<Alt>b", [](uint32_t) {}}}),
            (std::vector<bool>{false}));
  EXPECT_EQ(log.messages().size(), 2u);
}

TEST(GnomeBackendBusTest, WithoutTheExtensionsObjectTheHotkeysFailWithoutALineOfTheirOwn) {
  LogCapture log;
  // A shell without the extension: nothing at the interface's path.
  StandInShell stand_in("org.gnome.Shell", /*serve_interface=*/false);
  auto bus = Bus();
  GnomeShell shell(bus.get(), Quick());
  GnomeHotkeys hotkeys(shell);
  EXPECT_EQ(hotkeys.bindAll({{"summon", "d", "<Alt>b", [](uint32_t) {}}}),
            (std::vector<bool>{false}));
  EXPECT_TRUE(log.messages().empty()) << log.messages()[0];
}

TEST(GnomeBackendBusTest, AShellThatRestartsGetsTheHotkeysBoundAgainAndOnlyItsSignalsCount) {
  LogCapture log;
  auto bus = Bus();
  GnomeShell shell(bus.get(), Quick());
  GnomeHotkeys hotkeys(shell);
  std::vector<uint32_t> fired;
  std::string me = g_dbus_connection_get_unique_name(bus.get());
  std::string first_owner;
  {
    StandInShell first;
    first.answer("BindHotkeys", "({'summon': true},)");
    EXPECT_EQ(hotkeys.bindAll({{"summon", "d", "<Alt>b",
                                [&](uint32_t timestamp) { fired.push_back(timestamp); }}}),
              (std::vector<bool>{true}));
    first_owner = first.uniqueName();
  }
  // The shell went: nobody's signals count until it is back.
  ASSERT_TRUE(SpinUntil([&] { return hotkeys.shellOwner().empty(); }, 5));
  StandInShell second;
  second.answer("BindHotkeys", "({'summon': true},)");
  ASSERT_TRUE(SpinUntil([&] { return second.callsOf("BindHotkeys") == 1; }, 5));
  EXPECT_EQ(hotkeys.shellOwner(), second.uniqueName());
  EXPECT_NE(second.uniqueName(), first_owner);
  second.emitHotkey(me, g_variant_new("(su)", "summon", 7u));
  ASSERT_TRUE(SpinUntil([&] { return !fired.empty(); }, 5));
  EXPECT_EQ(fired, (std::vector<uint32_t>{7}));
  std::vector<std::string> lines = log.messages();
  EXPECT_NE(std::find(lines.begin(), lines.end(),
                      "hotkeys: GNOME Shell restarted; the hotkeys were bound again"),
            lines.end());
}

const char* const kMovedMonitors =
    "([(0, 0, 1600, 1000, 0, 32, 1600, 968), (1600, 100, 1280, 800, 1600, 100, 1280, 800)], 0)";

// A stand-in shell whose extension has the given interface version and
// answers kMonitors, and the screens read through it once the watch of the
// shell's owner has reported (nothing is asked before the loop runs).
struct ScreensOfAStandIn {
  explicit ScreensOfAStandIn(unsigned version) {
    stand_in.answer("Version", "(uint32 " + std::to_string(version) + ",)");
    stand_in.answer("Monitors", kMonitors);
    SpinFor(0.2);
  }
  StandInShell stand_in;
  GObjectPtr<GDBusConnection> bus = Bus();
  GnomeShell shell{bus.get(), Quick()};
  GnomeScreens screens{shell};
};

TEST(GnomeBackendBusTest, MonitorsAreKeptUntilTheShellSaysTheyChanged) {
  LogCapture log;
  ScreensOfAStandIn kept(2);
  auto& [stand_in, bus, shell, screens] = kept;
  for (int i = 0; i < 5; ++i)
    ASSERT_EQ(screens.screens().size(), 2u);
  EXPECT_EQ(stand_in.callsOf("Monitors"), 1u);
  EXPECT_EQ(stand_in.callsOf("Version"), 1u);
  std::string me = g_dbus_connection_get_unique_name(bus.get());

  // Another peer's MonitorsChanged is ignored, and said.
  auto forger = NewPeerConnection();
  ASSERT_TRUE(forger);
  stand_in.answer("Monitors", kMovedMonitors);
  g_dbus_connection_emit_signal(forger.get(), me.c_str(), GnomeShell::kPath, GnomeShell::kInterface,
                                "MonitorsChanged", nullptr, nullptr);
  g_dbus_connection_flush_sync(forger.get(), nullptr, nullptr);
  SpinFor(0.2);
  EXPECT_EQ(screens.screens()[1].frame.y, 200); // 1000 - (0 + 800)
  EXPECT_EQ(stand_in.callsOf("Monitors"), 1u);
  std::vector<std::string> lines = log.messages();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].rfind("gnome: MonitorsChanged failed: a signal from ", 0), 0u) << lines[0];

  // The shell's own is taken: the next question asks again.
  stand_in.emitSignal(me, "MonitorsChanged", nullptr);
  EXPECT_TRUE(SpinUntil([&] { return screens.screens()[1].frame.y == 100; }, 5));
  EXPECT_EQ(stand_in.callsOf("Monitors"), 2u);
  screens.screens();
  EXPECT_EQ(stand_in.callsOf("Monitors"), 2u);

  // A failed call drops them too.
  stand_in.answer("FrontWindow", "@error");
  GnomeFrontWindows front(shell);
  EXPECT_EQ(front.frontWindow(), std::nullopt);
  screens.screens();
  EXPECT_EQ(stand_in.callsOf("Monitors"), 3u);
}

TEST(GnomeBackendBusTest, AnOlderExtensionsMonitorsAreAskedEveryTime) {
  ScreensOfAStandIn asked(1);
  auto& [stand_in, bus, shell, screens] = asked;
  for (int i = 0; i < 3; ++i)
    ASSERT_EQ(screens.screens().size(), 2u);
  EXPECT_EQ(stand_in.callsOf("Monitors"), 3u);
  EXPECT_EQ(stand_in.callsOf("Version"), 1u);
}

TEST(GnomeBackendBusTest, AShellThatRestartsTakesTheKeptMonitorsAlong) {
  auto bus = Bus();
  GnomeShell shell(bus.get(), Quick());
  GnomeScreens screens(shell);
  {
    StandInShell first;
    first.answer("Version", "(uint32 2,)");
    first.answer("Monitors", kMonitors);
    ASSERT_TRUE(SpinUntil([&] { return screens.screens().size() == 2; }, 5));
    SpinFor(0.2);
    size_t asked = first.callsOf("Monitors");
    screens.screens();
    screens.screens();
    screens.screens();
    EXPECT_EQ(first.callsOf("Monitors"), asked + 1);
  }
  StandInShell second;
  second.answer("Version", "(uint32 2,)");
  second.answer("Monitors", kMovedMonitors);
  EXPECT_TRUE(SpinUntil(
      [&] {
        std::vector<Screen> now = screens.screens();
        return now.size() == 2 && now[1].frame.y == 100;
      },
      5));
}

TEST(GnomeBackendBusTest, TheWindowsOfAPidAndTheApplicationsPids) {
  StandInShell stand_in;
  stand_in.answer("Monitors", kMonitors);
  int me = int(getpid());
  // The answer for this pid carries a window of another process: dropped.
  stand_in.answer("WindowsOfPid", "([" + WindowText(5, me, "Mine", 0, 0, 100, 100) + ", " +
                                      WindowText(6, me + 1, "Not mine", 0, 0, 100, 100) + "],)");
  stand_in.answer("ListWindows",
                  "([" + WindowText(5, 300, "A", 0, 0, 100, 100, true, "Evince") + ", " +
                      WindowText(6, 301, "B", 0, 0, 100, 100, true, "XTerm") + ", " +
                      WindowText(7, 300, "C", 0, 0, 100, 100, true, "Evince") + "],)");
  stand_in.answer("Window", "(@a{sv} {},)");
  auto bus = Bus();
  GnomeShell shell(bus.get(), Quick());
  GnomeWindows windows(shell);
  std::optional<std::vector<WindowInfo>> mine = windows.windowsOfPid(me);
  ASSERT_TRUE(mine);
  ASSERT_EQ(mine->size(), 1u);
  EXPECT_EQ((*mine)[0].title, "Mine");
  EXPECT_EQ(windows.windowsOfPid(0), std::nullopt);
  // Matched by WM_CLASS and by the app id.
  EXPECT_EQ(windows.pidsOfApplication("evince"), (std::vector<int>{300}));
  EXPECT_EQ(windows.pidsOfApplication("org.gnome.Evince.desktop"), (std::vector<int>{300}));
  EXPECT_EQ(windows.pidsOfApplication("xterm"), (std::vector<int>{301}));
  EXPECT_TRUE(windows.pidsOfApplication("").empty());
  // The shell's "no such window".
  EXPECT_EQ(windows.window(12), std::nullopt);
  EXPECT_TRUE(shell.lastCallWorked());
}

TEST(GnomeBackendBusTest, TheBackendIsGnomesAndLacksMeansWithoutTheExtension) {
  {
    StandInShell stand_in;
    auto bus = Bus();
    GnomeBackend backend(bus.get(), false, nullptr);
    EXPECT_EQ(backend.description(), "GNOME (Wayland)");
    EXPECT_TRUE(backend.lacksMeans());
    EXPECT_FALSE(backend.makeAccessibility()->isTrusted());
  }
  StandInShell stand_in;
  stand_in.answer("Version", "(uint32 1,)");
  auto bus = Bus();
  GnomeBackend backend(bus.get(), false, nullptr);
  EXPECT_FALSE(backend.lacksMeans());
  EXPECT_TRUE(backend.makeAccessibility()->isTrusted());
}

} // namespace
} // namespace orvane
