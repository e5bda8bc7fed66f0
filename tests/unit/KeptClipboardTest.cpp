// The file through which a capture process hands its restored CLIPBOARD to
// the background keeper: written and read back exactly, anything else
// refused with a reason.
#include "desktop/session/KeptClipboard.h"

#include <gtest/gtest.h>

namespace orvane {
namespace {

KeptClipboard Sample() {
  KeptClipboard kept;
  kept.targets = {{"UTF8_STRING", "UTF8_STRING", 8, "Grüße"},
                  {"image/png", "image/png", 8, std::string("\0\x01\xff\n", 4)},
                  {"application/x-words", "INTEGER", 32, std::string(8, '\x7f')},
                  {"application/x-halves", "INTEGER", 16, std::string(2, '\x01')}};
  kept.owner_window = 0x1e00004;
  kept.lifetime = std::chrono::minutes(10);
  return kept;
}

std::string Why(std::string_view text) {
  std::string why;
  EXPECT_EQ(ParseKeptClipboard(text, &why), std::nullopt) << text;
  return why;
}

TEST(KeptClipboardTest, RoundTripsEveryByte) {
  KeptClipboard kept = Sample();
  EXPECT_EQ(ParseKeptClipboard(SerializeKeptClipboard(kept)), kept);
  KeptClipboard empty;
  EXPECT_EQ(ParseKeptClipboard(SerializeKeptClipboard(empty)), empty);
}

TEST(KeptClipboardTest, EveryTruncationIsRefused) {
  std::string text = SerializeKeptClipboard(Sample());
  for (size_t length = 0; length < text.size(); ++length)
    EXPECT_EQ(ParseKeptClipboard(text.substr(0, length)), std::nullopt) << length;
}

TEST(KeptClipboardTest, MalformedFilesAreRefusedWithAReason) {
  EXPECT_EQ(Why(""), "not a kept clipboard");
  EXPECT_EQ(Why("something else\n"), "not a kept clipboard");
  EXPECT_EQ(Why("orvane-kept-clipboard 1\nlifetime -5\nowner 0\ntargets 0\n"), "malformed header");
  EXPECT_EQ(Why("orvane-kept-clipboard 1\nlifetime 99999999999999999999999\nowner 0\ntargets 0\n"),
            "malformed header");
  EXPECT_EQ(Why("orvane-kept-clipboard 1\nlifetime 86400001\nowner 0\ntargets 0\n"),
            "lifetime too long");
  EXPECT_EQ(Why("orvane-kept-clipboard 1\nlifetime 1\nowner 0\ntargets 1025\n"),
            "too many targets");
  EXPECT_EQ(Why("orvane-kept-clipboard 1\nlifetime 1\nowner 0\ntargets 1\ntarget 0 1 8 0\nT\n"),
            "bad target name");
  static const char kNulInName[] = "orvane-kept-clipboard 1\nlifetime 1\nowner 0\ntargets 1\n"
                                   "target 1 1 8 0\n\0T\n";
  EXPECT_EQ(Why(std::string_view(kNulInName, sizeof kNulInName - 1)), "bad target name");
  EXPECT_EQ(Why("orvane-kept-clipboard 1\nlifetime 1\nowner 0\ntargets 1\ntarget 1 1 12 0\nTT\n"),
            "bad format");
  EXPECT_EQ(
      Why("orvane-kept-clipboard 1\nlifetime 1\nowner 0\ntargets 1\ntarget 1 1 32 3\nTTabc\n"),
      "bytes do not fill whole items");
  EXPECT_EQ(Why("orvane-kept-clipboard 1\nlifetime 1\nowner 0\ntargets 1\n"
                "target 1 1 8 67108865\nTT"),
            "too many bytes");
  EXPECT_EQ(Why("orvane-kept-clipboard 1\nlifetime 1\nowner 0\ntargets 0\nextra"),
            "trailing bytes");
}

} // namespace
} // namespace orvane
