// Copying and removing whole folders on real files.
#include "update/FolderMoves.h"

#include "support/TempDir.h"

#include <glib/gstdio.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orvane {
namespace {

mode_t ModeOf(const std::string& path) {
  struct stat info;
  EXPECT_EQ(lstat(path.c_str(), &info), 0) << path;
  return info.st_mode;
}

TEST(CopyFolderTest, KeepsContentsPermissionsAndLinksAsLinks) {
  TempDir dir;
  dir.write("from/bin/orvane", "#!/bin/sh\n");
  chmod(dir.file("from/bin/orvane").c_str(), 0755);
  dir.write("from/share/read-only.txt", "kept");
  chmod(dir.file("from/share/read-only.txt").c_str(), 0444);
  ASSERT_EQ(symlink("../share/read-only.txt", dir.file("from/bin/link").c_str()), 0);
  ASSERT_EQ(symlink("nowhere", dir.file("from/dangling").c_str()), 0);
  g_mkdir(dir.file("from/empty").c_str(), 0700);
  chmod(dir.file("from/share").c_str(), 0555);

  ASSERT_EQ(CopyFolder(dir.file("from"), dir.file("to")), "");
  EXPECT_EQ(TempDir::Read(dir.file("to/bin/orvane")), "#!/bin/sh\n");
  EXPECT_EQ(ModeOf(dir.file("to/bin/orvane")) & 07777, 0755u);
  EXPECT_EQ(TempDir::Read(dir.file("to/share/read-only.txt")), "kept");
  EXPECT_EQ(ModeOf(dir.file("to/share/read-only.txt")) & 07777, 0444u);
  EXPECT_EQ(ModeOf(dir.file("to/share")) & 07777, 0555u);
  EXPECT_EQ(ModeOf(dir.file("to/empty")) & 07777, 0700u);
  EXPECT_TRUE(S_ISLNK(ModeOf(dir.file("to/bin/link"))));
  char target[64] = {};
  ASSERT_GT(readlink(dir.file("to/dangling").c_str(), target, sizeof target - 1), 0);
  EXPECT_STREQ(target, "nowhere");

  // A read-only tree is still removed whole.
  RemoveTree(dir.file("to"));
  EXPECT_FALSE(g_file_test(dir.file("to").c_str(), G_FILE_TEST_EXISTS));
  chmod(dir.file("from/share").c_str(), 0755);
}

TEST(CopyFolderTest, ASpecialFileIsRefusedAndThePartialCopyRemoved) {
  TempDir dir;
  dir.write("from/a.txt", "a");
  ASSERT_EQ(mkfifo(dir.file("from/pipe").c_str(), 0600), 0);
  std::string problem = CopyFolder(dir.file("from"), dir.file("to"));
  EXPECT_EQ(problem, dir.file("from/pipe") + ": neither a file, a folder nor a link");
  EXPECT_FALSE(g_file_test(dir.file("to").c_str(), G_FILE_TEST_EXISTS));
  EXPECT_TRUE(g_file_test(dir.file("from/a.txt").c_str(), G_FILE_TEST_EXISTS));
}

TEST(CopyFolderTest, AnExistingTargetIsNeverWrittenInto) {
  TempDir dir;
  dir.write("from/a.txt", "new");
  dir.write("to/a.txt", "someone else's");
  EXPECT_NE(CopyFolder(dir.file("from"), dir.file("to")), "");
  EXPECT_EQ(TempDir::Read(dir.file("to/a.txt")), "someone else's");
}

TEST(CopyFolderTest, ALinkIsNotAFolderToCopy) {
  TempDir dir;
  dir.write("real/a.txt", "a");
  ASSERT_EQ(symlink(dir.file("real").c_str(), dir.file("from").c_str()), 0);
  EXPECT_EQ(CopyFolder(dir.file("from"), dir.file("to")), dir.file("from") + ": not a folder");
  EXPECT_FALSE(g_file_test(dir.file("to").c_str(), G_FILE_TEST_EXISTS));
}

TEST(CopyFolderTest, TheCopyIsNeverWritableByGroupOrOthers) {
  TempDir dir;
  dir.write("from/bin/orvane", "#!/bin/sh\n");
  dir.write("from/share/a.txt", "a");
  ASSERT_EQ(chmod(dir.file("from/bin/orvane").c_str(), 06777), 0);
  ASSERT_EQ(chmod(dir.file("from/share/a.txt").c_str(), 0666), 0);
  ASSERT_EQ(chmod(dir.file("from/share").c_str(), 01777), 0);
  ASSERT_EQ(chmod(dir.file("from/bin").c_str(), 02775), 0);
  ASSERT_EQ(chmod(dir.file("from").c_str(), 0777), 0);

  ASSERT_EQ(CopyFolder(dir.file("from"), dir.file("to")), "");
  EXPECT_EQ(ModeOf(dir.file("to")) & 07777, 0755u);
  EXPECT_EQ(ModeOf(dir.file("to/bin")) & 07777, 0755u);
  EXPECT_EQ(ModeOf(dir.file("to/share")) & 07777, 0755u);
  EXPECT_EQ(ModeOf(dir.file("to/bin/orvane")) & 07777, 0755u);
  EXPECT_EQ(ModeOf(dir.file("to/share/a.txt")) & 07777, 0644u);
}

TEST(StageBesideTest, ACopyOnAnotherFileSystemCarriesOnlySafeModes) {
  TempDir dir;
  char pattern[] = "/dev/shm/orvane-test-XXXXXX";
  if (!g_mkdtemp(pattern))
    GTEST_SKIP() << "no /dev/shm to put the candidate on another file system";
  std::string other = pattern;
  struct stat shm, here;
  if (stat(other.c_str(), &shm) != 0 || stat(dir.path().c_str(), &here) != 0 ||
      shm.st_dev == here.st_dev) {
    RemoveTree(other);
    GTEST_SKIP() << "/dev/shm is on the same file system as " << dir.path();
  }
  TempDir::WriteFile(other + "/Orvane/bin/orvane", "x");
  chmod((other + "/Orvane/bin/orvane").c_str(), 0777);
  chmod((other + "/Orvane/bin").c_str(), 0777);
  chmod((other + "/Orvane").c_str(), 0777);
  g_mkdir_with_parents(dir.file("apps/Orvane").c_str(), 0755);
  Staged staged = StageBeside(other + "/Orvane", dir.file("apps/Orvane"), "Orvane.new-1");
  RemoveTree(other);
  ASSERT_EQ(staged.folder, dir.file("apps/Orvane.new-1")) << staged.error;
  EXPECT_TRUE(staged.copied);
  EXPECT_EQ(ModeOf(staged.folder) & 07777, 0755u);
  EXPECT_EQ(ModeOf(staged.folder + "/bin") & 07777, 0755u);
  EXPECT_EQ(ModeOf(staged.folder + "/bin/orvane") & 07777, 0755u);
}

TEST(StageBesideTest, OnOneFileSystemTheCandidateItselfIsStaged) {
  TempDir dir;
  dir.write("work/Orvane/bin/orvane", "x");
  g_mkdir_with_parents(dir.file("apps/Orvane").c_str(), 0755);
  Staged staged = StageBeside(dir.file("work/Orvane"), dir.file("apps/Orvane"), "Orvane.new-1");
  EXPECT_EQ(staged.folder, dir.file("work/Orvane"));
  EXPECT_FALSE(staged.copied);
  EXPECT_FALSE(g_file_test(dir.file("apps/Orvane.new-1").c_str(), G_FILE_TEST_EXISTS));
}

TEST(StageBesideTest, AMissingCandidateIsAnError) {
  TempDir dir;
  g_mkdir_with_parents(dir.file("apps/Orvane").c_str(), 0755);
  Staged staged = StageBeside(dir.file("work/Orvane"), dir.file("apps/Orvane"), "Orvane.new-1");
  EXPECT_EQ(staged.folder, "");
  EXPECT_NE(staged.error.find("work/Orvane"), std::string::npos) << staged.error;
}

} // namespace
} // namespace orvane
