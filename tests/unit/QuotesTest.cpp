#include "capture/Quotes.h"

#include "support/FakeCapture.h"
#include "support/FakeMessageBus.h"
#include "support/FakePage.h"
#include "support/FakeScreens.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orvane {
namespace {

constexpr char kSite[] = "http://127.0.0.1:8000";

class FakeChat final : public QuoteChat {
public:
  bool exists() const override { return made; }
  bool isVisible() const override { return visible; }
  void bringBack() override {
    visible = true;
    ++brought_back;
  }
  void evaluateScript(const std::string& script) override { scripts.push_back(script); }
  bool made = false;
  bool visible = false;
  int brought_back = 0;
  std::vector<std::string> scripts;
};

// The quote the script hands to window.sparQuote, read back as a JSON
// array literal.
std::string QuoteInScript(const std::string& script) {
  const std::string prefix = "window.sparQuote && window.sparQuote(";
  const std::string suffix = "[0])";
  EXPECT_EQ(script.rfind(prefix, 0), 0u) << script;
  EXPECT_GE(script.size(), prefix.size() + suffix.size());
  EXPECT_EQ(script.substr(script.size() - suffix.size()), suffix);
  auto array = nlohmann::json::parse(
      script.substr(prefix.size(), script.size() - prefix.size() - suffix.size()));
  EXPECT_TRUE(array.is_array());
  EXPECT_EQ(array.size(), 1u);
  return array.at(0).get<std::string>();
}

class QuotesTest : public ::testing::Test {
protected:
  QuotesTest() {
    capture.otherApplication(4242, "Evince");
    events.setPrimaryWeb(primary);
  }
  std::vector<nlohmann::json> libraryEvents() const { return library->events(); }

