#include "placement/WindowOperations.h"

#include "support/FakeScreens.h"
#include "support/FakeWindows.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace orvane {
namespace {

using Lines = std::vector<std::string>;

class WindowOperationsTest : public ::testing::Test {
protected:
  FakeScreens screens;
  FakeWindows windows;
  WindowOperations ops{windows, screens};
  LogCapture log;
};

// The primary screen is 1080 high: a frame's top-left y is 1080 − (y + h).
const Rect kTarget{100, 200, 800, 600}; // top-left y 280

TEST_F(WindowOperationsTest, SetFrameHandsTheDesktopFrameOverAndAnswersWhetherItWasAccepted) {
  unsigned long id = windows.add(10, "a", {0, 0, 300, 300});
  EXPECT_TRUE(ops.SetAXWindowFrame(id, kTarget));
  EXPECT_EQ(windows.frame_writes, (std::vector<FakeWindows::FrameWrite>{{id, kTarget}}));
  windows.refusing.insert(id);
  EXPECT_FALSE(ops.SetAXWindowFrame(id, {1, 2, 3, 4}));
  EXPECT_FALSE(ops.SetAXWindowFrame(0xdead, kTarget)); // a window that is gone
}

TEST_F(WindowOperationsTest, OnlyNormalWindowsCountAsStandard) {
  windows.add(10, "main", {0, 0, 300, 300});
  windows.add(10, "dialog", {0, 0, 100, 100}, /*normal=*/false);
  windows.add(10, "second", {0, 0, 300, 300});
  windows.add(11, "other", {0, 0, 300, 300});
  EXPECT_EQ(ops.StandardWindowCount(10), 2);
  EXPECT_EQ(ops.StandardWindowCount(4242), 0); // no such process
  EXPECT_EQ(ops.StandardWindowCount(-1), 0);
}

TEST_F(WindowOperationsTest, TitleRuleTakesTheFileNameOrItsStemFollowedByAnything) {
  EXPECT_TRUE(TitleNamesFile("paper.pdf", "/home/u/paper.pdf"));
  EXPECT_TRUE(TitleNamesFile("paper — Document Viewer", "/home/u/paper.pdf"));
  EXPECT_TRUE(TitleNamesFile("paper", "/home/u/paper.pdf"));
  EXPECT_FALSE(TitleNamesFile("Reading paper.pdf", "/home/u/paper.pdf"));
  EXPECT_FALSE(TitleNamesFile("pape", "/home/u/paper.pdf"));
  EXPECT_FALSE(TitleNamesFile("anything", "")); // no name matches every title
}

TEST_F(WindowOperationsTest, CopyWindowForFileFindsTheWindowByTitleInWindowOrder) {
  windows.add(10, "Reading paper.pdf", {0, 0, 300, 300});
  unsigned long wanted = windows.add(10, "paper.pdf — Viewer", {0, 0, 300, 300});
  windows.add(10, "paper (copy)", {0, 0, 300, 300});
  auto found = ops.CopyWindowForFile(10, "/home/u/paper.pdf");
  ASSERT_TRUE(found);
  EXPECT_EQ(found->id, wanted);
  EXPECT_FALSE(ops.CopyWindowForFile(10, "/home/u/other.pdf"));
}

TEST_F(WindowOperationsTest, DocumentMatchesAfterDotAndDotDotComponentsAreStandardised) {
  windows.documents[10] = {"/home/u/papers/a.pdf"};
  unsigned long id = windows.add(10, "Document Viewer", {0, 0, 300, 300});
  auto found = ops.CopyWindowForFile(10, "/home/u/papers/../papers/./a.pdf");
  ASSERT_TRUE(found);
  EXPECT_EQ(found->id, id);
  EXPECT_EQ(StandardizedPath("/home/u/./x/../a.pdf"), "/home/u/a.pdf");
  EXPECT_FALSE(ops.CopyWindowForFile(10, "/home/u/papers/b.pdf"));
}

TEST_F(WindowOperationsTest, WithSeveralDocumentsTheTitleTellsWhichWindowShowsWhich) {
  windows.documents[10] = {"/p/alpha.pdf", "/p/beta.pdf"};
  windows.add(10, "alpha.pdf — Viewer", {0, 0, 300, 300});
  unsigned long beta = windows.add(10, "beta.pdf — Viewer", {0, 0, 300, 300});
  auto found = ops.CopyWindowForFile(10, "/p/beta.pdf");
  ASSERT_TRUE(found);
  EXPECT_EQ(found->id, beta);
  WindowInfo untitled;
  untitled.title = "Viewer";
  EXPECT_EQ(DocumentShownBy(untitled, {"/p/alpha.pdf", "/p/beta.pdf"}), std::nullopt);
  EXPECT_EQ(DocumentShownBy(untitled, {"/p/alpha.pdf", "/p/./alpha.pdf"}), "/p/alpha.pdf");
}

TEST_F(WindowOperationsTest, TitleThatIsTheAbsolutePathOfAnExistingFileIsItsDocument) {
  TempDir dir;
  std::string pdf = dir.write("x/Report Final.pdf", "%PDF-1.4\n");
  WindowInfo window;
  window.title = pdf;
  EXPECT_EQ(DocumentShownBy(window, {}), pdf);
  window.title = dir.file("x/missing.pdf");
  EXPECT_EQ(DocumentShownBy(window, {}), std::nullopt);
}

// A process that names thousands of PDFs (some of them twice, through
// hard links): the windows that show them are still told apart, and the
// search costs one look at each name.
class ManyDocumentsTest : public WindowOperationsTest {
protected:
  static constexpr int kFiles = 3000, kLinks = 500;
  void SetUp() override {
    for (int i = 0; i < kFiles; ++i)
      paths.push_back(dir.write("p/paper-" + std::to_string(i) + ".pdf", "%PDF-1.4\n"));
    for (int i = 0; i < kLinks; ++i) {
      std::string link = dir.file("p/link-" + std::to_string(i) + ".pdf");
      ASSERT_EQ(::link(paths[size_t(i)].c_str(), link.c_str()), 0);
      paths.push_back(link);
    }
    windows.documents[10] = paths;
  }
  TempDir dir;
  std::vector<std::string> paths;
};

TEST_F(ManyDocumentsTest, TheWindowThatShowsAFileIsFoundAmongThousandsOfDocuments) {
  windows.add(10, "paper-17.pdf — Viewer", {0, 0, 300, 300});
  unsigned long shown = windows.add(10, "paper-2999.pdf — Viewer", {0, 0, 300, 300});
  windows.add(10, "paper-5.pdf — Viewer", {0, 0, 300, 300});
  auto found = ops.CopyWindowForFile(10, dir.file("p/paper-2999.pdf"));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->id, shown);
  // A hard link is the same document: the window whose title names the
  // file under its first name shows it.
  unsigned long linked = windows.add(10, "paper-499.pdf — Viewer", {0, 0, 300, 300});
  found = ops.CopyWindowForFile(10, dir.file("p/link-499.pdf"));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->id, linked);
  EXPECT_FALSE(ops.CopyWindowForFile(10, dir.file("p/absent.pdf")));
}

