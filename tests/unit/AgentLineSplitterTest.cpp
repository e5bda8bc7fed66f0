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

// Bytes of a line feed-free run, cut the slow way: a piece ends at the
// limit, moved back over at most three continuation bytes so that it ends
// before the first byte of a character.
std::vector<std::string> ReferencePieces(const std::string& line, size_t limit) {
  std::vector<std::string> pieces;
  size_t start = 0;
  while (line.size() - start > limit) {
    size_t cut = limit;
    for (int back = 0; back < 3 && (static_cast<unsigned char>(line[start + cut]) & 0xC0) == 0x80;
         ++back)
      --cut;
    if ((static_cast<unsigned char>(line[start + cut]) & 0xC0) == 0x80)
      cut = limit;
    pieces.push_back(line.substr(start, cut));
    start += cut;
  }
  pieces.push_back(line.substr(start));
  return pieces;
}

// The rule with a piece limit: every line cut into pieces, and each piece
// kept when it is non-empty and valid UTF-8.
std::vector<std::string> ReferenceLines(const std::string& stream, size_t limit) {
  std::vector<std::string> lines;
  size_t start = 0;
  for (;;) {
    size_t at = stream.find('\n', start);
    std::string line = stream.substr(start, at == std::string::npos ? at : at - start);
    for (const auto& piece : ReferencePieces(line, limit))
      if (!piece.empty() && IsValidUtf8(piece))
        lines.push_back(piece);
    if (at == std::string::npos)
      break;
    start = at + 1;
  }
  return lines;
}

std::vector<std::string> AllLines(const std::vector<std::string>& chunks, size_t limit) {
  LineSplitter splitter(limit);
  std::vector<std::string> lines = Feed(splitter, chunks);
  for (auto& line : splitter.finish())
    lines.push_back(line);
  return lines;
}

TEST(AgentLineSplitterTest, TheDefaultPieceLimitIs16MiB) {
  EXPECT_EQ(LineSplitter::kDefaultPieceLimit, size_t(16) << 20);
  EXPECT_EQ(LineSplitter().pieceLimit(), size_t(16) << 20);
  EXPECT_EQ(LineSplitter(100).pieceLimit(), 100u);
  // No piece could hold a four-byte character below four bytes.
  EXPECT_EQ(LineSplitter(0).pieceLimit(), 4u);
  EXPECT_EQ(LineSplitter(3).pieceLimit(), 4u);
}

TEST(AgentLineSplitterTest, LongLineComesOutInPiecesOfAtMostTheLimit) {
  EXPECT_THAT(AllLines({"abcdefghijklmnopqrst\nnext\n"}, 8),
              ElementsAre("abcdefgh", "ijklmnop", "qrst", "next"));
  // A line of exactly the limit is one line.
  EXPECT_THAT(AllLines({"abcdefgh\n"}, 8), ElementsAre("abcdefgh"));
  EXPECT_THAT(AllLines({"abcdefghi\n"}, 8), ElementsAre("abcdefgh", "i"));
  // Twice the limit: two full pieces, nothing empty after them.
  EXPECT_THAT(AllLines({"abcdefghABCDEFGH\n"}, 8), ElementsAre("abcdefgh", "ABCDEFGH"));
}

TEST(AgentLineSplitterTest, PiecesGoOutBeforeTheLineFeedArrives) {
  LineSplitter splitter(8);
  std::vector<std::string> lines;
  EXPECT_EQ(splitter.append("abcdefgh", lines), 0u); // could still be a whole line
  EXPECT_EQ(splitter.append("i", lines), 1u);
  EXPECT_THAT(lines, ElementsAre("abcdefgh"));
  EXPECT_EQ(splitter.pending(), 1u);
  for (int i = 0; i < 100; ++i) {
    splitter.append("0123456789", lines);
    EXPECT_LE(splitter.pending(), 8u);
  }
  splitter.append("\n", lines);
  std::string joined;
  for (const auto& line : lines) {
    EXPECT_LE(line.size(), 8u);
    joined += line;
  }
  std::string expected = "abcdefghi";
  for (int i = 0; i < 100; ++i)
    expected += "0123456789";
  EXPECT_EQ(joined, expected);
  EXPECT_EQ(splitter.pending(), 0u);
}

