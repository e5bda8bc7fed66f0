#include "desktop/kwin/KWinBackend.h"

#include <gtest/gtest.h>

namespace orvane {
namespace {

TEST(KWinAccessibilityTest, TrustedOnlyWithEveryMeans) {
  KWinMeans means{true, true, true};
  int checks = 0;
  KWinAccessibility accessibility([&] {
    ++checks;
    return means;
  });
  EXPECT_TRUE(accessibility.isTrusted());
  EXPECT_EQ(accessibility.reasonNotTrusted(), "");
  // Without a bus to watch, asked anew each time: a portal that goes away
  // is noticed.
  means.global_shortcuts = false;
  EXPECT_FALSE(accessibility.isTrusted());
  EXPECT_EQ(checks, 3);
}

TEST(KWinAccessibilityTest, TheReasonNamesEachMissingMeansAndTheWayOut) {
  for (int mask = 0; mask < 7; ++mask) {
    KWinMeans means{bool(mask & 1), bool(mask & 2), bool(mask & 4)};
    KWinAccessibility accessibility([means] { return means; });
    EXPECT_FALSE(accessibility.isTrusted()) << mask;
    std::string reason = accessibility.reasonNotTrusted();
    EXPECT_EQ(reason.find("KWin does not answer") != std::string::npos, !means.kwin_scripting);
    EXPECT_EQ(reason.find("no global shortcuts") != std::string::npos, !means.global_shortcuts);
    EXPECT_EQ(reason.find("no data-control") != std::string::npos, !means.data_control);
    EXPECT_NE(reason.find("orvane --capture-selection"), std::string::npos);
  }
}

} // namespace
} // namespace orvane
