// The agent's standard output split into lines, byte by byte: what counts as
// a line, what is dropped, and that the way the bytes are chunked never
// changes the lines that come out.
#include "agent/LineSplitter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace orvane {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::vector<std::string> Feed(LineSplitter& splitter, const std::vector<std::string>& chunks) {
  std::vector<std::string> lines;
  for (const auto& chunk : chunks)
    splitter.append(chunk, lines);
  return lines;
}

// Every line of a stream: those ended by a line feed while streaming, then
// what the end flushes.
std::vector<std::string> AllLines(const std::vector<std::string>& chunks) {
  LineSplitter splitter;
  std::vector<std::string> lines = Feed(splitter, chunks);
  for (auto& line : splitter.finish())
    lines.push_back(line);
  return lines;
}

// The rule written out the slow way, as the reference for chunked feeding.
std::vector<std::string> ReferenceLines(const std::string& stream) {
  std::vector<std::string> lines;
  size_t start = 0;
  for (;;) {
    size_t at = stream.find('\n', start);
    if (at == std::string::npos)
      break;
    std::string line = stream.substr(start, at - start);
    if (!line.empty() && IsValidUtf8(line))
      lines.push_back(line);
    start = at + 1;
  }
  std::string rest = stream.substr(start);
  if (!rest.empty() && IsValidUtf8(rest))
    lines.push_back(rest);
  return lines;
}

TEST(AgentLineSplitterTest, CompleteLinesComeOutAsTheyArrive) {
  LineSplitter splitter;
  std::vector<std::string> lines;
  EXPECT_EQ(splitter.append("first\nsecond\nthi", lines), 2u);
  EXPECT_THAT(lines, ElementsAre("first", "second"));
  EXPECT_EQ(splitter.pending(), 3u);
  EXPECT_EQ(splitter.append("rd\n", lines), 1u);
  EXPECT_THAT(lines, ElementsAre("first", "second", "third"));
  EXPECT_EQ(splitter.pending(), 0u);
  EXPECT_THAT(splitter.finish(), IsEmpty());
}

TEST(AgentLineSplitterTest, LastLineWithoutLineFeedComesOutAtTheEnd) {
  LineSplitter splitter;
  std::vector<std::string> lines;
  splitter.append("A\nB", lines);
  EXPECT_THAT(lines, ElementsAre("A"));
  EXPECT_THAT(splitter.finish(), ElementsAre("B"));
  EXPECT_EQ(splitter.pending(), 0u);
  EXPECT_THAT(splitter.finish(), IsEmpty());
}

TEST(AgentLineSplitterTest, EmptyLinesAreDropped) {
  EXPECT_THAT(AllLines({"one\n\ntwo\n\n\n"}), ElementsAre("one", "two"));
  EXPECT_THAT(AllLines({"\n"}), IsEmpty());
  EXPECT_THAT(AllLines({""}), IsEmpty());
}

TEST(AgentLineSplitterTest, CarriageReturnBeforeLineFeedStaysInTheLine) {
  EXPECT_THAT(AllLines({"dos\r\nline\r\n"}), ElementsAre("dos\r", "line\r"));
  // A carriage return alone is a character, not an end of line.
  EXPECT_THAT(AllLines({"a\rb\n"}), ElementsAre("a\rb"));
  EXPECT_THAT(AllLines({"\r\n"}), ElementsAre("\r"));
}

TEST(AgentLineSplitterTest, InvalidUtf8LineIsDroppedAndItsNeighboursKept) {
  EXPECT_THAT(AllLines({"before\n\xff\xfe\nafter\n"}), ElementsAre("before", "after"));
  // One bad byte spoils only its own line.
  EXPECT_THAT(AllLines({"caf\xe9\ncafé\n"}), ElementsAre("café"));
}

TEST(AgentLineSplitterTest, NonAsciiAndNulAreKept) {
  std::string with_nul("a\0b", 3);
  EXPECT_THAT(AllLines({"日本語 ⌥ 😀\n" + with_nul + "\n"}), ElementsAre("日本語 ⌥ 😀", with_nul));
}

TEST(AgentLineSplitterTest, MultiByteCharacterSplitAtEveryByteComesOutWhole) {
  for (std::string character : {"é", "€", "😀"}) {
    std::string line = "x" + character + "y";
    for (size_t cut = 1; cut < line.size(); ++cut) {
      LineSplitter splitter;
      std::vector<std::string> lines;
      splitter.append(line.substr(0, cut), lines);
      EXPECT_THAT(lines, IsEmpty());
      splitter.append(line.substr(cut) + "\n", lines);
      EXPECT_THAT(lines, ElementsAre(line)) << "cut at " << cut;
    }
  }
}

TEST(AgentLineSplitterTest, LineFeedAloneInAChunkEndsTheHeldLine) {
  LineSplitter splitter;
  EXPECT_THAT(Feed(splitter, {"held", "\n", "next", "\n"}), ElementsAre("held", "next"));
}