TEST(AgentLineSplitterTest, PiecesNeverSplitACharacter) {
  for (std::string character : {"é", "€", "😀"}) {
    for (size_t lead = 0; lead < 8; ++lead) {
      std::string line = std::string(lead, 'a') + character + character + "zz";
      std::vector<std::string> pieces = AllLines({line + "\n"}, 6);
      std::string joined;
      for (const auto& piece : pieces) {
        EXPECT_LE(piece.size(), 6u) << line;
        EXPECT_TRUE(IsValidUtf8(piece)) << line;
        joined += piece;
      }
      EXPECT_EQ(joined, line);
    }
  }
  // The cut moves back to the start of the character it would split.
  EXPECT_THAT(AllLines({"aaaaa€bb\n"}, 6), ElementsAre("aaaaa", "€bb"));
  EXPECT_THAT(AllLines({"aaa😀bb\n"}, 4), ElementsAre("aaa", "😀", "bb"));
}

TEST(AgentLineSplitterTest, PiecesOfALongLineThatAreNotUtf8AreDroppedAndTheOthersKept) {
  // The bad byte spoils only the piece it falls in.
  EXPECT_THAT(AllLines({"abcdefgh\xff"
                        "bcdefghABCDEFGH\n"},
                       8),
              ElementsAre("abcdefgh", "ABCDEFGH"));
  // A cut moves back over continuation bytes to a byte that may start a
  // character...
  EXPECT_THAT(AllLines({"abcdefg\x80\x80\x80\x80\x80xyzxyzxyzxyz\n"}, 8),
              ElementsAre("abcdef", "zxyzxyzx", "yz"));
  // ...but over three at most: a longer run is cut at the limit.
  EXPECT_THAT(AllLines({"abcd\x80\x80\x80\x80\x80xyzxyzxyzxyz\n"}, 8), ElementsAre("yzxyz"));
}

TEST(AgentLineSplitterTest, FinishCutsTheRestIntoPiecesToo) {
  {
    LineSplitter splitter(8);
    EXPECT_THAT(splitter.finish("abcdefghij\n€€€€"), ElementsAre("abcdefgh", "ij", "€€", "€€"));
  }
  {
    LineSplitter splitter(8);
    std::vector<std::string> lines;
    splitter.append("0123456789abc", lines);
    EXPECT_THAT(lines, ElementsAre("01234567"));
    EXPECT_THAT(splitter.finish(), ElementsAre("89abc"));
  }
}

TEST(AgentLineSplitterTest, RandomChunkingsWithASmallLimitKeepEveryByteOfValidLines) {
  const std::vector<std::string> pieces = {
      "word", "\n", "é", "€", "😀", "\r", "ab", "\xff", "\xe2\x82", "long run of plain ascii text"};
  for (unsigned seed = 1; seed <= 300; ++seed) {
    std::mt19937 random(seed);
    size_t limit = std::uniform_int_distribution<size_t>(4, 12)(random);
    std::string stream;
    size_t count = std::uniform_int_distribution<size_t>(0, 80)(random);
    for (size_t i = 0; i < count; ++i)
      stream += pieces[std::uniform_int_distribution<size_t>(0, pieces.size() - 1)(random)];
    std::vector<std::string> chunks;
    for (size_t at = 0; at < stream.size();) {
      size_t length = std::uniform_int_distribution<size_t>(1, 15)(random);
      chunks.push_back(stream.substr(at, length));
      at += length;
    }
    std::vector<std::string> lines = AllLines(chunks, limit);
    EXPECT_EQ(lines, ReferenceLines(stream, limit)) << "seed " << seed;
    for (const auto& line : lines)
      EXPECT_LE(line.size(), limit) << "seed " << seed;
  }
}

TEST(AgentLineSplitterTest, ALineOverTheDefaultLimitComesOutIn16MiBPieces) {
  // "é€😀abc" is 12 bytes; 16 MiB falls in the middle of the euro sign.
  const std::string pattern = "é€😀abc";
  std::string line;
  line.reserve(size_t(40) << 20);
  while (line.size() + pattern.size() <= (size_t(40) << 20))
    line += pattern;
  LineSplitter splitter;
  std::vector<std::string> lines;
  for (size_t at = 0; at < line.size(); at += 65536)
    splitter.append(std::string_view(line).substr(at, 65536), lines);
  EXPECT_LE(splitter.pending(), LineSplitter::kDefaultPieceLimit);
  for (auto& rest : splitter.finish())
    lines.push_back(std::move(rest));
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].size(), (size_t(16) << 20) - 2);
  size_t total = 0;
  for (const auto& piece : lines) {
    EXPECT_LE(piece.size(), LineSplitter::kDefaultPieceLimit);
    EXPECT_TRUE(IsValidUtf8(piece));
    EXPECT_EQ(std::string_view(line).substr(total, piece.size()), piece);
    total += piece.size();
  }
  EXPECT_EQ(total, line.size());
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