TEST_F(ManyDocumentsTest, EachFileCountsOnceByDeviceAndInodeAfterOneStatPerName) {
  DocumentSet set(paths);
  EXPECT_EQ(set.documents().size(), size_t(kFiles));
  EXPECT_EQ(set.documents().front(), paths.front());
  EXPECT_EQ(set.statCalls(), size_t(kFiles + kLinks));
  WindowInfo window;
  window.title = "link-3.pdf";
  // The link's first name is the paper's; the title names neither of the
  // first names, so no document is told.
  EXPECT_EQ(DocumentShownBy(window, set), std::nullopt);
  window.title = "paper-3.pdf";
  EXPECT_EQ(DocumentShownBy(window, set), paths[3]);
  EXPECT_TRUE(set.contains(dir.file("p/link-3.pdf")));
  EXPECT_TRUE(set.contains(dir.file("p/../p/paper-3.pdf")));
  EXPECT_FALSE(set.contains(dir.file("p/paper-3000.pdf")));
}

TEST_F(WindowOperationsTest, AWindowWhoseDocumentIsAnotherFileIsNotTakenByItsTitle) {
  TempDir dir;
  std::string wanted = dir.write("p/paper-1.pdf", "%PDF-1.4\n");
  std::string longer = dir.write("p/paper-17.pdf", "%PDF-1.4\n");
  std::string copy = dir.write("p/paper-1 (2).pdf", "%PDF-1.4\n");
  windows.documents[10] = {longer, wanted, copy};
  // Listed before the window of the file asked for; their titles begin with
  // its name, but their documents are known and are other files.
  windows.add(10, "paper-17.pdf — Viewer", {0, 0, 300, 300});
  windows.add(10, "paper-1 (2).pdf — Viewer", {0, 0, 300, 300});
  unsigned long shown = windows.add(10, "paper-1.pdf — Viewer", {0, 0, 300, 300});
  auto found = ops.CopyWindowForFile(10, wanted);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->id, shown);
  EXPECT_EQ(found->title, "paper-1.pdf — Viewer");
}

