#include "capture/PageOfQuote.h"

#include "base/Text.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "support/TextPdf.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>

namespace orvane {
namespace {

TEST(QuoteNeedleTest, LongestLineCutToEightyCharacters) {
  std::string line(200, 'q');
  line.replace(0, 10, "0123456789");
  EXPECT_EQ(QuoteNeedle("short line\n" + line + "\nanother"), line.substr(0, 80));
}

TEST(QuoteNeedleTest, SevenCharactersAreTooFewAndEightAreEnough) {
  EXPECT_EQ(QuoteNeedle("1234567"), "");
  EXPECT_EQ(QuoteNeedle("1234567\nabcdefg\r\nxyz"), "");
  EXPECT_EQ(QuoteNeedle("12345678"), "12345678");
  EXPECT_EQ(QuoteNeedle(""), "");
  EXPECT_EQ(QuoteNeedle("\n\n\n"), "");
}

TEST(QuoteNeedleTest, EveryKindOfLineBreakSplits) {
  EXPECT_EQ(QuoteNeedle("abcd\rabcd\u2028abcd\u2029abcd\x0b"
                        "abcd"),
            "");
  EXPECT_EQ(QuoteNeedle("abcd\r\nlonger line"), "longer line");
}

TEST(QuoteNeedleTest, FirstOfEquallyLongLinesWins) {
  EXPECT_EQ(QuoteNeedle("first line\nother line"), "first line");
}

TEST(QuoteNeedleTest, CutNeverSplitsACharacter) {
  std::string line = std::string(79, 'a') + "é" + "tail";
  EXPECT_EQ(QuoteNeedle(line), std::string(79, 'a') + "é");
  // A character outside the basic plane counts two and does not fit at 79.
  std::string wide = std::string(79, 'b') + "𝄞" + "tail";
  EXPECT_EQ(QuoteNeedle(wide), std::string(79, 'b'));
  EXPECT_TRUE(g_utf8_validate(QuoteNeedle(wide).c_str(), -1, nullptr));
}

TEST(QuoteNeedleTest, HostileBytesGiveValidText) {
  static const char kHostile[] = "\xff\xfe\0\x80 garbage bytes here and more\xc3";
  std::string bytes(kHostile, sizeof kHostile - 1); // the NUL inside included
  std::string needle = QuoteNeedle(bytes);
  EXPECT_TRUE(g_utf8_validate(needle.data(), gssize(needle.size()), nullptr));
  EXPECT_NE(needle.find("garbage bytes here"), std::string::npos);
  EXPECT_LE(Utf16Length(QuoteNeedle(std::string(1 << 20, '\x80'))), 80u);
}

class PageOfQuoteTest : public ::testing::Test {
protected:
  void SetUp() override {
    pdf = dir.file("paper.pdf");
    ASSERT_TRUE(WriteTextPdf(
        pdf, {{"Title page of the paper", "1234567"},
              {"Second page opens here.", "Entangled states persist", "across the whole cavity."},
              {"The third page repeats: entangled states persist"}}));
  }
  TempDir dir;
  std::string pdf;
};

TEST_F(PageOfQuoteTest, FirstMatchingPageIgnoringCase) {
  EXPECT_EQ(PageOfQuote(pdf, "ENTANGLED STATES PERSIST"), 2);
  EXPECT_EQ(PageOfQuote(pdf, "third page repeats"), 3);
  EXPECT_EQ(PageOfQuote(pdf, "Title page of the paper"), 1);
}

TEST_F(PageOfQuoteTest, LongestLineOfTheQuoteIsSearched) {
  EXPECT_EQ(PageOfQuote(pdf, "x\nthe third page repeats\ny"), 3);
}

TEST_F(PageOfQuoteTest, SevenCharacterQuoteIsNotSearched) {
  // "1234567" stands on page 1, but seven characters are too few to search.
  EXPECT_EQ(PageOfQuote(pdf, "1234567"), 0);
  EXPECT_EQ(PageOfQuote(pdf, "1234567\n123"), 0);
}

TEST_F(PageOfQuoteTest, LongLineIsSearchedByItsFirstEightyCharacters) {
  std::string first80 = "A line of exactly eighty characters that the PDF holds on its second "
                        "page: okay.";
  ASSERT_EQ(first80.size(), 80u);
  std::string long_pdf = dir.file("long.pdf");
  ASSERT_TRUE(WriteTextPdf(long_pdf, {{"nothing here"}, {first80}}));
  // The rest of the 200 characters is not in the PDF: only the first 80 count.
  std::string quote = first80 + std::string(120, 'z');
  EXPECT_EQ(PageOfQuote(long_pdf, quote), 2);
  EXPECT_EQ(PageOfQuote(long_pdf, "x" + first80), 0);
}

// Exits 0 when a search without the PDF library finds no page and says why
// in the log, once however often it is asked.
[[noreturn]] void SearchWithoutThePdfLibrary(const std::string& pdf) {
  g_setenv("ORVANE_POPPLER_LIBRARY", "libno-such-pdf-library.so.0", true);
  LogCapture log;
  bool no_page = PageOfQuote(pdf, "Entangled states persist") == 0 &&
                 PageOfQuote(pdf, "third page repeats") == 0;
  std::vector<std::string> messages = log.messages();
  auto said = std::count_if(messages.begin(), messages.end(), [](const std::string& m) {
    return m.starts_with("quote: PDFs cannot be searched for the page of a quote (") &&
           m.find("libno-such-pdf-library.so.0") != std::string::npos;
  });
  std::exit(no_page && said == 1 && messages.size() == 1 ? 0 : 1);
}

TEST_F(PageOfQuoteTest, WithoutThePdfLibraryNoPageIsFoundAndTheLogSaysWhyOnce) {
  // The library is opened once per process: the search runs in a fresh one.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(SearchWithoutThePdfLibrary(pdf), ::testing::ExitedWithCode(0), "");
  // With the library, this process finds the page as before.
  EXPECT_EQ(PageOfQuote(pdf, "Entangled states persist"), 2);
}

TEST_F(PageOfQuoteTest, NoMatchGivesZero) {
  EXPECT_EQ(PageOfQuote(pdf, "nowhere in this document"), 0);
}

TEST_F(PageOfQuoteTest, EmptyArgumentsGiveZero) {
  EXPECT_EQ(PageOfQuote("", "entangled states persist"), 0);
  EXPECT_EQ(PageOfQuote(pdf, ""), 0);
}

TEST_F(PageOfQuoteTest, FilesThatAreNotPdfsGiveZero) {
  std::string quote = "entangled states persist";
  EXPECT_EQ(PageOfQuote(dir.file("missing.pdf"), quote), 0);
  EXPECT_EQ(PageOfQuote(dir.path(), quote), 0);
  EXPECT_EQ(PageOfQuote(dir.write("garbage.pdf", std::string(4096, '\x9c')), quote), 0);
  EXPECT_EQ(PageOfQuote(dir.write("empty.pdf", ""), quote), 0);
  std::string whole = TempDir::Read(pdf);
  EXPECT_EQ(PageOfQuote(dir.write("truncated.pdf", whole.substr(0, whole.size() / 3)), quote), 0);
  EXPECT_EQ(PageOfQuote(dir.write("header-only.pdf", "%PDF-1.7\n%%EOF\n"), quote), 0);
  std::string fifo = dir.file("fifo.pdf");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(PageOfQuote(fifo, quote), 0); // returns rather than waiting for a writer
}

TEST_F(PageOfQuoteTest, HugeQuoteIsHandled) {
  std::string huge = "entangled states persist" + std::string(10u << 20, 'w');
  EXPECT_EQ(PageOfQuote(pdf, huge), 0); // its first 80 characters are not in the PDF
  EXPECT_EQ(PageOfQuote(pdf, std::string(1u << 20, '\n') + "Entangled states persist"), 2);
}

} // namespace
} // namespace orvane
