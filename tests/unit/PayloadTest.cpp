#include "bridge/Payload.h"

#include <cmath>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>

namespace orvane {
namespace {

using testing::Optional;

TEST(PayloadTest, NameMemberTakesNonEmptyStringsWithoutNul) {
  nlohmann::json body = {{"id", "2401.01234"},
                         {"empty", ""},
                         {"number", 7},
                         {"nul", std::string("a\0b", 3)},
                         {"path", "/tmp/x.pdf"}};
  EXPECT_THAT(NameMember(body, "id"), Optional(std::string("2401.01234")));
  EXPECT_THAT(NameMember(body, "path"), Optional(std::string("/tmp/x.pdf")));
  EXPECT_EQ(NameMember(body, "empty"), std::nullopt);
  EXPECT_EQ(NameMember(body, "number"), std::nullopt);
  EXPECT_EQ(NameMember(body, "nul"), std::nullopt);
  EXPECT_EQ(NameMember(body, "missing"), std::nullopt);
  EXPECT_EQ(NameMember(nlohmann::json::array({"id"}), "id"), std::nullopt);
}

TEST(PayloadTest, NumberMemberReadsNumbersAndNumericStrings) {
  nlohmann::json body = {{"n", 12.5},      {"i", -3},      {"s", "1700000000.25"},
                         {"word", "soon"}, {"bool", true}, {"null", nullptr}};
  EXPECT_DOUBLE_EQ(NumberMember(body, "n"), 12.5);
  EXPECT_DOUBLE_EQ(NumberMember(body, "i"), -3);
  EXPECT_DOUBLE_EQ(NumberMember(body, "s"), 1700000000.25);
  EXPECT_EQ(NumberMember(body, "word"), 0);
  EXPECT_EQ(NumberMember(body, "bool"), 0);
  EXPECT_EQ(NumberMember(body, "null"), 0);
  EXPECT_EQ(NumberMember(body, "missing"), 0);
  EXPECT_EQ(NumberMember(nlohmann::json::array({1}), "n"), 0);
}

TEST(PayloadTest, NumberMemberThatIsNotFiniteReadsAsAbsent) {
  nlohmann::json body = {{"nan", std::nan("")},
                         {"inf", std::numeric_limits<double>::infinity()},
                         {"minus_inf", -std::numeric_limits<double>::infinity()}};
  for (const char* text : {"1e400", "-1e400", "inf", "-inf", "Infinity", "nan", "NaN", "nan(12)"})
    body[text] = text;
  for (const auto& [key, value] : body.items())
    EXPECT_EQ(NumberMember(body, key.c_str()), 0) << key;
  // Parsed text can carry the same: a number too large for a double.
  nlohmann::json parsed = nlohmann::json::parse(R"({"mtime":"1e400"})");
  EXPECT_EQ(NumberMember(parsed, "mtime"), 0);
}

} // namespace
} // namespace orvane

namespace orvane {
namespace {

TEST(MessageBodyTest, JsonTextIsParsed) {
  EXPECT_EQ(ParseMessageBody(R"({"action":"hello","account":"a"})"),
            (nlohmann::json{{"action", "hello"}, {"account", "a"}}));
  EXPECT_EQ(ParseMessageBody("42"), nlohmann::json(42));
  EXPECT_EQ(ParseMessageBody(R"({"s":"[[[[{{{{"})"), (nlohmann::json{{"s", "[[[[{{{{"}}));
}

TEST(MessageBodyTest, TextThatIsNotJsonIsNull) {
  for (std::string text :
       {std::string(""), std::string("{"), std::string("undefined"), std::string("{\"a\":1}x"),
        std::string("\"\xff\""), std::string("{\"a\":\"b\0\"}", 9), std::string(1 << 20, '[')}) {
    EXPECT_TRUE(ParseMessageBody(text).is_null()) << text.substr(0, 40);
  }
}

TEST(MessageBodyTest, DeeplyNestedJsonIsNull) {
  std::string deep = std::string(100000, '[') + std::string(100000, ']');
  EXPECT_TRUE(ParseMessageBody(deep).is_null());
  std::string shallow = std::string(20, '[') + std::string(20, ']');
  EXPECT_TRUE(ParseMessageBody(shallow).is_array());
}

} // namespace
} // namespace orvane
