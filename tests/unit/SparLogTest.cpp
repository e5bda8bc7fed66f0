#include "base/SparLog.h"

#include "support/LogCapture.h"

#include <algorithm>
#include <glib/gstdio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <regex>
#include <thread>

namespace orvane {
namespace {

using ::testing::ElementsAre;

TEST(SparLogTest, ObjectPlaceholdersTakeStringsAndMissingValues) {
  EXPECT_EQ(FormatLogMessage("message: %@", {std::string("hello")}), "message: hello");
  EXPECT_EQ(FormatLogMessage("event %@ queued (no page yet)", {nullptr}),
            "event (null) queued (no page yet)");
  EXPECT_EQ(FormatLogMessage("%@ and %@", {"a", std::optional<std::string>()}), "a and (null)");
}

TEST(SparLogTest, IntegerAndRealPlaceholders) {
  EXPECT_EQ(FormatLogMessage("claude: turn %@ exited %d", {"t1", -15}),
            "claude: turn t1 exited -15");
  EXPECT_EQ(FormatLogMessage("%lu args, %ld, %lld bytes", {3UL, -2L, 5000000000LL}),
            "3 args, -2, 5000000000 bytes");
  EXPECT_EQ(FormatLogMessage("mtime %.0f > sidecar %.0f", {1700000000.6, 12.4}),
            "mtime 1700000001 > sidecar 12");
  EXPECT_EQ(FormatLogMessage("split %.3f+%.3f", {0.5, 0.25}), "split 0.500+0.250");
  EXPECT_EQ(FormatLogMessage("built %s %s", {"Sep  4 2026", "16:42:50"}),
            "built Sep  4 2026 16:42:50");
  EXPECT_EQ(FormatLogMessage("100%% done", {}), "100% done");
}

TEST(SparLogTest, PercentSignsInArgumentsAreWrittenUnchanged) {
  EXPECT_EQ(FormatLogMessage("message: %@", {"50%@ of %d %s %%"}), "message: 50%@ of %d %s %%");
}

TEST(SparLogTest, TextArgumentsCannotBreakTheLine) {
  EXPECT_EQ(FormatLogMessage("split: looking for pid %d showing %@",
                             {42, "/tmp/a.pdf\n12:00:00  forged line"}),
            "split: looking for pid 42 showing /tmp/a.pdf\\n12:00:00  forged line");
  EXPECT_EQ(FormatLogMessage("%s|%@", {"a\r\tb", std::string("c\x1b[2Kd\x7f")}),
            "a\\r\\tb|c\\x1b[2Kd\\x7f");
  // C1 controls and the Unicode line and paragraph separators.
  EXPECT_EQ(FormatLogMessage("%@", {"x\u0085y\u2028z\u2029"}), "x\\u{0085}y\\u{2028}z\\u{2029}");
  EXPECT_EQ(FormatLogMessage("%@", {std::string("nul\0byte", 8)}), "nul\\x00byte");
}

TEST(SparLogTest, ABackslashInAnArgumentIsDoubled) {
  // Otherwise a name holding the two characters \ and n would read as an
  // escaped line break.
  EXPECT_EQ(FormatLogMessage("dock drop: %@", {"a\\nb"}), "dock drop: a\\\\nb");
}

TEST(SparLogTest, TheFormatAndNumbersAreNotEscaped) {
  EXPECT_EQ(FormatLogMessage("a\tb %d %@", {7, 2.5}), "a\tb 7 2.5");
  EXPECT_EQ(FormatLogMessage("%@ %@", {"/home/u/Papers/x_y.pdf", "{{0, 0}, {960, 1080}}"}),
            "/home/u/Papers/x_y.pdf {{0, 0}, {960, 1080}}");
}

TEST(SparLogTest, AnArgumentWithALineBreakWritesExactlyOneLine) {
  LogCapture log;
  SparLog("spar note: %@", "cs/0101123\n00:00:00  update: installed");
  std::string text = TempDir::Read(log.path());
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
  EXPECT_THAT(log.messages(), ElementsAre("spar note: cs/0101123\\n00:00:00  update: installed"));
}

TEST(SparLogTest, LineIsTimeTwoSpacesAndMessage) {
  LogCapture log;
  SparLog("capture: %lu chars from %@", 12UL, "org.example.Editor");
  std::string text = TempDir::Read(log.path());
  EXPECT_TRUE(
      std::regex_match(text, std::regex("[0-2][0-9]:[0-5][0-9]:[0-5][0-9]  capture: 12 chars from "
                                        "org\\.example\\.Editor\n")))
      << text;
}

TEST(SparLogTest, NonAsciiIsWrittenAsUtf8) {
  LogCapture log;
  SparLog("hotkeys: ⌥B %@", "registered");
  SparLog("%@ before hello — ignored", "openPdf");
  EXPECT_THAT(log.messages(),
              ElementsAre("hotkeys: ⌥B registered", "openPdf before hello — ignored"));
}

TEST(SparLogTest, DeletedFileIsCreatedAgainByTheNextLine) {
  LogCapture log;
  SparLog("first");
  ASSERT_EQ(g_unlink(log.path().c_str()), 0);
  SparLog("second");
  EXPECT_THAT(log.messages(), ElementsAre("second"));
}

TEST(SparLogTest, LoggerCreatesAMissingStateFolder) {
  // A fresh account: the home folder exists, nothing under it does yet.
  TempDir dir;
  g_mkdir(dir.file("home").c_str(), 0755);
  SetLogFilePathForTesting(dir.file("home/.local/state/orvane/Orvane.log"));
  SparLog("kept");
  SetLogFilePathForTesting("");
  std::string text = TempDir::Read(dir.file("home/.local/state/orvane/Orvane.log"));
  EXPECT_EQ(text.size() > 10 ? text.substr(10) : text, "kept\n");
  for (const char* folder : {"home/.local/state", "home/.local/state/orvane"}) {
    GStatBuf info;
    ASSERT_EQ(g_stat(dir.file(folder).c_str(), &info), 0) << folder;
    EXPECT_EQ(info.st_mode & 0777, 0700u) << folder;
  }
}

TEST(SparLogTest, LineIsLostOnlyWhenTheFolderCannotBeMade) {
  TempDir dir;
  // A file where the state folder should be.
  dir.write("home/.local", "not a folder");
  SetLogFilePathForTesting(dir.file("home/.local/state/orvane/Orvane.log"));
  SparLog("lost");
  SetLogFilePathForTesting("");
  EXPECT_EQ(TempDir::Read(dir.file("home/.local")), "not a folder");
  EXPECT_FALSE(g_file_test(dir.file("home/.local/state").c_str(), G_FILE_TEST_EXISTS));
}

TEST(SparLogTest, LinesFromManyThreadsStayWhole) {
  LogCapture log;
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < 200; ++i)
        SparLog("thread %d line %d %@", t, i, std::string(100, 'x'));
    });
  for (auto& thread : threads)
    thread.join();
  std::vector<std::string> messages = log.messages();
  ASSERT_EQ(messages.size(), 1600u);
  std::regex whole("thread [0-7] line [0-9]+ x{100}");
  for (const std::string& message : messages)
    EXPECT_TRUE(std::regex_match(message, whole)) << message;
}

TEST(SparLogTest, DefaultPathIsInTheStateFolder) {
  std::string expected = std::string(g_getenv("XDG_STATE_HOME")) + "/orvane/Orvane.log";
  EXPECT_EQ(LogFilePath(), expected);
}

} // namespace
} // namespace orvane
