#include "desktop/ProcessDocuments.h"

#include "base/GObjectPtr.h"
#include "support/ProcessTable.h"
#include "support/TempDir.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace orvane {
namespace {

constexpr int kPid = 4242;

// A process table of one process, made of real files and links.
class ProcessDocumentsTest : public ::testing::Test {
protected:
  std::string pdf(const std::string& name) { return docs.write(name, "%PDF-1.4\n%%EOF\n"); }
  std::vector<std::string> files() { return PdfFilesOfProcess(kPid, table.root()); }

  ProcessTable table{kPid};
  TempDir docs;
};

TEST(HasPdfExtensionTest, AnyCaseAtTheEnd) {
  EXPECT_TRUE(HasPdfExtension("/a/b.pdf"));
  EXPECT_TRUE(HasPdfExtension("B.PdF"));
  EXPECT_FALSE(HasPdfExtension("/a/b.pdf.txt"));
  EXPECT_FALSE(HasPdfExtension("pdf"));
  EXPECT_FALSE(HasPdfExtension(""));
}

TEST_F(ProcessDocumentsTest, CommandLineFirstThenOpenFilesEachFileOnce) {
  std::string named = pdf("named.pdf");
  std::string held = pdf("held.PDF");
  std::string link = docs.file("another name.pdf");
  ASSERT_EQ(symlink(named.c_str(), link.c_str()), 0);
  GCharPtr uri(g_filename_to_uri(held.c_str(), nullptr, nullptr));
  table.commandLine({"viewer", "--page=3", named, uri.str(), link});
  table.holdOpen(3, "/dev/null");
  table.holdOpen(4, held);
  table.holdOpen(5, named);
  EXPECT_EQ(files(), (std::vector<std::string>{named, held}));
}

TEST_F(ProcessDocumentsTest, RelativeArgumentsFollowTheWorkingFolder) {
  std::string paper = pdf("sub/rel.pdf");
  table.commandLine({"viewer", "sub/rel.pdf"});
  EXPECT_EQ(files(), std::vector<std::string>{}); // no working folder to read
  table.workingFolder(docs.path());
  EXPECT_EQ(files(), std::vector<std::string>{docs.path() + "/sub/rel.pdf"});
}

TEST_F(ProcessDocumentsTest, NoProcessNoFiles) {
  EXPECT_EQ(PdfFilesOfProcess(0, table.root()), std::vector<std::string>{});
  EXPECT_EQ(PdfFilesOfProcess(-1, table.root()), std::vector<std::string>{});
  EXPECT_EQ(files(), std::vector<std::string>{}); // no entry in the table
}

TEST_F(ProcessDocumentsTest, WhatIsNotAnExistingRegularPdfIsLeftOut) {
  std::string paper = pdf("real.pdf");
  std::string text = docs.write("notes.txt", "text");
  g_mkdir_with_parents(docs.file("folder.pdf").c_str(), 0755);
  ASSERT_EQ(mkfifo(docs.file("pipe.pdf").c_str(), 0600), 0);
  table.commandLine({"viewer", text, docs.file("gone.pdf"), docs.file("folder.pdf"),
                     docs.file("pipe.pdf"), "file://%zz.pdf", "file:", "", paper});
  table.holdOpen(3, "pipe:[77]");
  table.holdOpen(4, "relative/held.pdf");
  table.holdOpen(5, docs.file("pipe.pdf"));
  EXPECT_EQ(files(), std::vector<std::string>{paper});
}

TEST_F(ProcessDocumentsTest, HostileTablesAreSurvived) {
  std::string paper = pdf("kept.pdf");
  // A command line that is a fifo nobody writes to, open files linking to
  // themselves, and an endless list of arguments that name nothing.
  g_mkdir_with_parents(table.process().c_str(), 0755);
  ASSERT_EQ(mkfifo((table.process() + "/cmdline").c_str(), 0600), 0);
  table.holdOpen(3, table.process() + "/fd/3");
  table.holdOpen(4, paper);
  EXPECT_EQ(files(), std::vector<std::string>{paper});

  ASSERT_EQ(unlink((table.process() + "/cmdline").c_str()), 0);
  std::string many;
  for (int i = 0; i < 100000; ++i)
    many += "/nowhere/" + std::to_string(i) + ".pdf" + '\0';
  TempDir::WriteFile(table.process() + "/cmdline", many + std::string(80000, '/') + ".pdf");
  EXPECT_EQ(files(), std::vector<std::string>{paper});
}

TEST_F(ProcessDocumentsTest, PseudoTerminalMasterAmongTheOpenFiles) {
  EXPECT_FALSE(HoldsPseudoTerminalMaster(kPid, table.root())); // no entry in the table
  table.holdOpen(0, "/dev/null");
  table.holdOpen(1, "/dev/pts/4"); // a terminal's slave side: a program run in one
  table.holdOpen(2, table.process() + "/fd/2");
  EXPECT_FALSE(HoldsPseudoTerminalMaster(kPid, table.root()));
  table.holdOpen(9, "/dev/ptmx");
  EXPECT_TRUE(HoldsPseudoTerminalMaster(kPid, table.root()));
  EXPECT_FALSE(HoldsPseudoTerminalMaster(0, table.root()));
  EXPECT_FALSE(HoldsPseudoTerminalMaster(-1, table.root()));
}

TEST_F(ProcessDocumentsTest, PseudoTerminalMasterThroughThePtsFolder) {
  table.holdOpen(3, "/dev/pts/ptmx");
  EXPECT_TRUE(HoldsPseudoTerminalMaster(kPid, table.root()));
}

// Only the first entries of a huge file table are read: a master that the
// listing gives after kMaxPseudoTerminalScan entries is not looked at.
TEST_F(ProcessDocumentsTest, PseudoTerminalScanIsBounded) {
  table.holdOpen(10, "/dev/null");
  std::string folder = table.process() + "/fd";
  for (size_t fd = 11; fd < 2 * kMaxPseudoTerminalScan; ++fd)
    ASSERT_EQ(symlink("/dev/null", (folder + "/" + std::to_string(fd)).c_str()), 0);
  // Where the listing puts an entry depends on the file system; the master
  // is renamed until it comes late enough.
  auto position = [&folder](const std::string& name) {
    DIR* dir = opendir(folder.c_str());
    size_t n = 0, found = 0;
    while (struct dirent* entry = readdir(dir)) {
      ++n;
      if (name == entry->d_name)
        found = n;
    }
    closedir(dir);
    return found;
  };
  std::string name = "x1";
  ASSERT_EQ(symlink("/dev/ptmx", (folder + "/" + name).c_str()), 0);
  for (int attempt = 2; position(name) <= kMaxPseudoTerminalScan + 1 && attempt < 200; ++attempt) {
    std::string next = "x" + std::to_string(attempt);
    ASSERT_EQ(rename((folder + "/" + name).c_str(), (folder + "/" + next).c_str()), 0);
    name = next;
  }
  ASSERT_GT(position(name), kMaxPseudoTerminalScan + 1);
  EXPECT_FALSE(HoldsPseudoTerminalMaster(kPid, table.root()));
  // The same entry early in the listing is found.
  for (int attempt = 200; position(name) > kMaxPseudoTerminalScan && attempt < 400; ++attempt) {
    std::string next = "x" + std::to_string(attempt);
    ASSERT_EQ(rename((folder + "/" + name).c_str(), (folder + "/" + next).c_str()), 0);
    name = next;
  }
  ASSERT_LE(position(name), kMaxPseudoTerminalScan);
  EXPECT_TRUE(HoldsPseudoTerminalMaster(kPid, table.root()));
}

// A real process: this test's own, while it holds a master, then not; and
// a process that is gone.
TEST(PseudoTerminalTest, RealProcessesAsTheProcessTableShowsThem) {
  int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_GE(master, 0);
  EXPECT_TRUE(HoldsPseudoTerminalMaster(getpid()));
  close(master);
  EXPECT_FALSE(HoldsPseudoTerminalMaster(getpid()));

  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0)
    _exit(0);
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  EXPECT_FALSE(HoldsPseudoTerminalMaster(child));
}

} // namespace
} // namespace orvane
