#include "base/SparLog.h"

#include "support/LogCapture.h"

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
