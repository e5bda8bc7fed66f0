// Unit tests run in a throwaway home: every XDG folder points into it, so
// settings, the log and the library never touch the user's own.
#include "support/TempDir.h"

#include <gtest/gtest.h>

int main(int argc, char** argv) {
  orvane::UseThrowawayHome();
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
