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

} // namespace
} // namespace orvane
