#include "library/LibraryFolder.h"

#include "base/Settings.h"
#include "library/PdfStore.h"
#include "support/LogCapture.h"

#include <fcntl.h>
#include <glib/gstdio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

namespace orvane {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LibraryFolderTest : public ::testing::Test {
protected:
  void SetUp() override { Settings::standard().remove(kLibraryBookmarkKey); }
  void TearDown() override { Settings::standard().remove(kLibraryBookmarkKey); }
  LogCapture log;
};

TEST_F(LibraryFolderTest, WithoutBookmarkTheDefaultIsCreatedAndRemembered) {
  std::string folder = LibraryFolder();
  EXPECT_EQ(folder, std::string(g_getenv("HOME")) + "/Documents/Orvane");
  EXPECT_TRUE(g_file_test(folder.c_str(), G_FILE_TEST_IS_DIR));
  auto stored = FolderBookmark::Parse(*Settings::standard().stringForKey(kLibraryBookmarkKey));
  ASSERT_TRUE(stored);
  EXPECT_EQ(stored->path, folder);
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(LibraryFolderTest, MovedFolderIsFollowedAndTheBookmarkResaved) {
  TempDir area;
  std::string chosen = area.file("Papers");
  g_mkdir(chosen.c_str(), 0755);
  ASSERT_TRUE(StoreLibraryFolderBookmark(chosen));
  EXPECT_EQ(LibraryFolder(), chosen);

  std::string moved = area.file("Renamed Papers");
  ASSERT_EQ(g_rename(chosen.c_str(), moved.c_str()), 0);
  EXPECT_EQ(LibraryFolder(), moved);
  auto stored = FolderBookmark::Parse(*Settings::standard().stringForKey(kLibraryBookmarkKey));
  EXPECT_EQ(stored->path, moved);
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(LibraryFolderTest, FolderMovedDeeperUnderTheGrandparentIsFound) {
  TempDir area;
  g_mkdir_with_parents(area.file("a/b/Library").c_str(), 0755);
  ASSERT_TRUE(StoreLibraryFolderBookmark(area.file("a/b/Library")));
  g_mkdir_with_parents(area.file("a/c").c_str(), 0755);
  ASSERT_EQ(g_rename(area.file("a/b/Library").c_str(), area.file("a/c/Library").c_str()), 0);
  auto bookmark = FolderBookmark::Parse(*Settings::standard().stringForKey(kLibraryBookmarkKey));
  ResolvedBookmark resolved = ResolveBookmark(*bookmark, "/nonexistent");
  EXPECT_EQ(resolved.outcome, BookmarkResolution::ResolvedStale);
  EXPECT_EQ(resolved.path, area.file("a/c/Library"));
}

TEST_F(LibraryFolderTest, UnmovedFolderResolvesWithoutBeingStale) {
  TempDir area;
  auto bookmark = FolderBookmark::For(area.path());
  ASSERT_TRUE(bookmark);
  ResolvedBookmark resolved = ResolveBookmark(*bookmark, "/nonexistent");
  EXPECT_EQ(resolved.outcome, BookmarkResolution::Resolved);
  EXPECT_EQ(resolved.path, area.path());
}

TEST_F(LibraryFolderTest, DeletedFolderFallsBackToTheDefault) {
  std::string gone;
  {
    TempDir area;
    gone = area.file("Lost");
    g_mkdir(gone.c_str(), 0755);
    ASSERT_TRUE(StoreLibraryFolderBookmark(gone));
  }
  std::string fallback = std::string(g_getenv("HOME")) + "/Documents/Orvane";
  g_rmdir(fallback.c_str());
  auto bookmark = FolderBookmark::Parse(*Settings::standard().stringForKey(kLibraryBookmarkKey));
  EXPECT_EQ(ResolveBookmark(*bookmark, "/nonexistent").outcome, BookmarkResolution::Unresolvable);
  EXPECT_EQ(LibraryFolder(), fallback);
  EXPECT_TRUE(g_file_test(fallback.c_str(), G_FILE_TEST_IS_DIR));
  EXPECT_THAT(log.messages(),
              ElementsAre("folder: bookmark did not resolve — back to the default"));
  auto stored = FolderBookmark::Parse(*Settings::standard().stringForKey(kLibraryBookmarkKey));
  EXPECT_EQ(stored->path, fallback);
}

TEST_F(LibraryFolderTest, GarbageInTheSettingFallsBackToTheDefault) {
  Settings::standard().setString(kLibraryBookmarkKey, "not a bookmark");
  EXPECT_EQ(LibraryFolder(), std::string(g_getenv("HOME")) + "/Documents/Orvane");
  EXPECT_THAT(log.messages(),
              ElementsAre("folder: bookmark did not resolve — back to the default"));
}

TEST_F(LibraryFolderTest, ReplacedFolderWithTheSameNameIsNotTheBookmarkedOne) {
  TempDir area;
  std::string original = area.file("Papers");
  g_mkdir(original.c_str(), 0755);
  auto bookmark = FolderBookmark::For(original);
  std::string elsewhere = area.file("Moved");
  g_rename(original.c_str(), elsewhere.c_str());
  g_mkdir(original.c_str(), 0755); // a new, different folder under the old name
  ResolvedBookmark resolved = ResolveBookmark(*bookmark, "/nonexistent");
  EXPECT_EQ(resolved.outcome, BookmarkResolution::ResolvedStale);
  EXPECT_EQ(resolved.path, elsewhere);
}

TEST_F(LibraryFolderTest, BookmarkRecordsTheFoldersBirthAndSurvivesTheSetting) {
  TempDir area;
  auto bookmark = FolderBookmark::For(area.path());
  ASSERT_TRUE(bookmark);
  struct statx info;
  ASSERT_EQ(statx(AT_FDCWD, area.path().c_str(), 0, STATX_BTIME, &info), 0);
  if (info.stx_mask & STATX_BTIME) {
    EXPECT_EQ(bookmark->birth_seconds, info.stx_btime.tv_sec);
    EXPECT_EQ(bookmark->birth_nanoseconds, info.stx_btime.tv_nsec);
  } else {
    EXPECT_EQ(bookmark->birth_seconds, 0);
  }
  auto parsed = FolderBookmark::Parse(bookmark->serialise());
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->birth_seconds, bookmark->birth_seconds);
  EXPECT_EQ(parsed->birth_nanoseconds, bookmark->birth_nanoseconds);
  // A bookmark stored before births were recorded still resolves.
  auto older = FolderBookmark::Parse(nlohmann::json{
      {"path", area.path()},
      {"device", bookmark->device},
      {"inode", bookmark->inode}}.dump());
  ASSERT_TRUE(older);
  EXPECT_EQ(ResolveBookmark(*older, "/nonexistent").outcome, BookmarkResolution::Resolved);
}

TEST_F(LibraryFolderTest, NewFolderThatInheritedTheInodeNumberIsNotTheBookmarkedOne) {
  // The bookmarked folder was deleted and its inode number went to a new
  // folder, made later: here, the same folder with the bookmark's birth
  // moved back a little.
  TempDir area;
  std::string folder = area.file("Papers");
  g_mkdir(folder.c_str(), 0755);
  auto bookmark = FolderBookmark::For(folder);
  ASSERT_TRUE(bookmark);
  if (bookmark->birth_seconds == 0)
    GTEST_SKIP() << "this file system records no birth times";
  bookmark->birth_seconds -= 100;
  EXPECT_EQ(ResolveBookmark(*bookmark, area.path()).outcome, BookmarkResolution::Unresolvable);
}

TEST_F(LibraryFolderTest, AccountMadeOnlyOfDotsIsTheDefault) {
  for (const char* name : {".", "..", "...", "./..", "%.%", "../../etc"})
    EXPECT_NE(SanitisedAccount(name).find_first_not_of('.'), std::string::npos) << name;
  EXPECT_EQ(SanitisedAccount("."), "default");
  EXPECT_EQ(SanitisedAccount(".."), "default");
  EXPECT_EQ(SanitisedAccount("..."), "default");
  EXPECT_EQ(SanitisedAccount("./.."), "default");
  EXPECT_EQ(SanitisedAccount("../../etc"), "....etc");
  EXPECT_EQ(SanitisedAccount(".a."), ".a.");
}

TEST_F(LibraryFolderTest, AccountFolderIsAlwaysAChildOfTheLibraryFolder) {
  std::string library = LibraryFolder();
  for (const char* name : {"..", ".", "/..", "..\\..", "", "jane"}) {
    VirtualScheduler scheduler;
    PdfStore store(scheduler);
    store.setAccount(name);
    std::string folder = store.folder();
    EXPECT_EQ(folder.substr(0, library.size() + 1), library + "/") << name;
    std::string rest = folder.substr(library.size() + 1);
    EXPECT_EQ(rest.find('/'), std::string::npos) << name;
    EXPECT_NE(rest.find_first_not_of('.'), std::string::npos) << name;
    EXPECT_TRUE(g_file_test(folder.c_str(), G_FILE_TEST_IS_DIR)) << name;
  }
  VirtualScheduler scheduler;
  PdfStore store(scheduler);
  store.setAccount("..");
  EXPECT_EQ(store.folder(), library + "/default");
}

} // namespace
} // namespace orvane
