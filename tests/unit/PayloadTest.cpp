#include "bridge/Payload.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orvane {
namespace {

using testing::Optional;

TEST(PayloadTest, NameMemberTakesNonEmptyStringsWithoutNul) {
  nlohmann::json body = {{"id", "2401.01234"}, {"empty", ""}, {"number", 7},
                         {"nul", std::string("a\0b", 3)}, {"path", "/tmp/x.pdf"}};
  EXPECT_THAT(NameMember(body, "id"), Optional(std::string("2401.01234")));
  EXPECT_THAT(NameMember(body, "path"), Optional(std::string("/tmp/x.pdf")));
  EXPECT_EQ(NameMember(body, "empty"), std::nullopt);
  EXPECT_EQ(NameMember(body, "number"), std::nullopt);
  EXPECT_EQ(NameMember(body, "nul"), std::nullopt);
  EXPECT_EQ(NameMember(body, "missing"), std::nullopt);
  EXPECT_EQ(NameMember(nlohmann::json::array({"id"}), "id"), std::nullopt);
}

} // namespace
} // namespace orvane
