#include "agent/SparringWindow.h"

#include <gtest/gtest.h>

namespace orvane {
namespace {

TEST(SparAddressTest, BaseLosesItsSlashSpaceIsEncodedSlashStays) {
  EXPECT_EQ(SparAddress("http://127.0.0.1:8000/", "cs/0101123 v2"),
            "http://127.0.0.1:8000/?sparwin=1#spar/cs/0101123%20v2");
  EXPECT_EQ(SparAddress("https://papers.example//", "2401.01234"),
            "https://papers.example/?sparwin=1#spar/2401.01234");
}

TEST(SparAddressTest, CharactersOutsideAPathAreEncoded) {
  EXPECT_EQ(SparAddress("http://h", "a#b?c%d\"é"),
            "http://h/?sparwin=1#spar/a%23b%3Fc%25d%22%C3%A9");
  EXPECT_EQ(SparAddress("http://h", "x!$&'()*+,;=:@~_.-"),
            "http://h/?sparwin=1#spar/x!$&'()*+,;=:@~_.-");
}

TEST(SparTargetFrameTest, NinetyPercentCentredInTheVisibleFrame) {
  Rect target = SparTargetFrame({0, 25, 1440, 875});
  EXPECT_DOUBLE_EQ(target.x, 72);
  EXPECT_DOUBLE_EQ(target.y, 25 + 43.75);
  EXPECT_DOUBLE_EQ(target.width, 1296);
  EXPECT_DOUBLE_EQ(target.height, 787.5);
}

TEST(SparMinimumSizeTest, TheMinimumGivesWayToASmallerFrameTheProgramSets) {
  EXPECT_EQ(SparMinimumSize({1296, 810}), (Size{900, 600}));
  EXPECT_EQ(SparMinimumSize({900, 600}), (Size{900, 600}));
  // The chat half of a 1440 x 900 screen, less the decorations.
  EXPECT_EQ(SparMinimumSize({718, 875}), (Size{718, 600}));
  EXPECT_EQ(SparMinimumSize({1200, 400}), (Size{900, 400}));
  // Never below one point, whatever the frame.
  EXPECT_EQ(SparMinimumSize({0, -50}), (Size{1, 1}));
}

} // namespace
} // namespace orvane
