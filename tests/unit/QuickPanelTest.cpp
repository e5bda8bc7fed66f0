#include "capture/QuickPanel.h"
#include "capture/HandoffFolder.h"
#include "capture/QueryEscape.h"
#include "capture/ScreenContainingPoint.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace orvane {
namespace {

TEST(QueryEscapeTest, OnlyUnreservedCharactersStay) {
  EXPECT_EQ(QueryEscape("AZaz09-._~"), "AZaz09-._~");
  EXPECT_EQ(QueryEscape("a b&c=d/e?f"), "a%20b%26c%3Dd%2Fe%3Ff");
  EXPECT_EQ(QueryEscape("naïve Ünïcode"), "na%C3%AFve%20%C3%9Cn%C3%AFcode");
  EXPECT_EQ(QueryEscape("+#%\n"), "%2B%23%25%0A");
}

TEST(PanelAddressTest, ThreeTrailingSlashesLeaveOneBeforeTheQuery) {
  EXPECT_EQ(PanelAddress("http://127.0.0.1:8000///", "two words"),
            "http://127.0.0.1:8000/?add=two%20words");
  EXPECT_EQ(PanelAddress("http://127.0.0.1:8000/", ""), "http://127.0.0.1:8000");
}

TEST(CentredPanelFrameTest, PanelIsCentredAndRoundedHalfAwayFromZero) {
  Rect vf{0, 0, 1441, 877};
  EXPECT_EQ(CentredPanelFrame(vf, {560, 680}), (Rect{441, 99, 560, 680}));
  EXPECT_EQ(CentredPanelFrame({-1920, 0, 1921, 1080}, {560, 680}), (Rect{-1240, 200, 560, 680}));
}

TEST(CentredPanelFrameTest, LargerPanelShrinksToTheVisibleFrameAtItsOrigin) {
  Rect vf{1920, 40, 500, 600};
  EXPECT_EQ(CentredPanelFrame(vf, {560, 680}), vf);
}

class HandoffTest : public ::testing::Test {
protected:
  std::string write(const std::string& name, const std::string& text, double age_seconds) {
    std::string path = dir.write(name, text);
    struct timeval now;
    gettimeofday(&now, nullptr);
    struct timeval times[2];
    times[0] = times[1] = {now.tv_sec - long(age_seconds), now.tv_usec};
    utimes(path.c_str(), times);
    return path;
  }
  TempDir dir;
};

TEST_F(HandoffTest, FreshFileIsReadOnceAndDeleted) {
  std::string path = write("selection.txt", "a passage", 1);
  EXPECT_EQ(TakeHandoffFile(path), "a passage");
  EXPECT_FALSE(g_file_test(path.c_str(), G_FILE_TEST_EXISTS));
  EXPECT_EQ(TakeHandoffFile(path), std::nullopt);
}

TEST_F(HandoffTest, SixteenSecondOldFileIsDeletedAndIgnored) {
  std::string path = write("selection.txt", "stale", 16);
  EXPECT_EQ(TakeHandoffFile(path), std::nullopt);
  EXPECT_FALSE(g_file_test(path.c_str(), G_FILE_TEST_EXISTS));
}

TEST_F(HandoffTest, AFifoOrALinkInItsPlaceGivesNothingWithoutWaitingAndIsRemoved) {
  std::string fifo = dir.file("selection.txt");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(TakeHandoffFile(fifo), std::nullopt); // a writer never comes: no wait
  EXPECT_FALSE(g_file_test(fifo.c_str(), G_FILE_TEST_EXISTS));

  std::string outside = write("outside.txt", "not a hand-off", 1);
  std::string link = dir.file("quote.txt");
  ASSERT_EQ(symlink(outside.c_str(), link.c_str()), 0);
  EXPECT_EQ(TakeHandoffFile(link), std::nullopt);
  EXPECT_FALSE(g_file_test(link.c_str(), G_FILE_TEST_IS_SYMLINK));
  EXPECT_EQ(TempDir::Read(outside), "not a hand-off");
}

TEST_F(HandoffTest, EmptyFileGivesNothing) {
  std::string path = write("selection.txt", "", 0);
  EXPECT_EQ(TakeHandoffFile(path), std::nullopt);
  EXPECT_FALSE(g_file_test(path.c_str(), G_FILE_TEST_EXISTS));
}

TEST(ScreenHintTest, ExactlyTwoBlankSeparatedParts) {
  EXPECT_EQ(ParseScreenHint("100.500000 -20.250000"), (Point{100.5, -20.25}));
  EXPECT_EQ(ParseScreenHint("1 2 3"), std::nullopt);
  EXPECT_EQ(ParseScreenHint("12"), std::nullopt);
  EXPECT_EQ(ParseScreenHint("1  2"), std::nullopt);
  EXPECT_EQ(ParseScreenHint("x 7"), (Point{0, 7}));
}

TEST(HandoffFolderTest, FolderIsInTheCacheUnderTheApplicationId) {
  EXPECT_EQ(HandoffFolder(), std::string(g_getenv("XDG_CACHE_HOME")) + "/com.tarnwick.orvane");
  EXPECT_TRUE(g_file_test(HandoffFolder().c_str(), G_FILE_TEST_IS_DIR));
}

std::vector<Screen> TwoScreens() {
  return {Screen{0, {0, 0, 1440, 900}, {0, 0, 1440, 875}},
          Screen{1, {1440, 0, 1920, 1080}, {1440, 0, 1920, 1050}}};
}

TEST(ScreenContainingPointTest, PointInsideAScreenPicksIt) {
  EXPECT_EQ(ScreenContainingPoint(TwoScreens(), {100, 100})->index, 0);
  EXPECT_EQ(ScreenContainingPoint(TwoScreens(), {1500, 1000})->index, 1);
}

TEST(ScreenContainingPointTest, RightEdgeBelongsToTheNeighbour) {
  EXPECT_EQ(ScreenContainingPoint(TwoScreens(), {1440, 100})->index, 1);
}

TEST(ScreenContainingPointTest, TopEdgeWithoutNeighbourPicksTheNearest) {
  EXPECT_EQ(ScreenContainingPoint(TwoScreens(), {100, 900})->index, 0);
}

TEST(ScreenContainingPointTest, PointOutsideAllScreensPicksTheNearest) {
  EXPECT_EQ(ScreenContainingPoint(TwoScreens(), {1400, 1000})->index, 1);
  EXPECT_EQ(ScreenContainingPoint(TwoScreens(), {-50, 10})->index, 0);
}

TEST(ScreenContainingPointTest, TieKeepsTheEarlierScreen) {
  std::vector<Screen> apart = {Screen{0, {0, 0, 100, 100}, {}}, Screen{1, {200, 0, 100, 100}, {}}};
  EXPECT_EQ(ScreenContainingPoint(apart, {150, 50})->index, 0);
}

TEST(ScreenContainingPointTest, NoScreensGivesNothing) {
  EXPECT_EQ(ScreenContainingPoint({}, {0, 0}), std::nullopt);
}

} // namespace
} // namespace orvane

namespace orvane {
namespace {

TEST(ScreenOfFrameTest, TheCentreOfTheFrameDecides) {
  std::vector<Screen> screens = {Screen{0, {0, 0, 1440, 900}, {}},
                                 Screen{1, {1440, 0, 1920, 1080}, {}}};
  // Mostly on the second screen, though its corner is on the first.
  EXPECT_EQ(ScreenOfFrame(screens, {1000, 100, 1200, 600})->index, 1);
  EXPECT_EQ(ScreenOfFrame(screens, {100, 100, 1200, 600})->index, 0);
}

} // namespace
} // namespace orvane
