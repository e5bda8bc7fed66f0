#include "capture/CaptureModes.h"

#include "support/FakeCaptureDesktop.h"
#include "support/FakeMessageBus.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace orvane {
namespace {

using ::testing::ElementsAre;

constexpr int kOrvanePid = 1000;
constexpr int kEditorPid = 2000;

class CaptureModeRunTest : public ::testing::Test, protected FakeCaptureDesktop {
protected:
  CaptureModeRunTest() {
    windows.front =
        FakeFrontWindows::Window(kEditorPid, "gedit", "Gedit", Rect{10.5, 20.25, 301, 400});
  }

  int run(const std::string& mode) { return run(mode, folder()); }
  int run(const std::string& mode, const std::string& handoff_folder) {
    return RunCaptureModeWith(mode, {seams(kOrvanePid, handoff_folder), bus});
  }

  std::string folder() const { return dir.file("handoff"); }
  std::string handoff(const char* name) const { return folder() + "/" + name; }
  bool exists(const char* name) const {
    return g_file_test(handoff(name).c_str(), G_FILE_TEST_EXISTS);
  }
  void leaveOldFiles() {
    for (const char* name : {"selection.txt", "screen.txt", "quote.txt"})
      TempDir::WriteFile(handoff(name), "from an earlier capture");
  }
  void selectInTheEditor(const std::string& text) {
    selections.primary_owner_pid = kEditorPid;
    selections.primary_text = text;
  }

