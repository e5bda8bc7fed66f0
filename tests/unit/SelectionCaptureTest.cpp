#include "capture/SelectionCapture.h"
#include "capture/CopyChords.h"
#include "capture/DesktopCapture.h"
#include "capture/HotkeyTable.h"

#include "support/FakeAccessibility.h"
#include "support/FakeCaptureDesktop.h"
#include "support/FakeFrontWindows.h"
#include "support/FakeNotifications.h"
#include "support/FakeScreens.h"
#include "support/FakeSelections.h"
#include "support/LogCapture.h"
#include "support/ProcessTable.h"
#include "support/TempDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

namespace orvane {
namespace {

using ::testing::ElementsAre;

constexpr int kAppPid = 4242;

class SelectionCaptureTest : public ::testing::Test {
protected:
  SelectionCaptureTest() { windows.front = FakeFrontWindows::Window(kAppPid, "gedit", "Gedit"); }

  CapturedSelection capture() {
    return CaptureSelection(windows.front,
                            {selections, accessibility, notifications, processes.root()}, folder());
  }
  std::string folder() const { return dir.file("handoff"); }
  std::string marker() const { return folder() + "/asked-for-accessibility"; }

  TempDir dir;
  LogCapture log;
  FakeFrontWindows windows;
  FakeSelections selections;
  FakeAccessibility accessibility;
  FakeNotifications notifications;
  // The front window's process as /proc shows it.
  ProcessTable processes{kAppPid};
};

const ClipboardContents kUserClipboard = {
    {"UTF8_STRING", "what the user copied"},
    {"text/html", "<b>what</b> the user copied"},
    {"image/png", std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16)},
};

TEST_F(SelectionCaptureTest, PrimaryOwnedByTheFrontWindowIsTheSelection) {
  selections.primary_owner_pid = kAppPid;
  selections.primary_text = "a selected passage";
  selections.clipboard = kUserClipboard;
  CapturedSelection captured = capture();
  EXPECT_EQ(captured.text, "a selected passage");
  EXPECT_FALSE(captured.restored_clipboard);
  EXPECT_TRUE(selections.chords_sent.empty());
  EXPECT_TRUE(selections.restores.empty());
}

TEST_F(SelectionCaptureTest, EmptyPrimaryFromTheFrontWindowGivesNothingAndSendsNoChord) {
  selections.primary_owner_pid = kAppPid;
  selections.primary_text = "";
  selections.copy_puts = FakeSelections::TextContents("must not be copied");
  CapturedSelection captured = capture();
  EXPECT_EQ(captured.text, std::nullopt);
  EXPECT_TRUE(selections.chords_sent.empty());
  EXPECT_TRUE(selections.restores.empty());
  EXPECT_TRUE(selections.pauses.empty());
}

TEST_F(SelectionCaptureTest, WindowNotOwningPrimaryGetsTheCopyAndTheClipboardBack) {
  selections.primary_owner_pid = 777; // another application's selection
  selections.primary_text = "someone else's selection";
  selections.clipboard = kUserClipboard;
  selections.copy_puts = FakeSelections::TextContents("copied from the window");
  CapturedSelection captured = capture();
  EXPECT_EQ(captured.text, "copied from the window");
  EXPECT_THAT(selections.chords_sent, ElementsAre(CopyChord::kControlC));
  ASSERT_EQ(selections.restores.size(), 1u);
  EXPECT_EQ(selections.restores[0], kUserClipboard); // every target, byte for byte
  EXPECT_EQ(selections.clipboard, kUserClipboard);
  EXPECT_TRUE(captured.restored_clipboard);
  EXPECT_EQ(selections.primary_reads, 0);
}

TEST_F(SelectionCaptureTest, PrimaryWithoutTextFromTheFrontWindowFallsBackToTheCopy) {
  selections.primary_owner_pid = kAppPid;
  selections.primary_text = std::nullopt; // the owner offers no text
  selections.copy_puts = FakeSelections::TextContents("copied");
  EXPECT_EQ(capture().text, "copied");
  EXPECT_EQ(selections.chords_sent.size(), 1u);
}

TEST_F(SelectionCaptureTest, NoOwnerOfPrimaryGetsTheCopy) {
  selections.copy_puts = FakeSelections::TextContents("copied");
  EXPECT_EQ(capture().text, "copied");
  EXPECT_EQ(selections.chords_sent.size(), 1u);
}

TEST_F(SelectionCaptureTest, WindowWithUnknownPidNeverReadsPrimary) {
  windows.front->pid = 0;
  selections.primary_owner_pid = 0;
  selections.primary_text = "not this window's";
  selections.copy_puts = FakeSelections::TextContents("copied");
  EXPECT_EQ(capture().text, "copied");
  EXPECT_EQ(selections.primary_reads, 0);
}

TEST_F(SelectionCaptureTest, WhereTheOwnerIsNeverToldPrimaryIsTheFrontWindowsSelection) {
  selections.tells_primary_owner = false;
  selections.primary_owner_pid = std::nullopt;
  selections.primary_text = "selected in the window in front";
  selections.copy_puts = FakeSelections::TextContents("must not be copied");
  EXPECT_EQ(capture().text, "selected in the window in front");
  EXPECT_TRUE(selections.chords_sent.empty());
  EXPECT_EQ(selections.primary_reads, 1);
}

TEST_F(SelectionCaptureTest, WhereTheOwnerIsNeverToldNoPrimaryTextGetsTheCopy) {
  selections.tells_primary_owner = false;
  selections.primary_text = std::nullopt;
  selections.clipboard = kUserClipboard;
  selections.copy_puts = FakeSelections::TextContents("copied");
  EXPECT_EQ(capture().text, "copied");
  EXPECT_EQ(selections.chords_sent.size(), 1u);
  ASSERT_EQ(selections.restores.size(), 1u);
  EXPECT_EQ(selections.restores[0], kUserClipboard);
}

TEST_F(SelectionCaptureTest, WhereTheOwnerIsNeverToldAWindowWithoutPidNeverReadsPrimary) {
  selections.tells_primary_owner = false;
  windows.front->pid = 0;
  selections.primary_text = "not this window's";
  selections.copy_puts = FakeSelections::TextContents("copied");
  EXPECT_EQ(capture().text, "copied");
  EXPECT_EQ(selections.primary_reads, 0);
}

TEST_F(SelectionCaptureTest, CopyOfOnlyAnImageGivesNothingYetTheClipboardIsWrittenBack) {
  selections.clipboard = kUserClipboard;
  selections.copy_puts = ClipboardContents{{"image/png", "\x89PNG pixels"}};
  CapturedSelection captured = capture();
  EXPECT_EQ(captured.text, std::nullopt);
  ASSERT_EQ(selections.restores.size(), 1u);
  EXPECT_EQ(selections.restores[0], kUserClipboard);
  EXPECT_TRUE(captured.restored_clipboard);
}

TEST_F(SelectionCaptureTest, CopyOfEmptyTextGivesNothingAndRestores) {
  selections.clipboard = kUserClipboard;
  selections.copy_puts = FakeSelections::TextContents("");
  EXPECT_EQ(capture().text, std::nullopt);
  EXPECT_THAT(selections.restores, ElementsAre(kUserClipboard));
}

TEST_F(SelectionCaptureTest, CopyThatChangesNothingLeavesTheClipboardUntouched) {
  selections.clipboard = kUserClipboard;
  uint64_t count_before = selections.change_count;
  CapturedSelection captured = capture(); // the chord copies nothing
  EXPECT_EQ(captured.text, std::nullopt);
  EXPECT_FALSE(captured.restored_clipboard);
  EXPECT_TRUE(selections.restores.empty());
  EXPECT_EQ(selections.clipboard, kUserClipboard);
  EXPECT_EQ(selections.change_count, count_before);
  // Twenty-five waits of 20 ms: half a second in all.
  ASSERT_EQ(selections.pauses.size(), 25u);
  for (auto pause : selections.pauses)
    EXPECT_EQ(pause, std::chrono::milliseconds(20));
}

TEST_F(SelectionCaptureTest, CopyLandingDuringTheLastWaitIsStillTaken) {
  selections.copy_puts = FakeSelections::TextContents("slow application");
  selections.copy_lands_after_pauses = 25; // seen by the comparison after the loop
  EXPECT_EQ(capture().text, "slow application");
  EXPECT_EQ(selections.pauses.size(), 25u);
}

TEST_F(SelectionCaptureTest, CopyLandingAfterHalfASecondIsTooLate) {
  selections.clipboard = kUserClipboard;
  selections.copy_puts = FakeSelections::TextContents("too slow");
  selections.copy_lands_after_pauses = 26;
  EXPECT_EQ(capture().text, std::nullopt);
  EXPECT_TRUE(selections.restores.empty());
}

TEST_F(SelectionCaptureTest, CopyStopsWaitingOnceTheClipboardChanges) {
  selections.copy_puts = FakeSelections::TextContents("after three waits");
  selections.copy_lands_after_pauses = 3;
  EXPECT_EQ(capture().text, "after three waits");
  EXPECT_EQ(selections.pauses.size(), 3u);
}

TEST_F(SelectionCaptureTest, EmptyClipboardBeforeTheCopyIsLeftEmpty) {
  selections.copy_puts = FakeSelections::TextContents("copied");
  CapturedSelection captured = capture();
  EXPECT_EQ(captured.text, "copied");
  // The copy does not stay: the clipboard is taken back with no targets.
  EXPECT_THAT(selections.restores, ElementsAre(ClipboardContents{}));
  EXPECT_FALSE(captured.restored_clipboard);
}

TEST_F(SelectionCaptureTest, ChordThatCannotBeSentGivesNothing) {
  selections.chord_can_be_sent = false;
  selections.clipboard = kUserClipboard;
  selections.copy_puts = FakeSelections::TextContents("never");
  EXPECT_EQ(capture().text, std::nullopt);
  EXPECT_TRUE(selections.pauses.empty());
  EXPECT_TRUE(selections.restores.empty());
  EXPECT_THAT(log.messages(), ElementsAre("capture: could not send Ctrl+C"));
}

TEST_F(SelectionCaptureTest, TerminalGetsControlShiftC) {
  windows.front = FakeFrontWindows::Window(kAppPid, "gnome-terminal-server", "Gnome-terminal");
  selections.copy_puts = FakeSelections::TextContents("ls -la");
  EXPECT_EQ(capture().text, "ls -la");
  EXPECT_THAT(selections.chords_sent, ElementsAre(CopyChord::kControlShiftC));
}

TEST_F(SelectionCaptureTest, TerminalWithoutCopyChordGetsNoKeystrokeAndKeepsTheClipboard) {
  windows.front = FakeFrontWindows::Window(kAppPid, "xterm", "XTerm");
  selections.clipboard = kUserClipboard;
  selections.copy_puts = FakeSelections::TextContents("would interrupt");
  uint64_t count_before = selections.change_count;
  CapturedSelection captured = capture();
  EXPECT_EQ(captured.text, std::nullopt);
  EXPECT_TRUE(selections.chords_sent.empty());
  EXPECT_TRUE(selections.restores.empty());
  EXPECT_EQ(selections.clipboard, kUserClipboard);
  EXPECT_EQ(selections.change_count, count_before);
  EXPECT_THAT(log.messages(), ElementsAre("capture: XTerm has no copy chord — nothing sent"));
}

TEST_F(SelectionCaptureTest, UnknownWindowRunningATerminalGetsNoKeystroke) {
  windows.front = FakeFrontWindows::Window(kAppPid, "com.example.NewTerm", "NewTerm");
  processes.holdOpen(0, "/dev/null");
  processes.holdOpen(7, "/dev/ptmx");
  selections.clipboard = kUserClipboard;
  selections.copy_puts = FakeSelections::TextContents("would interrupt");
  uint64_t count_before = selections.change_count;
  EXPECT_EQ(capture().text, std::nullopt);
  EXPECT_TRUE(selections.chords_sent.empty());
  EXPECT_TRUE(selections.restores.empty());
  EXPECT_EQ(selections.change_count, count_before);
  EXPECT_THAT(log.messages(), ElementsAre("capture: NewTerm has no copy chord — nothing sent"));
}

TEST_F(SelectionCaptureTest, UnknownWindowWithoutATerminalGetsControlC) {
  windows.front = FakeFrontWindows::Window(kAppPid, "com.example.Editor", "Editor");
  // A terminal's other side, a slave, is no terminal emulator.
  processes.holdOpen(0, "/dev/pts/3");
  processes.holdOpen(1, "/dev/ptmx (deleted)");
  selections.copy_puts = FakeSelections::TextContents("copied");
  EXPECT_EQ(capture().text, "copied");
  EXPECT_THAT(selections.chords_sent, ElementsAre(CopyChord::kControlC));
}

TEST_F(SelectionCaptureTest, KnownTerminalKeepsItsChordWhateverItHolds) {
  windows.front = FakeFrontWindows::Window(kAppPid, "ghostty", "com.mitchellh.ghostty");
  processes.holdOpen(5, "/dev/ptmx");
  selections.copy_puts = FakeSelections::TextContents("ls");
  EXPECT_EQ(capture().text, "ls");
  EXPECT_THAT(selections.chords_sent, ElementsAre(CopyChord::kControlShiftC));
}

TEST_F(SelectionCaptureTest, TerminalOwningPrimaryIsReadDirectly) {
  // Selecting in xterm sets PRIMARY: that is how its text is captured.
  windows.front = FakeFrontWindows::Window(kAppPid, "xterm", "XTerm");
  selections.primary_owner_pid = kAppPid;
  selections.primary_text = "selected in xterm";
  EXPECT_EQ(capture().text, "selected in xterm");
  EXPECT_TRUE(selections.chords_sent.empty());
}

TEST_F(SelectionCaptureTest, NotTrustedTriesNothingAndAsksOnce) {
  accessibility.trusted = false;
  selections.primary_owner_pid = kAppPid;
  selections.primary_text = "never read";
  selections.copy_puts = FakeSelections::TextContents("never copied");

  EXPECT_EQ(capture().text, std::nullopt);
  EXPECT_TRUE(selections.chords_sent.empty());
  EXPECT_EQ(selections.primary_reads, 0);
  ASSERT_EQ(notifications.shown.size(), 1u);
  EXPECT_NE(notifications.shown[0].body.find(accessibility.reason), std::string::npos);
  EXPECT_TRUE(g_file_test(marker().c_str(), G_FILE_TEST_IS_REGULAR));
  EXPECT_EQ(TempDir::Read(marker()), "");

  // The marker is there: no second prompt, the same log line.
  EXPECT_EQ(capture().text, std::nullopt);
  EXPECT_EQ(notifications.shown.size(), 1u);
  EXPECT_THAT(log.messages(), ElementsAre("capture: no Accessibility permission",
                                          "capture: no Accessibility permission"));

  // Deleting the marker brings the prompt back, once.
  g_unlink(marker().c_str());
  capture();
  capture();
  EXPECT_EQ(notifications.shown.size(), 2u);
  EXPECT_TRUE(selections.chords_sent.empty());
}

TEST_F(SelectionCaptureTest, TrustedCaptureNeverPromptsNorWritesTheMarker) {
  selections.copy_puts = FakeSelections::TextContents("copied");
  capture();
  EXPECT_TRUE(notifications.shown.empty());
  EXPECT_FALSE(g_file_test(marker().c_str(), G_FILE_TEST_EXISTS));
}

TEST_F(SelectionCaptureTest, UnwritableHandoffFolderStillPromptsAndStaysUp) {
  accessibility.trusted = false;
  TempDir::WriteFile(dir.file("plain-file"), "a file where the folder should be");
  CapturedSelection captured =
      CaptureSelection(windows.front, {selections, accessibility, notifications},
                       dir.file("plain-file") + "/handoff");
  EXPECT_EQ(captured.text, std::nullopt);
  EXPECT_EQ(notifications.shown.size(), 1u);
  EXPECT_THAT(log.messages(), ElementsAre("capture: no Accessibility permission"));
}

TEST_F(SelectionCaptureTest, NoFrontWindowStillTriesTheCopy) {
  windows.front = std::nullopt;
  selections.primary_owner_pid = kAppPid;
  selections.primary_text = "not read without a window";
  selections.copy_puts = FakeSelections::TextContents("copied");
  EXPECT_EQ(capture().text, "copied");
  EXPECT_EQ(selections.primary_reads, 0);
  EXPECT_THAT(selections.chords_sent, ElementsAre(CopyChord::kControlC));
}

TEST_F(SelectionCaptureTest, FiftyMegabyteSelectionIsTakenWhole) {
  std::string huge(50u << 20, 'x');
  huge.replace(0, 6, "start ");
  selections.primary_owner_pid = kAppPid;
  selections.primary_text = huge;
  std::optional<std::string> text = capture().text;
  ASSERT_TRUE(text);
  EXPECT_EQ(text->size(), huge.size());
  EXPECT_EQ(*text, huge);

  selections.primary_owner_pid = std::nullopt;
  selections.copy_puts = FakeSelections::TextContents(huge);
  text = capture().text;
  ASSERT_TRUE(text);
  EXPECT_EQ(text->size(), huge.size());
}

bool NoPty() {
  return false;
}

TEST(CopyChordsTest, TerminalsWithACopyChordGetControlShiftC) {
  for (const char* name : {"gnome-terminal",
                           "gnome-terminal-server",
                           "konsole",
                           "xfce4-terminal",
                           "tilix",
                           "terminator",
                           "alacritty",
                           "kitty",
                           "wezterm",
                           "org.wezfurlong.wezterm",
                           "foot",
                           "lxterminal",
                           "mate-terminal",
                           "qterminal",
                           "terminology",
                           "kgx",
                           "org.gnome.Console",
                           "ptyxis",
                           "org.gnome.Ptyxis",
                           "ghostty",
                           "com.mitchellh.ghostty",
                           "guake",
                           "tilda",
                           "yakuake",
                           "sakura",
                           "roxterm",
                           "cool-retro-term",
                           "contour",
                           "rio"}) {
    EXPECT_EQ(CopyChordFor(name, "", NoPty), CopyChord::kControlShiftC) << name;
    EXPECT_EQ(CopyChordFor("", name, NoPty), CopyChord::kControlShiftC) << name;
  }
}

TEST(CopyChordsTest, RealWmClassPairsOfTerminals) {
  EXPECT_EQ(CopyChordFor("gnome-terminal-server", "Gnome-terminal", NoPty),
            CopyChord::kControlShiftC);
  EXPECT_EQ(CopyChordFor("konsole", "konsole", NoPty), CopyChord::kControlShiftC);
  EXPECT_EQ(CopyChordFor("xfce4-terminal", "Xfce4-terminal", NoPty), CopyChord::kControlShiftC);
  EXPECT_EQ(CopyChordFor("Alacritty", "Alacritty", NoPty), CopyChord::kControlShiftC);
  EXPECT_EQ(CopyChordFor("org.wezfurlong.wezterm", "org.wezfurlong.wezterm", NoPty),
            CopyChord::kControlShiftC);
  EXPECT_EQ(CopyChordFor("terminator", "Terminator", NoPty), CopyChord::kControlShiftC);
  EXPECT_EQ(CopyChordFor("qterminal", "QTerminal", NoPty), CopyChord::kControlShiftC);
  EXPECT_EQ(CopyChordFor("xterm", "XTerm", NoPty), std::nullopt);
  EXPECT_EQ(CopyChordFor("xterm", "UXTerm", NoPty), std::nullopt);
  EXPECT_EQ(CopyChordFor("urxvt", "URxvt", NoPty), std::nullopt);
  EXPECT_EQ(CopyChordFor("st-256color", "st-256color", NoPty), std::nullopt);
}

TEST(CopyChordsTest, TerminalsWithoutACopyChordGetNone) {
  for (const char* name : {"xterm", "uxterm", "urxvt", "rxvt-unicode", "URxvt", "st", "st-256color",
                           "XTerm", "UXTerm", "mlterm"}) {
    EXPECT_EQ(CopyChordFor(name, "", NoPty), std::nullopt) << name;
    EXPECT_EQ(CopyChordFor("", name, NoPty), std::nullopt) << name;
  }
}

TEST(CopyChordsTest, EveryOtherWindowGetsControlC) {
  EXPECT_EQ(CopyChordFor("gedit", "Gedit", NoPty), CopyChord::kControlC);
  EXPECT_EQ(CopyChordFor("Navigator", "firefox-esr", NoPty), CopyChord::kControlC);
  EXPECT_EQ(CopyChordFor("", "", NoPty), CopyChord::kControlC);
  // Near misses are not terminals.
  EXPECT_EQ(CopyChordFor("xterm2", "sterm", NoPty), CopyChord::kControlC);
  EXPECT_EQ(CopyChordFor("kitty-docs", "my-konsole", NoPty), CopyChord::kControlC);
  EXPECT_EQ(CopyChordFor(std::string("xterm\0x", 7), std::string("st\0", 3), NoPty),
            CopyChord::kControlC);
}

// The whole decision, with whether the window's process holds a
// pseudo-terminal master, and that /proc is read only for an unknown class.
TEST(CopyChordsTest, DecisionTable) {
  int asked = 0;
  auto pty = [&asked] {
    ++asked;
    return true;
  };
  auto no_pty = [&asked] {
    ++asked;
    return false;
  };
  // A known class: its chord, whatever the process holds, and /proc unread.
  EXPECT_EQ(CopyChordFor("kgx", "org.gnome.Console", pty), CopyChord::kControlShiftC);
  EXPECT_EQ(CopyChordFor("konsole", "konsole", no_pty), CopyChord::kControlShiftC);
  // A class of the "no copy keystroke" list: none.
  EXPECT_EQ(CopyChordFor("mlterm", "mlterm", no_pty), std::nullopt);
  EXPECT_EQ(CopyChordFor("xterm", "XTerm", pty), std::nullopt);
  EXPECT_EQ(asked, 0);
  // An unknown class that runs a terminal: none.
  EXPECT_EQ(CopyChordFor("myterm", "MyTerm", pty), std::nullopt);
  EXPECT_EQ(asked, 1);
  // An unknown class without one: Ctrl+C.
  EXPECT_EQ(CopyChordFor("Navigator", "firefox-esr", no_pty), CopyChord::kControlC);
  EXPECT_EQ(asked, 2);
  // No way to ask: Ctrl+C.
  EXPECT_EQ(CopyChordFor("Navigator", "firefox-esr", nullptr), CopyChord::kControlC);
}

TEST(CopyChordsTest, EditorsThatEmbedATerminalPaneKeepControlC) {
  int asked = 0;
  auto pty = [&asked] {
    ++asked;
    return true;
  };
  for (auto [instance, wm_class] : std::vector<std::pair<std::string, std::string>>{
           {"code", "Code"},
           {"jetbrains-idea", "jetbrains-idea"},
           {"jetbrains-pycharm-ce", "jetbrains-pycharm-ce"},
           {"kate", "kate"},
           {"dolphin", "dolphin"},
           {"geany", "Geany"},
           {"gedit", "Gedit"},
           {"emacs", "Emacs"}})
    EXPECT_EQ(CopyChordFor(instance, wm_class, pty), CopyChord::kControlC) << wm_class;
  EXPECT_EQ(asked, 0);
  // The prefix alone, or a near miss, is no editor: the terminal check decides.
  EXPECT_EQ(CopyChordFor("jetbrains-", "jetbrains-", pty), std::nullopt);
  EXPECT_EQ(CopyChordFor("codex", "Codex", pty), std::nullopt);
  EXPECT_EQ(asked, 2);
}

TEST(AttentionPointTest, CentreOfTheFocusedWindow) {
  LogCapture log;
  FakeScreens screens;
  auto front = FakeFrontWindows::Window(1, "gedit", "Gedit", Rect{100, 200, 801, 600});
  EXPECT_EQ(AttentionPoint(front, screens), (Point{500.5, 500}));
  EXPECT_THAT(log.messages(),
              ElementsAre("capture: attention at {500.5, 500} from focused window"));
}

TEST(AttentionPointTest, ZeroWidthOrHeightWindowGivesThePointer) {
  LogCapture log;
  FakeScreens screens;
  screens.mouse = {12.25, -40};
  EXPECT_EQ(AttentionPoint(FakeFrontWindows::Window(1, "a", "A", Rect{100, 200, 0, 600}), screens),
            screens.mouse);
  EXPECT_EQ(AttentionPoint(FakeFrontWindows::Window(1, "a", "A", Rect{100, 200, 50, 0}), screens),
            screens.mouse);
  EXPECT_EQ(AttentionPoint(FakeFrontWindows::Window(1, "a", "A", Rect{0, 0, -5, 10}), screens),
            screens.mouse);
  EXPECT_EQ(AttentionPoint(FakeFrontWindows::Window(1, "a", "A", std::nullopt), screens),
            screens.mouse);
  EXPECT_EQ(AttentionPoint(std::nullopt, screens), screens.mouse);
  EXPECT_EQ(log.messages().size(), 5u);
  for (const std::string& line : log.messages())
    EXPECT_EQ(line, "capture: attention at {12.25, -40} from pointer");
}

TEST_F(SelectionCaptureTest, AHotkeyDuringTheCopyWaitStartsNoSecondCaptureOnTopOfTheFirst) {
  selections.clipboard = kUserClipboard;
  selections.copy_puts = FakeSelections::TextContents("copied once");
  selections.copy_lands_after_pauses = 2;
  // The key is pressed again while the first capture waits for its copy.
  std::optional<CapturedSelection> second;
  selections.on_pause = [&] {
    if (!second)
      second = capture();
  };
  CapturedSelection first = capture();
  EXPECT_EQ(first.text, "copied once");
  ASSERT_TRUE(second);
  EXPECT_EQ(second->text, std::nullopt);
  EXPECT_FALSE(second->restored_clipboard);
  EXPECT_THAT(selections.chords_sent, ElementsAre(CopyChord::kControlC));
  ASSERT_EQ(selections.restores.size(), 1u);
  EXPECT_EQ(selections.restores[0], kUserClipboard);
  EXPECT_THAT(log.messages(),
              ElementsAre("capture: another capture is still running, this one takes nothing"));

  // Once the first is over, the next capture runs as usual.
  selections.on_pause = nullptr;
  selections.copy_puts = FakeSelections::TextContents("copied again");
  EXPECT_EQ(capture().text, "copied again");
}

// Hotkeys whose bound chords a test presses by hand.
class PressableHotkeys final : public Hotkeys {
public:
  bool bind(const std::string& accelerator, Handler handler) override {
    handlers[accelerator] = std::move(handler);
    return true;
  }
  void press(const std::string& accelerator, uint32_t timestamp) {
    handlers.at(accelerator)(timestamp);
  }
  std::map<std::string, Handler> handlers;
};

TEST_F(SelectionCaptureTest, AKeyPressedWhileACaptureWaitsIsLeftForItToEnd) {
  selections.clipboard = kUserClipboard;
  selections.copy_puts = FakeSelections::TextContents("copied once");
  selections.copy_lands_after_pauses = 2;
  PressableHotkeys hotkeys;
  std::vector<int> fired;
  std::vector<std::optional<std::string>> captured;
  RegisterHotkeys(hotkeys, [&](int id, uint32_t) {
    fired.push_back(id);
    captured.push_back(capture().text);
  });
  // ⌥B again, then ⌥C, while the first capture waits for its copy.
  int pauses = 0;
  selections.on_pause = [&] {
    if (++pauses == 1) {
      hotkeys.press("<Alt>b", 2);
      hotkeys.press("<Alt>c", 3);
    }
  };
  hotkeys.press("<Alt>b", 1);
  EXPECT_EQ(fired, std::vector<int>{1});
  EXPECT_THAT(captured, ElementsAre("copied once"));
  EXPECT_THAT(selections.chords_sent, ElementsAre(CopyChord::kControlC));
  EXPECT_THAT(log.messages(),
              ElementsAre("hotkeys: ⌥B registered, ⌥C registered, ⌥Q registered, ⌥V registered",
                          "hotkey: pressed while a capture is still running — ignored",
                          "hotkey: pressed while a capture is still running — ignored"));
  EXPECT_FALSE(SelectionCaptureRunning());

  // Once it is over, the keys work again.
  selections.on_pause = nullptr;
  selections.copy_puts = FakeSelections::TextContents("copied again");
  hotkeys.press("<Alt>c", 4);
  EXPECT_EQ(fired, (std::vector<int>{1, 2}));
  EXPECT_THAT(captured, ElementsAre("copied once", "copied again"));
}

class DesktopCaptureTest : public ::testing::Test, protected FakeCaptureDesktop {
protected:
  DesktopCaptureSeams seams() { return FakeCaptureDesktop::seams(kAppPid, dir.path()); }
  TempDir dir;
  LogCapture log;
};

TEST_F(DesktopCaptureTest, FrontApplicationIsNamedByItsWindowClass) {
  auto capture = MakeDesktopCapture(seams());
  windows.front = FakeFrontWindows::Window(31, "gedit", "Gedit");
  std::optional<FrontApplication> front = capture->frontApplication();
  ASSERT_TRUE(front);
  EXPECT_EQ(front->pid, 31);
  EXPECT_EQ(front->identifier, "Gedit");
  EXPECT_FALSE(front->is_this_program);

  windows.front = FakeFrontWindows::Window(kAppPid, "orvane", "");
  front = capture->frontApplication();
  ASSERT_TRUE(front);
  EXPECT_EQ(front->identifier, "?");
  EXPECT_TRUE(front->is_this_program);

  windows.front = std::nullopt;
  EXPECT_EQ(capture->frontApplication(), std::nullopt);
}

TEST_F(DesktopCaptureTest, TheSelectionIsReadAheadOnlyWhileTheFrontWindowIsHeld) {
  auto capture = MakeDesktopCapture(seams());
  windows.front = FakeFrontWindows::Window(31, "gedit", "Gedit");
  selections.primary_owner_pid = 31;
  selections.primary_text = "a passage";
  capture->readSelectionAhead();
  EXPECT_EQ(selections.reads_ahead, 0);
  {
    FrontWindowHold hold(*capture);
    capture->readSelectionAhead();
    EXPECT_EQ(selections.reads_ahead, 1);
    EXPECT_EQ(capture->captureSelection(), "a passage");
    EXPECT_EQ(selections.drops_ahead, 0);
  }
  // What was read ahead and not taken is never used by a later capture.
  EXPECT_EQ(selections.drops_ahead, 1);
}

TEST_F(DesktopCaptureTest, NothingIsReadAheadWithoutThePermission) {
  auto capture = MakeDesktopCapture(seams());
  accessibility.trusted = false;
  FrontWindowHold hold(*capture);
  capture->readSelectionAhead();
  EXPECT_EQ(selections.reads_ahead, 0);
}

TEST_F(DesktopCaptureTest, AHeldFrontWindowIsReadOnceUntilReleased) {
  auto capture = MakeDesktopCapture(seams());
  windows.front = FakeFrontWindows::Window(31, "gedit", "Gedit", Rect{0, 0, 200, 100});
  selections.primary_owner_pid = 31;
  selections.primary_text = "held text";

  capture->holdFrontWindow();
  ASSERT_TRUE(capture->frontApplication());
  // Another window comes to the front meanwhile: the held one still counts.
  windows.front = FakeFrontWindows::Window(32, "xterm", "XTerm", Rect{1000, 0, 200, 100});
  EXPECT_EQ(capture->attentionPoint(), (Point{100, 50}));
  EXPECT_EQ(capture->captureSelection(), "held text");
  EXPECT_EQ(windows.reads, 1);

  capture->releaseFrontWindow();
  std::optional<FrontApplication> front = capture->frontApplication();
  ASSERT_TRUE(front);
  EXPECT_EQ(front->identifier, "XTerm");
  EXPECT_EQ(capture->attentionPoint(), (Point{1100, 50}));
  EXPECT_EQ(windows.reads, 3); // without a hold, every call asks again
}

TEST_F(DesktopCaptureTest, HostileWindowClassCannotBreakALogLine) {
  auto capture = MakeDesktopCapture(seams());
  windows.front =
      FakeFrontWindows::Window(31, "x", "Evil\n12:00:00  forged line" + std::string(500, 'z'));
  std::optional<FrontApplication> front = capture->frontApplication();
  ASSERT_TRUE(front);
  // Kept short; the log escapes what it prints.
  EXPECT_EQ(front->identifier.rfind("Evil\n12:00:00  forged line", 0), 0u);
  EXPECT_LT(front->identifier.size(), 200u);
  LogCapture log;
  SparLog("quote: nothing selected in %@", front->identifier);
  ASSERT_EQ(log.messages().size(), 1u);
  EXPECT_EQ(log.messages()[0].rfind("quote: nothing selected in Evil\\n12:00:00  forged line", 0),
            0u);
}

TEST_F(DesktopCaptureTest, CaptureRemembersThatItRestoredTheClipboard) {
  DesktopCapture capture(seams());
  windows.front = FakeFrontWindows::Window(31, "gedit", "Gedit");
  selections.primary_owner_pid = 31;
  selections.primary_text = "direct";
  EXPECT_EQ(capture.captureSelection(), "direct");
  EXPECT_FALSE(capture.restoredClipboard());

  selections.primary_owner_pid = std::nullopt;
  selections.clipboard = kUserClipboard;
  selections.copy_puts = FakeSelections::TextContents("copied");
  EXPECT_EQ(capture.captureSelection(), "copied");
  EXPECT_TRUE(capture.restoredClipboard());
}

TEST_F(DesktopCaptureTest, AttentionPointFollowsTheFrontWindow) {
  auto capture = MakeDesktopCapture(seams());
  windows.front = FakeFrontWindows::Window(31, "gedit", "Gedit", Rect{0, 0, 200, 100});
  EXPECT_EQ(capture->attentionPoint(), (Point{100, 50}));
  windows.front->frame = Rect{0, 0, 0, 0};
  EXPECT_EQ(capture->attentionPoint(), screens.mouse);
}

} // namespace
} // namespace orvane
