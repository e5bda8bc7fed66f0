#include "library/LibraryFolder.h"

#include "base/Settings.h"
#include "support/LogCapture.h"

#include <glib/gstdio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

} // namespace
} // namespace orvane