  LogCapture log;
  TempDir dir;
  FakeCapture capture;
  FakeScreens screens;
  FakeMessageBus bus;
  EventDelivery events{[] { return std::string(kSite); }};
  FakeChat chat;
  std::shared_ptr<FakePage> library = std::make_shared<FakePage>(std::string(kSite) + "/");
  std::shared_ptr<FakePage> primary = std::make_shared<FakePage>(std::string(kSite) + "/");
  std::optional<std::string> folder = dir.path() + "/Library/alice";
  int library_shown = 0;
  bool tile = false;
  Rect tile_free;
  std::vector<std::tuple<std::string, int, std::optional<Screen>>> tiles;
  Quotes quotes{QuotesContext{
      capture, screens, bus, events, chat, [this] { return PageRef(library); },
      [this] { return folder; }, [this] { ++library_shown; },
      [this](const std::string& path, int pid, const std::optional<Screen>& screen, Rect& free) {
        tiles.emplace_back(path, pid, screen);
        free = tile_free;
        return tile;
      },
      [this] { return dir.file("quote.txt"); }}};
};

// ⌥C

TEST_F(QuotesTest, QuoteWithTheChatOpenIsDeliveredIntoIt) {
  chat.made = chat.visible = true;
  capture.selection = "a passage";
  quotes.hotkeyQuote();
  ASSERT_EQ(chat.scripts.size(), 1u);
  EXPECT_EQ(QuoteInScript(chat.scripts[0]), "a passage");
  EXPECT_EQ(log.messages(), std::vector<std::string>{"quote: delivered 9 chars"});
  EXPECT_TRUE(bus.posted.empty());
}

TEST_F(QuotesTest, QuoteWithTheChatOpenAndNothingSelectedIsLogged) {
  chat.made = chat.visible = true;
  quotes.hotkeyQuote();
  EXPECT_TRUE(chat.scripts.empty());
  EXPECT_TRUE(bus.posted.empty());
  EXPECT_EQ(log.messages(), std::vector<std::string>{"quote: nothing selected in Evince"});
  capture.front.reset();
  quotes.hotkeyQuote();
  EXPECT_EQ(log.messages().back(), "quote: nothing selected in ?");
}

TEST_F(QuotesTest, QuoteWithTheChatHiddenGoesToTheDesktopApplication) {
  chat.made = true; // the sparring web view exists, its window is hidden
  capture.selection = "hidden chat";
  capture.document = "/papers/On Things.PDF";
  capture.page = 4;
  capture.point = {100, 200};
  quotes.hotkeyQuote();
  EXPECT_TRUE(chat.scripts.empty());
  EXPECT_EQ(chat.brought_back, 0);
  ASSERT_EQ(bus.posted.size(), 1u);
  EXPECT_EQ(bus.posted[0].first, "nl.tarnwick.pendrel.ask");
  auto ask = nlohmann::json::parse(bus.posted[0].second);
  EXPECT_EQ(ask["quote"], "hidden chat");
  EXPECT_EQ(ask["page"], 4);
  EXPECT_EQ(std::get<1>(tiles.at(0)), 4242);
}

TEST_F(QuotesTest, QuoteFromThisProgramDoesNothing) {
  capture.thisProgram();
  chat.made = chat.visible = true;
  capture.selection = "mine";
  quotes.hotkeyQuote();
  EXPECT_EQ(capture.selection_calls, 0);
  EXPECT_TRUE(chat.scripts.empty());
  EXPECT_TRUE(bus.posted.empty());
  EXPECT_TRUE(log.messages().empty());
}

// The ask object

TEST_F(QuotesTest, AskObjectHasTheEightKeysWithTheirTypes) {
  capture.selection = "needle";
  capture.document = "/home/u/Downloads/paper.pdf";
  capture.page = 3;
  capture.point = {2000.5, 300};
  quotes.hotkeyQuote();
  ASSERT_EQ(bus.posted.size(), 1u);
  // Compact JSON: no blank after a colon or comma.
  EXPECT_EQ(bus.posted[0].second.find(": "), std::string::npos);
  auto ask = nlohmann::json::parse(bus.posted[0].second);
  ASSERT_TRUE(ask.is_object());
  EXPECT_EQ(ask.size(), 8u);
  EXPECT_EQ(ask["path"], "/home/u/Downloads/paper.pdf");
  EXPECT_EQ(ask["title"], "paper.pdf");
  EXPECT_EQ(ask["quote"], "needle");
  EXPECT_TRUE(ask["page"].is_number_integer());
  EXPECT_EQ(ask["page"], 3);
  EXPECT_TRUE(ask["x"].is_number());
  EXPECT_DOUBLE_EQ(ask["x"].get<double>(), 2000.5);
  EXPECT_DOUBLE_EQ(ask["y"].get<double>(), 300);
  EXPECT_TRUE(ask["splitX"].is_number());
  EXPECT_TRUE(ask["splitW"].is_number());
  EXPECT_DOUBLE_EQ(ask["splitX"].get<double>(), 0);
  EXPECT_DOUBLE_EQ(ask["splitW"].get<double>(), 0);
  EXPECT_EQ(capture.page_queries, (std::vector<std::pair<std::string, std::string>>{
                                      {"/home/u/Downloads/paper.pdf", "needle"}}));
  // The point chose the second screen for the tiling request.
  ASSERT_TRUE(std::get<2>(tiles.at(0)));
  EXPECT_EQ(std::get<2>(tiles.at(0))->index, 1);
  EXPECT_EQ(log.messages(),
            std::vector<std::string>{
                "ask: paper.pdf, 6 chars quoted, to the desktop (split 0.000+0.000)"});
}

TEST_F(QuotesTest, NothingSelectedInAPdfViewerStillAsksWithAnEmptyQuoteAndPageZero) {
  capture.document = "/home/u/paper.pdf";
  capture.page = 7; // what a search would answer; nothing is searched for
  quotes.hotkeyQuote();
  ASSERT_EQ(bus.posted.size(), 1u);
  auto ask = nlohmann::json::parse(bus.posted[0].second);
  EXPECT_EQ(ask["quote"], "");
  EXPECT_EQ(ask["page"], 0);
  EXPECT_TRUE(capture.page_queries.empty());
  EXPECT_EQ(log.messages(),
            std::vector<std::string>{
                "ask: paper.pdf, 0 chars quoted, to the desktop (split 0.000+0.000)"});
}

TEST_F(QuotesTest, ATiledPaperGivesTheFreeAreaAsFractionsOfTheScreen) {
  tile = true;
  tile_free = {1920 + 640, 0, 640, 1024}; // the right half of the second screen
  capture.document = "/p/a.pdf";
  capture.point = {2500, 10};
  quotes.askDesktopWith(std::string("q"), "/p/a.pdf", 99, capture.point);
  auto ask = nlohmann::json::parse(bus.posted.at(0).second);
  EXPECT_DOUBLE_EQ(ask["splitX"].get<double>(), 0.5);
  EXPECT_DOUBLE_EQ(ask["splitW"].get<double>(), 0.5);
  EXPECT_EQ(log.messages().back(),
            "ask: a.pdf, 1 chars quoted, to the desktop (split 0.500+0.500)");
}

TEST_F(QuotesTest, TilingWithoutScreensGivesNoSplit) {
  tile = true;
  tile_free = {10, 10, 10, 10};
  screens.list.clear();
  quotes.askDesktopWith(std::string("q"), "/p/a.pdf", 99, {0, 0});
  auto ask = nlohmann::json::parse(bus.posted.at(0).second);
  EXPECT_DOUBLE_EQ(ask["splitX"].get<double>(), 0);
  EXPECT_DOUBLE_EQ(ask["splitW"].get<double>(), 0);
}

TEST_F(QuotesTest, AFrontWindowWithoutAPdfAsksNothing) {
  capture.document = "/home/u/notes.txt";
  quotes.askDesktopWith(std::string("q"), 1, {0, 0});
  capture.document.reset();
  quotes.askDesktopWith(std::string("q"), 1, {0, 0});
  capture.document = "/home/u/.pdf";
  quotes.askDesktopWith(std::string("q"), 1, {0, 0});
  EXPECT_TRUE(bus.posted.empty());
  EXPECT_EQ(log.messages(),
            (std::vector<std::string>{"ask: the front window is not a pdf (/home/u/notes.txt)",
                                      "ask: the front window is not a pdf (no document)",
                                      "ask: the front window is not a pdf (/home/u/.pdf)"}));
}

TEST_F(QuotesTest, AQuoteThatIsNotUtf8PostsNothingAndLogsNothing) {
  quotes.askDesktopWith(std::string("bad \xff\xfe bytes"), "/p/a.pdf", 1, {0, 0});
  EXPECT_TRUE(bus.posted.empty());
  EXPECT_TRUE(log.messages().empty());
}

// Quotes that arrive by notification

TEST_F(QuotesTest, QuoteFileIsReadDeletedAndDeliveredWithoutAnAgeCheck) {
  chat.made = chat.visible = true;
  std::string path = dir.write("quote.txt", "from the capture");
  struct timespec old[2] = {{1, 0}, {1, 0}}; // 1970: far older than any hand-off age
  utimensat(AT_FDCWD, path.c_str(), old, 0);
  quotes.quoteArrived();
  EXPECT_FALSE(g_file_test(path.c_str(), G_FILE_TEST_EXISTS));
  ASSERT_EQ(chat.scripts.size(), 1u);
  EXPECT_EQ(QuoteInScript(chat.scripts[0]), "from the capture");
}

TEST_F(QuotesTest, ArrivingQuoteBringsAHiddenChatBack) {
  chat.made = true;
  dir.write("quote.txt", "back");
  quotes.quoteArrived();
  EXPECT_EQ(chat.brought_back, 1);
  EXPECT_EQ(chat.scripts.size(), 1u);
  EXPECT_EQ(log.messages(), (std::vector<std::string>{"quote: chat was hidden, brought it back",
                                                      "quote: delivered 4 chars"}));
}

TEST_F(QuotesTest, ArrivingQuoteWithoutAChatOrWithoutTextIsLogged) {
  dir.write("quote.txt", "nobody listens");
  quotes.quoteArrived();
  chat.made = chat.visible = true;
  quotes.quoteArrived(); // no file
  dir.write("quote.txt", "");
  quotes.quoteArrived(); // empty file
  EXPECT_TRUE(chat.scripts.empty());
  EXPECT_EQ(log.messages(), (std::vector<std::string>{"quote: no chat open", "quote: no chat open",
                                                      "quote: no chat open"}));
  EXPECT_FALSE(g_file_test(dir.file("quote.txt").c_str(), G_FILE_TEST_EXISTS));
}

TEST_F(QuotesTest, HostileQuoteFilesAreDeletedAndDeliverNothing) {
  chat.made = chat.visible = true;
  // Not UTF-8.
  dir.write("quote.txt", std::string("caf\xe9 \xff"));
  quotes.quoteArrived();
  EXPECT_FALSE(g_file_test(dir.file("quote.txt").c_str(), G_FILE_TEST_EXISTS));
  // Larger than the bound.
  EXPECT_EQ(TakeQuoteFile(dir.write("big.txt", std::string(2048, 'a')), 1024), std::nullopt);
  EXPECT_FALSE(g_file_test(dir.file("big.txt").c_str(), G_FILE_TEST_EXISTS));
  EXPECT_EQ(TakeQuoteFile(dir.write("fits.txt", std::string(1024, 'a')), 1024),
            std::string(1024, 'a'));
  // A FIFO in its place: nothing, and no wait for a writer.
  ASSERT_EQ(mkfifo(dir.file("quote.txt").c_str(), 0600), 0);
  quotes.quoteArrived();
  EXPECT_FALSE(g_file_test(dir.file("quote.txt").c_str(), G_FILE_TEST_EXISTS));
  // A link to an endless device: not followed.
  ASSERT_EQ(symlink("/dev/zero", dir.file("quote.txt").c_str()), 0);
  quotes.quoteArrived();
  EXPECT_FALSE(g_file_test(dir.file("quote.txt").c_str(), G_FILE_TEST_IS_SYMLINK));
  // A folder in its place.
  g_mkdir(dir.file("quote.txt").c_str(), 0700);
  quotes.quoteArrived();
  EXPECT_TRUE(chat.scripts.empty());
  EXPECT_EQ(log.messages(), std::vector<std::string>(4, "quote: no chat open"));
}

TEST_F(QuotesTest, AHugeQuoteFileUnderTheBoundIsDeliveredWhole) {
  chat.made = chat.visible = true;
  std::string huge(3 * 1024 * 1024, 'x');
  dir.write("quote.txt", huge);
  quotes.quoteArrived();
  ASSERT_EQ(chat.scripts.size(), 1u);
  EXPECT_EQ(QuoteInScript(chat.scripts[0]).size(), huge.size());
}

TEST_F(QuotesTest, QuotesWithScriptBreakingCharactersArriveIntact) {
  chat.made = chat.visible = true;
  const std::string hostile = "\"); alert(1); (\" \\ \\\" </script><script>x</script> ' ` ${a} "
                              "\n\r\t \xe2\x80\xa8 \xe2\x80\xa9 \x01 é 😀";
  quotes.deliverQuote(hostile);
  ASSERT_EQ(chat.scripts.size(), 1u);
  const std::string& script = chat.scripts[0];
  EXPECT_EQ(QuoteInScript(script), hostile);
  // Nothing outside printable ASCII reaches the script text.
  for (unsigned char c : script)
    EXPECT_TRUE(c >= 0x20 && c < 0x7f) << int(c);
  EXPECT_EQ(script.find('\n'), std::string::npos);
}

// ⌥Q and the Services entry

TEST_F(QuotesTest, FriendQuoteFromALibraryPdfGoesToTheLibraryPage) {
  capture.document = *folder + "/cs_0101123.pdf";
  capture.selection = "a line";
  capture.page = 12;
  quotes.hotkeyFriendQuote();
  EXPECT_EQ(library_shown, 1);
  ASSERT_EQ(libraryEvents().size(), 1u);
  EXPECT_EQ(libraryEvents()[0],
            (nlohmann::json{
                {"type", "friendQuote"}, {"id", "cs/0101123"}, {"text", "a line"}, {"page", 12}}));
  EXPECT_TRUE(primary->events().empty());
  EXPECT_EQ(log.messages(),
            std::vector<std::string>{"friend-quote: 6 chars from cs/0101123 (page 12)"});
}

TEST_F(QuotesTest, FriendQuoteWithNothingSelectedSendsNothing) {
  capture.document = *folder + "/2401.01234.pdf";
  quotes.hotkeyFriendQuote();
  quotes.friendQuoteWithText(std::string(""));
  EXPECT_TRUE(libraryEvents().empty());
  EXPECT_TRUE(primary->events().empty());
  EXPECT_EQ(library_shown, 0);
  EXPECT_EQ(log.messages(), std::vector<std::string>(2, "friend-quote: nothing selected"));
}

TEST_F(QuotesTest, ASiblingFolderWhoseNameBeginsLikeTheLibraryIsNotTheLibrary) {
  folder = dir.path() + "/Library";
  capture.document = dir.path() + "/Library2/cs_0101123.pdf";
  capture.selection = "text";
  quotes.hotkeyFriendQuote();
  EXPECT_TRUE(libraryEvents().empty());
  ASSERT_EQ(primary->events().size(), 1u);
  EXPECT_EQ(
      primary->events()[0],
      (nlohmann::json{{"type", "error"},
                      {"id", ""},
                      {"message", "Quotes are sent from a library PDF, the front window "
                                  "isn't one. Open the paper's PDF from the library first."}}));
  EXPECT_EQ(library_shown, 1);
  EXPECT_EQ(log.messages(), std::vector<std::string>{"friend-quote: focused document " +
                                                     *capture.document + " is not a library PDF"});
}

TEST_F(QuotesTest, APathThatLeavesTheLibraryThroughDotDotIsNotALibraryPdf) {
  dir.write("Library/alice/cs_0101123.pdf", "%PDF-1.4\n");
  dir.write("outside/x_y.pdf", "%PDF-1.4\n");
  capture.selection = "text";
  // Existing and missing files alike: the prefix alone would pass them.
  for (const std::string& doc :
       {*folder + "/../../outside/x_y.pdf", *folder + "/../../../outside/x_y.pdf",
        *folder + "/./../alice2/x_y.pdf"}) {
    capture.document = doc;
    quotes.hotkeyFriendQuote();
  }
  EXPECT_TRUE(libraryEvents().empty());
  EXPECT_EQ(primary->eventTypes(), (std::vector<std::string>(3, "error")));
  EXPECT_EQ(log.messages().front(), "friend-quote: focused document " + *folder +
                                        "/../../outside/x_y.pdf is not a library PDF");
  EXPECT_EQ(LibraryFileOf(*folder + "/../../outside/x_y.pdf", *folder), std::nullopt);
  EXPECT_EQ(LibraryFileOf(*folder + "/sub/../cs_0101123.pdf", *folder),
            std::filesystem::canonical(*folder + "/cs_0101123.pdf").string());
  EXPECT_EQ(LibraryFileOf(*folder + "/", *folder), std::nullopt);
  EXPECT_EQ(LibraryFileOf(*folder, *folder), std::nullopt);
}

TEST_F(QuotesTest, ALinkInTheLibraryThatLeadsOutsideIsNotALibraryPdf) {
  dir.write("Library/alice/keep.txt", "");
  std::string outside = dir.write("outside/x_y.pdf", "%PDF-1.4\n");
  ASSERT_EQ(symlink(outside.c_str(), (*folder + "/x_y.pdf").c_str()), 0);
  ASSERT_EQ(symlink(dir.file("outside").c_str(), (*folder + "/escape").c_str()), 0);
  capture.selection = "text";
  capture.document = *folder + "/x_y.pdf";
  quotes.hotkeyFriendQuote();
  capture.document = *folder + "/escape/x_y.pdf";
  quotes.hotkeyFriendQuote();
  EXPECT_TRUE(libraryEvents().empty());
  EXPECT_EQ(primary->eventTypes(), (std::vector<std::string>(2, "error")));
}

TEST_F(QuotesTest, ALibraryPdfReachedThroughALinkedLibraryFolderIsOne) {
  std::string real = dir.write("data/alice/cs_0101123.pdf", "%PDF-1.4\n");
  dir.write("Library/keep.txt", "");
  ASSERT_EQ(symlink(dir.file("data/alice").c_str(), folder->c_str()), 0);
  capture.selection = "text";
  capture.page = 3;
  capture.document = *folder + "/cs_0101123.pdf"; // as the viewer names it
  quotes.hotkeyFriendQuote();
  capture.document = real; // the same file by its real path
  quotes.hotkeyFriendQuote();
  ASSERT_EQ(libraryEvents().size(), 2u);
  EXPECT_EQ(libraryEvents()[0]["id"], "cs/0101123");
  EXPECT_EQ(libraryEvents()[1]["id"], "cs/0101123");
}

TEST_F(QuotesTest, AFocusedDocumentWithALineBreakIsLoggedOnOneLine) {
  capture.document = dir.path() + "/evil\n00:00:00  friend-quote: 5 chars from cs/1 (page 1).pdf";
  capture.selection = "text";
  quotes.hotkeyFriendQuote();
  std::string text = TempDir::Read(log.path());
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
  EXPECT_EQ(log.messages(), std::vector<std::string>{
                                "friend-quote: focused document " + dir.path() +
                                "/evil\\n00:00:00  friend-quote: 5 chars from cs/1 (page 1).pdf "
                                "is not a library PDF"});
}

TEST_F(QuotesTest, WithoutAnAccountEveryFriendQuoteIsRefused) {
  folder.reset();
  capture.document = dir.path() + "/Library/alice/cs_0101123.pdf";
  capture.selection = "text";
  quotes.hotkeyFriendQuote();
  capture.document.reset();
  quotes.hotkeyFriendQuote();
  EXPECT_TRUE(libraryEvents().empty());
  EXPECT_EQ(primary->eventTypes(), (std::vector<std::string>{"error", "error"}));
  EXPECT_EQ(log.messages().back(), "friend-quote: focused document (none) is not a library PDF");
  EXPECT_EQ(library_shown, 2);
}

TEST_F(QuotesTest, FriendQuoteFromThisProgramDoesNothing) {
  capture.thisProgram();
  capture.document = *folder + "/a.pdf";
  quotes.hotkeyFriendQuote();
  EXPECT_EQ(capture.selection_calls, 0);
  EXPECT_TRUE(log.messages().empty());
}

TEST_F(QuotesTest, ServicesEntryQuotesTheClipboardText) {
  capture.document = *folder + "/math_0211159v1.pdf";
  capture.page = 2;
  quotes.sendQuoteToFriend(std::string("clipped ✂"));
  EXPECT_EQ(log.messages(),
            (std::vector<std::string>{"friend-quote: 9 chars via the Services menu",
                                      "friend-quote: 9 chars from math/0211159v1 (page 2)"}));
  ASSERT_EQ(libraryEvents().size(), 1u);
  EXPECT_EQ(libraryEvents()[0]["text"], "clipped ✂");
}

TEST_F(QuotesTest, ServicesEntryWithAnEmptyClipboardSendsNothing) {
  capture.document = *folder + "/a.pdf";
  quotes.sendQuoteToFriend(std::nullopt);
  EXPECT_EQ(log.messages(), (std::vector<std::string>{"friend-quote: 0 chars via the Services menu",
                                                      "friend-quote: nothing selected"}));
}

TEST(PaperIdOfFileTest, UnderscoresBecomeSlashesAndTheExtensionGoes) {
  EXPECT_EQ(PaperIdOfFile("/lib/cs_0101123.pdf"), "cs/0101123");
  EXPECT_EQ(PaperIdOfFile("/lib/2401.01234.pdf"), "2401.01234");
  EXPECT_EQ(PaperIdOfFile("/lib/a_b_c.PDF"), "a/b/c");
  EXPECT_EQ(PaperIdOfFile("/lib/noext"), "noext");
}

} // namespace
} // namespace orvane
