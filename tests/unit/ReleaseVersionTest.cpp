#include "update/ReleaseVersion.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace orvane {
namespace {

int Order(const std::string& a, const std::string& b) {
  int forward = CompareReleaseVersions(a, b);
  int backward = CompareReleaseVersions(b, a);
  EXPECT_EQ(forward, -backward) << a << " vs " << b;
  EXPECT_TRUE(forward == -1 || forward == 0 || forward == 1) << forward;
  return forward;
}

TEST(ReleaseVersionTest, NumbersComparePartByPartAsNumbers) {
  EXPECT_EQ(Order("1.0.0", "2.0.0"), -1);
  EXPECT_EQ(Order("1.2.3", "1.2.3"), 0);
  EXPECT_EQ(Order("1.9", "1.10"), -1);
  EXPECT_EQ(Order("1.10.0", "1.9.9"), 1);
  EXPECT_EQ(Order("0.9", "1.0"), -1);
  EXPECT_EQ(Order("10", "9"), 1);
  // Leading zeros do not count.
  EXPECT_EQ(Order("1.02", "1.2"), 0);
  EXPECT_EQ(Order("007.0", "7.0"), 0);
  EXPECT_EQ(Order("0.0", "00.000"), 0);
  // The version that runs out of parts first is older.
  EXPECT_EQ(Order("1.2", "1.2.0"), -1);
  EXPECT_EQ(Order("1", "1.0"), -1);
  EXPECT_EQ(Order("1.3", "1.2.9"), 1);
}

TEST(ReleaseVersionTest, ASuffixIsOlderThanNoneAndSuffixesCompareAsText) {
  EXPECT_EQ(Order("1.3.0-rc1", "1.3.0"), -1);
  EXPECT_EQ(Order("1.3.0-rc1", "1.2.9"), 1);
  EXPECT_EQ(Order("1.3.0-rc1", "1.3.0-rc2"), -1);
  EXPECT_EQ(Order("1.3.0-rc10", "1.3.0-rc2"), -1); // as text, like the site
  EXPECT_EQ(Order("1.3.0-B", "1.3.0-a"), -1);
  EXPECT_EQ(Order("1.3.0-rc1", "1.3.0-rc1"), 0);
  EXPECT_EQ(Order("1.0-beta.2", "1.0-beta.10"), 1);
  EXPECT_EQ(Order("1.0.0-rc1", "1.0-rc1"), 1);
}

TEST(ReleaseVersionTest, HugeNumbersAndManyPartsNeedNoArithmetic) {
  std::string huge(5000, '9');
  EXPECT_EQ(Order(huge, "1"), 1);
  EXPECT_EQ(Order(huge, huge + "0"), -1);
  EXPECT_EQ(Order("1." + huge, "1." + huge), 0);
  EXPECT_EQ(Order("1." + huge + "8", "1." + huge + "9"), -1);
  EXPECT_EQ(Order("18446744073709551616", "18446744073709551615"), 1); // 2^64 vs 2^64-1
  EXPECT_EQ(Order("0000000000000000000000001", "1"), 0);
  std::string many;
  for (int i = 0; i < 100000; ++i)
    many += (i ? ".1" : "1");
  EXPECT_EQ(Order(many, many), 0);
  EXPECT_EQ(Order(many, many + ".0"), -1);
  EXPECT_EQ(Order(many + "-rc", many), -1);
  EXPECT_EQ(Order(many, "2"), -1);
}

TEST(ReleaseVersionTest, TextThatIsNoVersionIsOlderThanEveryVersion) {
  const std::vector<std::string> not_versions = {
      "",         "-",         "-rc1",
      "1.",       ".1",        "1..2",
      "1.2-",     "1.2-rc 1",  "v1.2",
      "1.2a",     "1.2-rc/1",  "one",
      " 1.2",     "1.2\n",     "١.٢", // Arabic-Indic digits
      "1.2-rc-1", "1.2+build", std::string("1\0", 2),
      "\xff\xfe"};
  for (const std::string& text : not_versions) {
    EXPECT_EQ(Order(text, "0"), -1) << text;
    EXPECT_EQ(Order(text, "0.0.0-a"), -1) << text;
    EXPECT_EQ(Order(text, text), 0) << text;
  }
  // Two texts that are no version are the same only when they are equal.
  EXPECT_EQ(Order("abc", "abd"), -1);
  EXPECT_EQ(Order("", "x"), -1);
}

TEST(ReleaseVersionTest, ShownVersionsArePrintableAndShort) {
  EXPECT_EQ(ShownVersion("1.0.0-rc1"), "1.0.0-rc1");
  EXPECT_EQ(ShownVersion("1.0\n=== Orvane"), "1.0\\x0a===\\x20Orvane");
  EXPECT_EQ(ShownVersion("a\\b\x7f\xc3\xa9"), "a\\x5cb\\x7f\\xc3\\xa9");
  EXPECT_EQ(ShownVersion(std::string(200, '9')), std::string(64, '9') + "…");
  EXPECT_EQ(ShownVersion(std::string(64, '9')), std::string(64, '9'));
  EXPECT_EQ(ShownVersion(""), "");
}

} // namespace
} // namespace orvane
