#include "base/LogThrottle.h"

#include <gtest/gtest.h>

namespace orvane {
namespace {

TEST(LogThrottleTest, OneLineAnIntervalPerSourceAndACountOfTheRest) {
  double now = 100;
  LogThrottle throttle([&] { return now; }, 1.0);
  int source = 0;
  long held_back = -1;
  EXPECT_TRUE(throttle.admit(&source, held_back));
  EXPECT_EQ(held_back, 0);
  for (int i = 0; i < 3; ++i) {
    now += 0.2;
    EXPECT_FALSE(throttle.admit(&source, held_back));
  }
  now += 0.4; // a second after the first line
  EXPECT_TRUE(throttle.admit(&source, held_back));
  EXPECT_EQ(held_back, 3);
  now += 5;
  EXPECT_TRUE(throttle.admit(&source, held_back));
  EXPECT_EQ(held_back, 0);
}

TEST(LogThrottleTest, SourcesAreThrottledApart) {
  double now = 0;
  LogThrottle throttle([&] { return now; }, 1.0);
  int first = 0, second = 0;
  long held_back = 0;
  EXPECT_TRUE(throttle.admit(&first, held_back));
  EXPECT_TRUE(throttle.admit(&second, held_back));
  EXPECT_FALSE(throttle.admit(&first, held_back));
  EXPECT_FALSE(throttle.admit(&second, held_back));
}

} // namespace
} // namespace orvane
