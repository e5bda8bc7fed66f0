#include "base/BuildInfo.h"

#include <gtest/gtest.h>
#include <regex>

namespace orvane {
namespace {

TEST(BuildInfoTest, VersionAndIdentifierHaveTheirFixedForms) {
  EXPECT_STREQ(kVersion, "1.0");
  EXPECT_TRUE(std::regex_match(kBuildIdentifier, std::regex("20[0-9]{10}-[0-9a-f]{7}")))
      << kBuildIdentifier;
}

TEST(BuildInfoTest, DateAndTimeAreTheCompilersText) {
  EXPECT_TRUE(
      std::regex_match(kBuildDate, std::regex("(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) "
                                              "[ 123][0-9] 20[0-9]{2}")))
      << kBuildDate;
  EXPECT_TRUE(std::regex_match(kBuildTime, std::regex("[0-2][0-9]:[0-5][0-9]:[0-5][0-9]")))
      << kBuildTime;
}

TEST(BuildInfoTest, BundledSiteIsAnAbsoluteFolder) {
  std::string folder = kBundledSiteFolder;
  ASSERT_FALSE(folder.empty());
  EXPECT_EQ(folder.front(), '/');
  EXPECT_EQ(folder.substr(folder.size() - 5), "/site");
}

} // namespace
} // namespace orvane