TEST(AgentLineSplitterTest, ByteByByteFeedingGivesTheSameLines) {
  std::string stream = "plain\n\nr\r\n\xc3\n€uro\n\xed\xa0\x80\nlast😀";
  std::vector<std::string> bytes;
  for (char c : stream)
    bytes.push_back(std::string(1, c));
  EXPECT_THAT(AllLines(bytes), ElementsAre("plain", "r\r", "€uro", "last😀"));
  EXPECT_EQ(AllLines(bytes), AllLines({stream}));
}

TEST(AgentLineSplitterTest, LongLineAcrossManyChunks) {
  std::string line(1 << 20, 'z');
  line[1000] = '\xc3';
  line[1001] = '\xa9';
  std::vector<std::string> chunks;
  for (size_t at = 0; at < line.size(); at += 65536)
    chunks.push_back(line.substr(at, 65536));
  chunks.back() += "\n";
  LineSplitter splitter;
  std::vector<std::string> lines = Feed(splitter, chunks);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], line);
}

TEST(AgentLineSplitterTest, FinishDecodesTheWholeRestAsOneText) {
  {
    LineSplitter splitter;
    EXPECT_THAT(splitter.finish("a\n\nb\nc"), ElementsAre("a", "b", "c"));
  }
  {
    // One invalid byte anywhere in the rest: nothing at all is flushed.
    LineSplitter splitter;
    EXPECT_THAT(splitter.finish("a\n\xff\nb"), IsEmpty());
  }
  {
    LineSplitter splitter;
    std::vector<std::string> lines;
    splitter.append("held \xe2\x82", lines);
    EXPECT_THAT(splitter.finish(), IsEmpty()); // a character cut off by the end
    EXPECT_EQ(splitter.pending(), 0u);
  }
  {
    LineSplitter splitter;
    std::vector<std::string> lines;
    splitter.append("held \xe2\x82", lines);
    EXPECT_THAT(splitter.finish("\xac tail"), ElementsAre("held € tail"));
  }
}

TEST(AgentLineSplitterTest, Utf8ValidationIsStrict) {
  EXPECT_TRUE(IsValidUtf8(""));
  EXPECT_TRUE(IsValidUtf8("ascii only, long enough for the fast path"));
  EXPECT_TRUE(IsValidUtf8("\xc2\x80\xdf\xbf"));                 // U+0080, U+07FF
  EXPECT_TRUE(IsValidUtf8("\xe0\xa0\x80\xef\xbf\xbf"));         // U+0800, U+FFFF
  EXPECT_TRUE(IsValidUtf8("\xf0\x90\x80\x80\xf4\x8f\xbf\xbf")); // U+10000, U+10FFFF
  EXPECT_TRUE(IsValidUtf8(std::string("\0", 1)));
  EXPECT_FALSE(IsValidUtf8("\x80"));             // continuation byte alone
  EXPECT_FALSE(IsValidUtf8("\xc0\xaf"));         // overlong "/"
  EXPECT_FALSE(IsValidUtf8("\xe0\x80\xaf"));     // overlong "/"
  EXPECT_FALSE(IsValidUtf8("\xf0\x80\x80\xaf")); // overlong "/"
  EXPECT_FALSE(IsValidUtf8("\xed\xa0\x80"));     // surrogate U+D800
  EXPECT_FALSE(IsValidUtf8("\xf4\x90\x80\x80")); // above U+10FFFF
  EXPECT_FALSE(IsValidUtf8("\xf8\x88\x80\x80\x80"));
  EXPECT_FALSE(IsValidUtf8("\xfe"));
  EXPECT_FALSE(IsValidUtf8("abc\xe2\x82"));          // cut off at the end
  EXPECT_FALSE(IsValidUtf8("abcdefgh\xe2\x28\xa1")); // bad continuation after the fast path
}

TEST(AgentLineSplitterTest, RandomChunkingsNeverChangeTheLines) {
  const std::vector<std::string> pieces = {"word",
                                           " ",
                                           "\n",
                                           "\n",
                                           "\r",
                                           "\r\n",
                                           "é",
                                           "€",
                                           "😀",
                                           "\xff",
                                           "\xc3",
                                           "\xa9",
                                           "\xe2\x82",
                                           "\xac",
                                           "\xed\xa0\x80",
                                           std::string("\0", 1),
                                           "long line of plain ascii text"};
  for (unsigned seed = 1; seed <= 300; ++seed) {
    std::mt19937 random(seed);
    std::string stream;
    size_t count = std::uniform_int_distribution<size_t>(0, 120)(random);
    for (size_t i = 0; i < count; ++i)
      stream += pieces[std::uniform_int_distribution<size_t>(0, pieces.size() - 1)(random)];

    std::vector<std::string> chunks;
    for (size_t at = 0; at < stream.size();) {
      size_t length = std::uniform_int_distribution<size_t>(1, 9)(random);
      chunks.push_back(stream.substr(at, length));
      at += length;
    }
    EXPECT_EQ(AllLines(chunks), ReferenceLines(stream)) << "seed " << seed;
  }
}

} // namespace
} // namespace orvane