  TempDir dir;
  LogCapture log;
  FakeMessageBus bus;
};

TEST_F(CaptureModeRunTest, SelectionModeWritesTheScreenHintAndTheSelection) {
  leaveOldFiles();
  selectInTheEditor("naïve passage 𝄞");
  EXPECT_EQ(run("--capture-selection"), 0);
  // The frame's centre, six decimals each.
  EXPECT_EQ(TempDir::Read(handoff("screen.txt")), "161.000000 220.250000");
  EXPECT_EQ(TempDir::Read(handoff("selection.txt")), "naïve passage 𝄞");
  EXPECT_EQ(TempDir::Read(handoff("quote.txt")), "from an earlier capture");
  EXPECT_THAT(log.messages(), ElementsAre("capture: attention at {161, 220.25} from focused window",
                                          "capture: screen hint {161, 220.25} from attention",
                                          // UTF-16 units, as the log counts: the clef is two.
                                          "capture: 16 chars from Gedit"));
  EXPECT_TRUE(bus.posted.empty());
}

TEST_F(CaptureModeRunTest, SelectionFileIsReadableOnlyByTheUser) {
  selectInTheEditor("private text");
  run("--capture-selection");
  struct stat info;
  ASSERT_EQ(stat(handoff("selection.txt").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u);
  ASSERT_EQ(stat(handoff("screen.txt").c_str(), &info), 0);
  EXPECT_NE(info.st_mode & 0044, 0u); // the screen hint keeps the process default
}

TEST_F(CaptureModeRunTest, SelectionModeWithThisProgramInFrontDeletesOldFilesAndWritesNone) {
  leaveOldFiles();
  windows.front = FakeFrontWindows::Window(kOrvanePid, "orvane", "Orvane");
  selections.primary_owner_pid = kOrvanePid;
  selections.primary_text = "the panel's own text";
  EXPECT_EQ(run("--capture-selection"), 0);
  EXPECT_FALSE(exists("selection.txt"));
  EXPECT_FALSE(exists("screen.txt"));
  EXPECT_TRUE(exists("quote.txt")); // not this mode's file
  EXPECT_EQ(selections.primary_reads, 0);
  EXPECT_TRUE(selections.chords_sent.empty());
  EXPECT_TRUE(log.messages().empty());
}

TEST_F(CaptureModeRunTest, SelectionModeWithNothingSelectedWritesOnlyTheScreenHint) {
  leaveOldFiles();
  windows.front->frame = Rect{0, 0, 0, 0};
  screens.mouse = {-1280.5, 99};
  selectInTheEditor("");
  run("--capture-selection");
  EXPECT_EQ(TempDir::Read(handoff("screen.txt")), "-1280.500000 99.000000");
  EXPECT_FALSE(exists("selection.txt"));
  EXPECT_THAT(log.messages(), ElementsAre("capture: attention at {-1280.5, 99} from pointer",
                                          "capture: screen hint {-1280.5, 99} from attention"));
}

TEST_F(CaptureModeRunTest, SelectionFromAWindowWithoutClassIsNamedQuestionMark) {
  windows.front->wm_class = "";
  selectInTheEditor("abc");
  run("--capture-selection");
  EXPECT_EQ(log.messages().back(), "capture: 3 chars from ?");
}

TEST_F(CaptureModeRunTest, CopiedSelectionKeepsTheRestoredClipboardAfterExit) {
  selections.clipboard = FakeSelections::TextContents("the user's clipboard");
  selections.copy_puts = FakeSelections::TextContents("copied passage");
  run("--capture-selection");
  EXPECT_EQ(TempDir::Read(handoff("selection.txt")), "copied passage");
  EXPECT_EQ(selections.clipboard, FakeSelections::TextContents("the user's clipboard"));
  EXPECT_EQ(selections.keep_after_exit_calls, 1);
}

TEST_F(CaptureModeRunTest, DirectReadLeavesTheClipboardToItsOwner) {
  selectInTheEditor("direct");
  run("--capture-selection");
  EXPECT_EQ(selections.keep_after_exit_calls, 0);
}

TEST_F(CaptureModeRunTest, QuoteModeWritesTheQuoteAndSignals) {
  leaveOldFiles();
  selectInTheEditor("To be, or not to be");
  EXPECT_EQ(run("--capture-quote"), 0);
  EXPECT_EQ(TempDir::Read(handoff("quote.txt")), "To be, or not to be");
  EXPECT_THAT(bus.posted, ElementsAre(std::make_pair(std::string("com.tarnwick.orvane.quote"),
                                                     std::string(""))));
  EXPECT_THAT(log.messages(), ElementsAre("quote: 19 chars from Gedit"));
  // The selection mode's files are not this mode's.
  EXPECT_EQ(TempDir::Read(handoff("selection.txt")), "from an earlier capture");
}

TEST_F(CaptureModeRunTest, QuoteModeWithNothingSelectedSaysWhere) {
  leaveOldFiles();
  windows.front = FakeFrontWindows::Window(kEditorPid, "xterm", "XTerm");
  EXPECT_EQ(run("--capture-quote"), 0);
  EXPECT_FALSE(exists("quote.txt"));
  EXPECT_TRUE(bus.posted.empty());
  EXPECT_TRUE(selections.chords_sent.empty());
  EXPECT_THAT(log.messages(), ElementsAre("capture: XTerm has no copy chord — nothing sent",
                                          "quote: nothing selected in XTerm"));
}

TEST_F(CaptureModeRunTest, QuoteModeWithoutAFrontWindowNamesQuestionMark) {
  windows.front = std::nullopt;
  run("--capture-quote");
  EXPECT_THAT(log.messages(), ElementsAre("quote: nothing selected in ?"));
}

TEST_F(CaptureModeRunTest, QuoteModeWithThisProgramInFrontDeletesTheOldQuoteOnly) {
  leaveOldFiles();
  windows.front = FakeFrontWindows::Window(kOrvanePid, "orvane", "Orvane");
  selectInTheEditor("unused");
  run("--capture-quote");
  EXPECT_FALSE(exists("quote.txt"));
  EXPECT_TRUE(exists("selection.txt"));
  EXPECT_TRUE(bus.posted.empty());
  EXPECT_TRUE(log.messages().empty());
}

TEST_F(CaptureModeRunTest, QuoteModeKeepsTheRestoredClipboardAfterExit) {
  selections.clipboard = FakeSelections::TextContents("kept");
  selections.copy_puts = FakeSelections::TextContents("quoted");
  run("--capture-quote");
  EXPECT_EQ(selections.keep_after_exit_calls, 1);
}

TEST_F(CaptureModeRunTest, NotTrustedCapturesNothingButStillWritesTheScreenHint) {
  accessibility.trusted = false;
  selectInTheEditor("unreadable");
  run("--capture-selection");
  EXPECT_TRUE(exists("screen.txt"));
  EXPECT_FALSE(exists("selection.txt"));
  EXPECT_TRUE(exists("asked-for-accessibility"));
  EXPECT_EQ(notifications.shown.size(), 1u);
  EXPECT_EQ(log.messages().back(), "capture: no Accessibility permission");
}

TEST_F(CaptureModeRunTest, UnwritableHandoffFolderIsLoggedAndTheClipboardStillKept) {
  TempDir::WriteFile(dir.file("not-a-folder"), "x");
  std::string folder = dir.file("not-a-folder") + "/handoff";
  selections.clipboard = FakeSelections::TextContents("the user's clipboard");
  selections.copy_puts = FakeSelections::TextContents("copied");
  EXPECT_EQ(run("--capture-selection", folder), 0);
  EXPECT_EQ(selections.clipboard, FakeSelections::TextContents("the user's clipboard"));
  EXPECT_EQ(selections.keep_after_exit_calls, 1);
  std::vector<std::string> lines = log.messages();
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[1].rfind("capture: could not write screen.txt (", 0), 0u) << lines[1];
  EXPECT_EQ(lines[3].rfind("capture: could not write selection.txt (", 0), 0u) << lines[3];
  EXPECT_EQ(lines[4], "capture: 6 chars from Gedit");

  EXPECT_EQ(run("--capture-quote", folder), 0);
  EXPECT_TRUE(bus.posted.empty()); // nothing to take: no signal
  EXPECT_EQ(log.messages().back(), "quote: 6 chars from Gedit");
}

TEST_F(CaptureModeRunTest, FiftyMegabyteSelectionIsHandedOverWhole) {
  std::string huge(50u << 20, 'a');
  huge += "é"; // one character, two bytes
  selectInTheEditor(huge);
  run("--capture-selection");
  struct stat info;
  ASSERT_EQ(stat(handoff("selection.txt").c_str(), &info), 0);
  EXPECT_EQ(size_t(info.st_size), huge.size());
  EXPECT_EQ(log.messages().back(),
            "capture: " + std::to_string((50u << 20) + 1) + " chars from Gedit");
}

TEST_F(CaptureModeRunTest, SelectionThatIsNotUtf8IsWrittenAsItCame) {
  std::string bytes("\xff\xfe\0broken\xc3", 10);
  selectInTheEditor(bytes);
  run("--capture-selection");
  EXPECT_EQ(TempDir::Read(handoff("selection.txt")), bytes);
}

TEST_F(CaptureModeRunTest, UnknownModeDoesNothing) {
  leaveOldFiles();
  selectInTheEditor("text");
  EXPECT_NE(run("--capture-everything"), 0);
  EXPECT_TRUE(exists("selection.txt"));
  EXPECT_EQ(selections.primary_reads, 0);
}

} // namespace
} // namespace orvane
