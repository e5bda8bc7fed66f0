#include "web/ServerFailurePage.h"

#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace orvane {
namespace {

class ServerFailurePageTest : public ::testing::Test {
protected:
  void SetUp() override {
    char pattern[] = "/tmp/orvane-failure-page-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    folder_ = pattern;
  }
  void TearDown() override {
    std::string command = "rm -rf '" + folder_ + "'";
    ASSERT_EQ(system(command.c_str()), 0);
  }
  std::string write(const std::string& bytes) {
    std::string path = folder_ + "/shelfkeep.log";
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
    return path;
  }
  std::string folder_;
};

TEST_F(ServerFailurePageTest, TailIsTheLastLinesOfASmallLog) {
  std::string path = write("one\ntwo\nthree\nModuleNotFoundError: No module named 'uvicorn'\n");
  EXPECT_EQ(ServerLogTail(path), "one\ntwo\nthree\nModuleNotFoundError: No module named 'uvicorn'");
  EXPECT_EQ(ServerLogTail(path, 1024, 2), "three\nModuleNotFoundError: No module named 'uvicorn'");
  EXPECT_EQ(ServerLogTail(write("\nfirst after an empty line\nlast"), 1024, 2),
            "first after an empty line\nlast");
}

TEST_F(ServerFailurePageTest, AHugeLogIsReadOnlyWithinTheBoundAndACutLineIsDropped) {
  std::string huge(5 * 1024 * 1024, 'x');
  std::string path = write(huge + "\nline a\nline b\n");
  std::string tail = ServerLogTail(path, 100, 40);
  EXPECT_EQ(tail, "line a\nline b");
  // One endless line: nothing whole fits, nothing is shown.
  EXPECT_EQ(ServerLogTail(write(huge), 100, 40), "");
  // Many short lines: only the last 40 come, within 16 KiB.
  std::string many;
  for (int i = 0; i < 100000; ++i)
    many += "line " + std::to_string(i) + "\n";
  std::string last = ServerLogTail(write(many));
  EXPECT_LE(last.size(), kServerLogTailBytes);
  EXPECT_EQ(last.substr(0, 11), "line 99960\n");
  EXPECT_EQ(last.substr(last.size() - 10), "line 99999");
}

TEST_F(ServerFailurePageTest, InvalidUtf8AndNulBecomeValidText) {
  static const char bytes[] = "bad \xff\xfe bytes\0here\n";
  std::string path = write(std::string(bytes, sizeof bytes - 1));
  std::string tail = ServerLogTail(path);
  EXPECT_EQ(tail, "bad \xEF\xBF\xBD\xEF\xBF\xBD bytes here");
}

TEST_F(ServerFailurePageTest, MissingOrOtherThanAFileReadsAsNothing) {
  EXPECT_EQ(ServerLogTail(folder_ + "/absent.log"), "");
  EXPECT_EQ(ServerLogTail(folder_), "");
  std::string fifo = folder_ + "/fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(ServerLogTail(fifo), ""); // and it does not block
  std::string link = folder_ + "/link";
  ASSERT_EQ(symlink(write("secret\n").c_str(), link.c_str()), 0);
  EXPECT_EQ(ServerLogTail(link), "");
}

TEST_F(ServerFailurePageTest, ALogThatAnotherAccountOwnsReadsAsNothing) {
  std::string path = write("ModuleNotFoundError: planted by someone else\n");
  EXPECT_NE(ServerLogTail(path, 4096, 10), "");
  if (geteuid() != 0)
    GTEST_SKIP() << "only root can give the file to another account";
  ASSERT_EQ(chown(path.c_str(), 65534, 65534), 0);
  EXPECT_EQ(ServerLogTail(path, 4096, 10), "");
}

TEST_F(ServerFailurePageTest, PageEscapesTheLogAndTheAddress) {
  std::string page =
      ServerFailurePage("http://127.0.0.1:8000/\"><script>x()</script>", "/tmp/shelfkeep.log",
                        "<script>window.webkit.messageHandlers.panel.postMessage({})</script>\n"
                        "<img src=\"http://127.0.0.1:9/leak\"> & 'q'");
  EXPECT_EQ(page.find("<script"), std::string::npos);
  EXPECT_EQ(page.find("<img"), std::string::npos);
  EXPECT_NE(page.find("&lt;script&gt;window.webkit.messageHandlers.panel.postMessage({})&lt;/"
                      "script&gt;\n&lt;img src=&quot;http://127.0.0.1:9/leak&quot;&gt; &amp; "
                      "&#39;q&#39;"),
            std::string::npos);
  EXPECT_NE(page.find("http://127.0.0.1:8000/&quot;&gt;&lt;script&gt;"), std::string::npos);
  EXPECT_NE(page.find("/tmp/shelfkeep.log"), std::string::npos);
  // Its own policy forbids scripts and fetches, should anything slip through.
  EXPECT_NE(page.find("content=\"default-src 'none'; style-src 'unsafe-inline'\""),
            std::string::npos);
}

TEST_F(ServerFailurePageTest, AnEmptyLogIsSaid) {
  std::string page = ServerFailurePage("http://127.0.0.1:8000", "/tmp/shelfkeep.log", "");
  EXPECT_NE(page.find("(the log is empty or cannot be read)"), std::string::npos);
}

} // namespace
} // namespace orvane