TEST(DocumentSetTest, TheWorkIsBounded) {
  std::vector<std::string> many;
  for (size_t i = 0; i < kMaxDocumentsLooked + 100; ++i)
    many.push_back("/nonexistent/orvane-test/" + std::to_string(i) + ".pdf");
  DocumentSet set(many);
  EXPECT_EQ(set.statCalls(), kMaxDocumentsLooked);
  EXPECT_EQ(set.documents().size(), kMaxDocumentsLooked);
}

TEST(DocumentSetTest, NamesThatCannotBeLookedAtAreToldApartByTheirStandardizedPath) {
  DocumentSet set({"/p/alpha.pdf", "/p/./alpha.pdf", "/p/x/../alpha.pdf", "/p/beta.pdf"});
  EXPECT_EQ(set.documents(), (std::vector<std::string>{"/p/alpha.pdf", "/p/beta.pdf"}));
}

TEST_F(WindowOperationsTest, FileHandedToAnotherProcessIsFoundAmongEveryNormalWindow) {
  windows.live_pids.insert(10); // the launched process, without a window
  windows.add(20, "paper.pdf", {0, 0, 100, 100}, /*normal=*/false); // a dialog does not count
  unsigned long viewer = windows.add(30, "paper.pdf — Viewer", {0, 0, 300, 300});
  auto found = ops.CopyWindowForFile(10, "/u/paper.pdf");
  ASSERT_TRUE(found);
  EXPECT_EQ(found->id, viewer);
  auto unknown_pid = ops.CopyWindowForFile(0, "/u/paper.pdf");
  ASSERT_TRUE(unknown_pid);
  EXPECT_EQ(unknown_pid->id, viewer);
}

TEST_F(WindowOperationsTest, ProcessWindowsComeBeforeOtherProcesses) {
  unsigned long other = windows.add(30, "paper.pdf", {0, 0, 300, 300});
  unsigned long own = windows.add(10, "paper.pdf", {0, 0, 300, 300});
  EXPECT_EQ(ops.CopyWindowForFile(10, "/u/paper.pdf")->id, own);
  EXPECT_EQ(ops.CopyWindowForFile(0, "/u/paper.pdf")->id, other);
}

TEST_F(WindowOperationsTest, TwoPointsOffIsLeftAloneTwoAndAHalfIsPutBack) {
  unsigned long id = windows.add(10, "paper.pdf", {102, 198, 800, 600});
  ops.ReassertWindowFrame(10, "/u/paper.pdf", true, "split", kTarget);
  EXPECT_TRUE(windows.frame_writes.empty());
  EXPECT_TRUE(log.messages().empty());

  windows.find(id)->frame = {97.5, 200, 800, 600};
  ops.ReassertWindowFrame(10, "/u/paper.pdf", false, "split", kTarget);
  EXPECT_EQ(windows.frame_writes, (std::vector<FakeWindows::FrameWrite>{{id, kTarget}}));
  EXPECT_EQ(windows.find(id)->frame, kTarget);

  // 2.5 points lower on screen is 2.5 more in the top-left convention.
  windows.find(id)->frame = {100, 197.5, 800, 600};
  ops.ReassertWindowFrame(10, "/u/paper.pdf", false, "split", kTarget);
  EXPECT_EQ(windows.frame_writes.size(), 2u);
  EXPECT_EQ(log.messages(), (Lines{"split: the window drifted to 98,280 800x600 — put it back",
                                   "split: the window drifted to 100,282 800x600 — put it back"}));
}

TEST_F(WindowOperationsTest, ResizedButNotMovedIsLeftAloneWithoutTheSizeCheck) {
  // Taller by 100 downwards: the top-left corner stays where it was.
  unsigned long id = windows.add(10, "paper.pdf", {100, 100, 800, 700});
  ops.ReassertWindowFrame(10, "/u/paper.pdf", false, "split", kTarget);
  EXPECT_TRUE(windows.frame_writes.empty());
  ops.ReassertWindowFrame(10, "/u/paper.pdf", true, "ask", kTarget);
  EXPECT_EQ(windows.frame_writes, (std::vector<FakeWindows::FrameWrite>{{id, kTarget}}));
  EXPECT_EQ(log.messages(), (Lines{"ask: the window drifted to 100,280 800x700 — put it back"}));
}

TEST_F(WindowOperationsTest, SizeWithinTheToleranceIsLeftAloneEvenWithTheSizeCheck) {
  windows.add(10, "paper.pdf", {100, 198, 802, 602});
  ops.ReassertWindowFrame(10, "/u/paper.pdf", true, "ask", kTarget);
  EXPECT_TRUE(windows.frame_writes.empty());
}

TEST_F(WindowOperationsTest, NoWindowShowingTheFileIsNotReasserted) {
  windows.add(10, "other.pdf", {0, 0, 10, 10});
  ops.ReassertWindowFrame(10, "/u/paper.pdf", true, "ask", kTarget);
  EXPECT_TRUE(windows.frame_writes.empty());
  EXPECT_TRUE(log.messages().empty());
}

TEST_F(WindowOperationsTest, LogWindowTitlesWithItsExactTexts) {
  ops.LogWindowTitles(4242, "place");
  windows.live_pids.insert(11);
  ops.LogWindowTitles(11, "place"); // no windows: nothing
  windows.documents[10] = {"/p/a.pdf"};
  windows.add(10, "a.pdf — Viewer", {0, 0, 10, 10});
  windows.add(10, "", {0, 0, 10, 10}, /*normal=*/false);
  ops.LogWindowTitles(10, "split");
  EXPECT_EQ(log.messages(),
            (Lines{"place:   could not address pid 4242", "split:   pid 10 has 2 window(s)",
                   "split:   [0] title=a.pdf — Viewer doc=/p/a.pdf",
                   "split:   [1] title=(none) doc=/p/a.pdf"}));
}

TEST_F(WindowOperationsTest, LogWindowTitlesWithoutADisplayCannotAddressTheProcess) {
  windows.add(10, "x", {0, 0, 10, 10});
  windows.no_display = true;
  ops.LogWindowTitles(10, "ask");
  EXPECT_EQ(log.messages(), (Lines{"ask:   could not address pid 10"}));
}

TEST_F(WindowOperationsTest, HostileTitleStaysOnOneLogLine) {
  windows.add(10, "evil\n12:00:00  place: forged\x01", {0, 0, 10, 10});
  windows.add(10, std::string(100000, 'x'), {0, 0, 10, 10});
  ops.LogWindowTitles(10, "ask");
  Lines lines = log.messages();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[1], "ask:   [0] title=evil\\n12:00:00  place: forged\\x01 doc=(none)");
  EXPECT_LT(lines[2].size(), 2000u);
}

} // namespace
} // namespace orvane
