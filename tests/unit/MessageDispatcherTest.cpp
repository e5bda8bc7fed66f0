#include "bridge/MessageDispatcher.h"

#include "library/PdfActions.h"
#include "library/PdfStore.h"
#include "support/FakePage.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orvane {
namespace {

using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// The rest of the program as the bridge sees it, with a real store and the
// real library gate, recording every call it receives.
class RecordingHost final : public BridgeHost, public PdfActionHost {
public:
  RecordingHost()
      : store(scheduler), drops([this](const Event& e) { events->sendEvent(e); }),
        actions(store, drops, *this) {}

  void helloFrom(const PageRef& from, const std::string& account) override {
    dispatcher->helloFrom(from, account);
  }
  void sendEvent(const Event& event) override { events->sendEvent(event); }
  void openInPreview(const std::string& path) override { calls.push_back("preview " + path); }
  void revealInFileManager(const std::string& path) override { calls.push_back("reveal " + path); }
  void runClaude(const json&) override { calls.push_back("runClaude"); }
  void stopClaude(const json&) override { calls.push_back("stopClaude"); }
  void updateFrom(const std::string& address) override { calls.push_back("updateFrom " + address); }

  bool handlePdfAction(const std::optional<std::string>& action, const json& body,
                       const PageRef& from) override {
    return actions.handlePdfAction(action, body, from);
  }
  void openSparWindowFor(const std::string& id) override { calls.push_back("spar " + id); }
  void closeSparWindow() override { calls.push_back("closeSpar"); }
  PageRef quickPanelPage() const override { return panel; }
  void hideQuickPanel() override { calls.push_back("hidePanel"); }
  void beginFileDrag(const std::string& path, const PageRef& page) override {
    calls.push_back("drag " + path + (page == panel ? " from panel" : " from page"));
  }
  void openPreviewSplitFor(const std::string& path) override { calls.push_back("split " + path); }
  bool storeHasAccount() const override { return store.account().has_value(); }
  void setStoreAccount(const std::string& account) override {
    calls.push_back("account " + account);
    store.setAccount(account);
  }
  void rescanStore() override {
    calls.push_back("rescan");
    for (const auto& event : rescan_reports)
      events->sendEvent(event);
  }
  void ensureLocal(const std::string& id, const std::optional<std::string>& url,
                   const std::optional<std::string>& etag,
                   LocalCopyCompletion completion) override {
    calls.push_back("ensureLocal " + id + " " + url.value_or("-") + " " + etag.value_or("-"));
    completion(local_copy, local_error);
  }
  std::string claudePath() const override { return "/opt/claude"; }
  std::string sparFolder() override { return store.folder() + "/.spar"; }

  VirtualScheduler scheduler;
  PdfStore store;
  DockDrops drops;
  PdfActions actions;
  MessageDispatcher* dispatcher = nullptr;
  EventDelivery* events = nullptr;
  std::shared_ptr<FakePage> panel = std::make_shared<FakePage>();
  std::vector<std::string> calls;
  std::vector<json> rescan_reports;
  std::optional<std::string> local_copy;
  std::optional<std::string> local_error;
};

class MessageDispatcherTest : public ::testing::Test {
protected:
  MessageDispatcherTest()
      : dispatcher(
            host, events, [this] { return site; }, [this] { return clock.now(); }) {
    host.dispatcher = &dispatcher;
    host.events = &events;
  }
  // A message from the main frame of the page's committed document.
  void post(const json& body, const PageRef& from) {
    std::string document = from ? from->committedAddress() : "";
    dispatcher.didReceiveScriptMessage("panel", body, from, {document, true});
  }
  // A message from a frame inside the page.
  void postFromFrame(const json& body, const PageRef& from, const std::string& document) {
    dispatcher.didReceiveScriptMessage("panel", body, from, {document, false});
  }

  LogCapture log;
  VirtualScheduler clock;
  std::string site = "http://127.0.0.1:8000";
  RecordingHost host;
  EventDelivery events;
  MessageDispatcher dispatcher;
  std::shared_ptr<FakePage> library = std::make_shared<FakePage>();
};

TEST_F(MessageDispatcherTest, MessageOnAnotherChannelDoesNothing) {
  dispatcher.didReceiveScriptMessage("other", {{"action", "hello"}}, library,
                                     {library->committedAddress(), true});
  EXPECT_THAT(log.messages(), IsEmpty());
  EXPECT_THAT(host.calls, IsEmpty());
  EXPECT_EQ(events.primaryWeb(), nullptr);
}

TEST_F(MessageDispatcherTest, BodyWithoutActionIsLoggedAsNone) {
  post(json::array({1, 2}), library);
  post({{"id", "x"}}, library);
  EXPECT_THAT(log.messages(), ElementsAre("message: (none)", "(null) before hello — ignored",
                                          "message: (none)", "(null) before hello — ignored"));
  EXPECT_THAT(host.calls, IsEmpty());
}

TEST_F(MessageDispatcherTest, OpenPdfBeforeHelloWritesTwoLinesAndSendsNothing) {
  post({{"action", "openPdf"}, {"id", "2401.01234"}, {"url", "http://x/a.pdf"}}, library);
  EXPECT_THAT(log.messages(), ElementsAre("message: openPdf", "openPdf before hello — ignored"));
  EXPECT_THAT(library->scripts, IsEmpty());
  EXPECT_THAT(events.queuedEvents(), IsEmpty());
  EXPECT_THAT(host.calls, IsEmpty());
}

TEST_F(MessageDispatcherTest, TopLevelActionBeforeHelloIsLoggedAsIgnoredAndCarriedOut) {
  post({{"action", "spar"}, {"id", "2401.01234"}}, library);
  EXPECT_THAT(log.messages(), ElementsAre("message: spar", "spar before hello — ignored"));
  EXPECT_THAT(host.calls, ElementsAre("spar 2401.01234"));
}

TEST_F(MessageDispatcherTest, SparWithoutIdDoesNothing) {
  post({{"action", "hello"}, {"account", "a"}}, library);
  host.calls.clear();
  post({{"action", "spar"}}, library);
  post({{"action", "spar"}, {"id", ""}}, library);
  post({{"action", "spar"}, {"id", 42}}, library);
  EXPECT_THAT(host.calls, IsEmpty());
}

TEST_F(MessageDispatcherTest, CloseFromTheLibraryPageLeavesWindowsAlone) {
  post({{"action", "close"}}, library);
  EXPECT_THAT(host.calls, IsEmpty());
  post({{"action", "close"}}, host.panel);
  EXPECT_THAT(host.calls, ElementsAre("hidePanel"));
}

TEST_F(MessageDispatcherTest, CloseSparAndDragFileAreDispatched) {
  post({{"action", "closeSpar"}}, library);
  post({{"action", "dragFile"}, {"path", "/tmp/a.pdf"}}, library);
  post({{"action", "dragFile"}, {"path", "/tmp/b.pdf"}}, host.panel);
  post({{"action", "dragFile"}, {"path", ""}}, library);
  EXPECT_THAT(host.calls,
              ElementsAre("closeSpar", "drag /tmp/a.pdf from page", "drag /tmp/b.pdf from panel"));
}

TEST_F(MessageDispatcherTest, UnknownActionWritesOnlyTheMessageLine) {
  post({{"action", "hello"}, {"account", "a"}}, library);
  size_t before = log.messages().size();
  post({{"action", "frobnicate"}}, library);
  EXPECT_EQ(log.messages().size(), before + 1);
  EXPECT_EQ(log.messages().back(), "message: frobnicate");
}

TEST_F(MessageDispatcherTest, PathsAndIdsHoldingANulCountAsMissing) {
  post({{"action", "hello"}, {"account", "a"}}, library);
  host.calls.clear();
  const std::string nul_path("/tmp/a.pdf\0/etc/passwd", 22);
  const std::string nul_id("2401.01234\0x", 12);
  post({{"action", "dragFile"}, {"path", nul_path}}, library);
  post({{"action", "previewSplit"}, {"path", nul_path}}, library);
  post({{"action", "previewSplit"}, {"id", nul_id}, {"url", "http://s/p"}}, library);
  post({{"action", "spar"}, {"id", nul_id}}, library);
  EXPECT_THAT(host.calls, IsEmpty());
  // A path that counts as missing leaves the id to decide.
  post({{"action", "previewSplit"}, {"path", nul_path}, {"id", "2401.01234"}}, library);
  EXPECT_THAT(host.calls, ElementsAre("ensureLocal 2401.01234 - -"));
}

TEST_F(MessageDispatcherTest, PreviewSplitWithPathOpensThatFile) {
  post({{"action", "previewSplit"}, {"path", "/papers/a.pdf"}, {"id", "ignored"}}, library);
  EXPECT_THAT(host.calls, ElementsAre("split /papers/a.pdf"));
}

TEST_F(MessageDispatcherTest, PreviewSplitByIdBeforeHelloDoesNothing) {
  post({{"action", "previewSplit"}, {"id", "2401.01234"}}, library);
  EXPECT_THAT(host.calls, IsEmpty());
}

TEST_F(MessageDispatcherTest, PreviewSplitWithEmptyPathFetchesThePaperById) {
  post({{"action", "hello"}, {"account", "a"}}, library);
  host.calls.clear();
  host.local_copy = "/library/a/2401.01234.pdf";
  post({{"action", "previewSplit"},
        {"path", ""},
        {"id", "2401.01234"},
        {"url", "http://s/p"},
        {"etag", "e1"}},
       library);
  EXPECT_THAT(host.calls, ElementsAre("ensureLocal 2401.01234 http://s/p e1",
                                      "split /library/a/2401.01234.pdf"));
}

TEST_F(MessageDispatcherTest, PreviewSplitFetchFailureWithoutTextSendsTheDefaultError) {
  post({{"action", "hello"}, {"account", "a"}}, library);
  post({{"action", "previewSplit"}, {"path", ""}, {"id", "2401.01234"}}, library);
  json expected = {{"type", "error"}, {"id", "2401.01234"}, {"message", "Could not fetch the PDF"}};
  EXPECT_EQ(library->events().back(), expected);
  host.local_error = "HTTP 404";
  post({{"action", "previewSplit"}, {"id", "2401.01234"}}, library);
  EXPECT_EQ(library->events().back()["message"], "HTTP 404");
}

TEST_F(MessageDispatcherTest, QueuedEventsReachTheHelloPageFirstInOrder) {
  events.sendEvent({{"type", "dockDrop"}, {"token", "1"}});
  events.sendEvent({{"type", "dockDrop"}, {"token", "2"}});
  events.sendEvent({{"type", "friendQuote"}, {"token", "3"}}, nullptr);
  host.rescan_reports = {{{"type", "pdfChanged"}, {"id", "edited"}}};
  post({{"action", "hello"}, {"account", "Demo"}}, library);
  EXPECT_THAT(library->eventTypes(),
              ElementsAre("dockDrop", "dockDrop", "friendQuote", "pdfChanged", "claudeStatus"));
  std::vector<json> received = library->events();
  EXPECT_EQ(received[0]["token"], "1");
  EXPECT_EQ(received[1]["token"], "2");
  EXPECT_EQ(received[2]["token"], "3");
  EXPECT_THAT(events.queuedEvents(), IsEmpty());
  EXPECT_THAT(host.calls, ElementsAre("account Demo", "rescan"));
}

TEST_F(MessageDispatcherTest, HelloIsAnsweredWithClaudeStatus) {
  post({{"action", "hello"}, {"account", "Jane.Doe+Lab@X"}}, library);
  ASSERT_EQ(library->events().size(), 1u);
  json status = library->events()[0];
  EXPECT_EQ(status["type"], "claudeStatus");
  EXPECT_EQ(status["path"], "/opt/claude");
  EXPECT_EQ(status["sparRoot"], host.store.folder() + "/.spar");
  EXPECT_EQ(host.store.account(), "jane.doelabx");
  EXPECT_EQ(events.primaryWeb(), library);
}

TEST_F(MessageDispatcherTest, HelloWithNonStringAccountUsesTheEmptyName) {
  post({{"action", "hello"}, {"account", 7}}, library);
  EXPECT_THAT(host.calls, ElementsAre("account ", "rescan"));
  EXPECT_EQ(host.store.account(), "default");
}

TEST_F(MessageDispatcherTest, SecondHelloMovesLaterEventsToTheNewPage) {
  auto sparring = std::make_shared<FakePage>("http://127.0.0.1:8000/?sparwin=1#spar/x");
  post({{"action", "hello"}, {"account", "a"}}, library);
  post({{"action", "hello"}, {"account", "a"}}, sparring);
  events.sendEvent({{"type", "claudeLine"}, {"turn", "t"}, {"line", "x"}});
  EXPECT_THAT(library->eventTypes(), ElementsAre("claudeStatus"));
  EXPECT_THAT(sparring->eventTypes(), ElementsAre("claudeStatus", "claudeLine"));
}

TEST_F(MessageDispatcherTest, PrimaryThatLeavesTheSiteWaitsForTheNextHello) {
  post({{"action", "hello"}, {"account", "a"}}, library);
  library->setAddress("http://127.0.0.1:8001/foreign");
  events.pageCommitted(library);
  events.sendEvent({{"type", "claudeLine"}, {"turn", "t"}, {"line", "/home/a/paper.pdf"}});
  events.sendEvent({{"type", "pdfChanged"}, {"id", "2401.01234"}});
  EXPECT_THAT(library->eventTypes(), ElementsAre("claudeStatus"));
  // The foreign document cannot say hello; a site page can, and gets them.
  post({{"action", "hello"}, {"account", "a"}}, library);
  EXPECT_THAT(library->eventTypes(), ElementsAre("claudeStatus"));
  auto sparring = std::make_shared<FakePage>("http://localhost:8000/?sparwin=1#spar/x");
  post({{"action", "hello"}, {"account", "a"}}, sparring);
  EXPECT_THAT(sparring->eventTypes(), ElementsAre("claudeLine", "pdfChanged", "claudeStatus"));
  EXPECT_THAT(events.queuedEvents(), IsEmpty());
}

TEST_F(MessageDispatcherTest, MessageFromAnOffSitePageIsRefused) {
  auto elsewhere = std::make_shared<FakePage>("https://evil.example/page?x=1");
  post({{"action", "hello"}, {"account", "a"}}, elsewhere);
  EXPECT_THAT(log.messages(),
              ElementsAre("message from off-site page https://evil.example/page?x=1 — ignored"));
  EXPECT_EQ(events.primaryWeb(), nullptr);
  EXPECT_THAT(host.calls, IsEmpty());
}

TEST_F(MessageDispatcherTest, PageOnAnotherPortOfTheSiteHostIsRefused) {
  auto elsewhere = std::make_shared<FakePage>("http://127.0.0.1:8001/");
  post({{"action", "hello"}, {"account", "a"}}, elsewhere);
  EXPECT_THAT(log.messages(),
              ElementsAre("message from off-site page http://127.0.0.1:8001/ — ignored"));
  EXPECT_EQ(events.primaryWeb(), nullptr);
  EXPECT_THAT(host.calls, IsEmpty());
}

TEST_F(MessageDispatcherTest, DocumentsWithoutANetworkOriginAreRefused) {
  std::vector<PageRef> pages;
  for (const char* address : {"blob:http://127.0.0.1:8000/6c1b2f0e", "data:text/html,<p>x",
                              "about:blank", "about:srcdoc", "file:///home/a/page.html", ""}) {
    pages.push_back(std::make_shared<FakePage>(address));
    post({{"action", "closeSpar"}}, pages.back());
  }
  EXPECT_THAT(host.calls, IsEmpty());
  EXPECT_EQ(log.messages().size(), 6u);
  for (const std::string& line : log.messages())
    EXPECT_THAT(line, ::testing::StartsWith("message from off-site page ")) << line;
}

TEST_F(MessageDispatcherTest, LocalhostAndTheLoopbackAddressAreOneHost) {
  auto local = std::make_shared<FakePage>("http://localhost:8000/library");
  post({{"action", "closeSpar"}}, local);
  site = "http://localhost:8000/";
  post({{"action", "closeSpar"}}, library);
  EXPECT_THAT(host.calls, ElementsAre("closeSpar", "closeSpar"));
}

TEST_F(MessageDispatcherTest, LocalhostPagesOfAnotherOriginAreRefusedForARemoteSite) {
  site = "https://papers.example";
  post({{"action", "closeSpar"}}, std::make_shared<FakePage>("http://localhost:5173/"));
  post({{"action", "closeSpar"}}, std::make_shared<FakePage>("http://papers.example/"));
  post({{"action", "closeSpar"}}, std::make_shared<FakePage>("https://papers.example:444/"));
  EXPECT_THAT(host.calls, IsEmpty());
  post({{"action", "closeSpar"}}, std::make_shared<FakePage>("https://papers.example:443/x"));
  post({{"action", "closeSpar"}}, std::make_shared<FakePage>("https://PAPERS.example/library"));
  EXPECT_THAT(host.calls, ElementsAre("closeSpar", "closeSpar"));
}

TEST_F(MessageDispatcherTest, RefusedAddressIsCutAndItsControlCharactersEscaped) {
  std::string address = "https://evil.example/a\nb\x1b[31m\t" + std::string(300, 'z');
  post({{"action", "hello"}}, std::make_shared<FakePage>(address));
  ASSERT_EQ(log.messages().size(), 1u);
  std::string shown = "https://evil.example/a\\nb\\x1b[31m\\t" + std::string(170, 'z');
  EXPECT_EQ(log.messages()[0], "message from off-site page " + shown + " — ignored");
}

TEST_F(MessageDispatcherTest, RefusalsOfOnePageAreLoggedAtMostOnceASecond) {
  auto elsewhere = std::make_shared<FakePage>("https://evil.example/");
  const std::string refusal = "message from off-site page https://evil.example/ — ignored";
  for (int i = 0; i < 5; ++i) {
    post({{"action", "runClaude"}}, elsewhere);
    clock.advance(0.1);
  }
  EXPECT_THAT(log.messages(), ElementsAre(refusal));
  clock.advance(0.6);
  post({{"action", "runClaude"}}, elsewhere);
  EXPECT_THAT(log.messages(),
              ElementsAre(refusal,
                          "bridge: 4 more messages from off-site pages ignored since the last line",
                          refusal));
  // A second later, with nothing held back, only the line itself.
  clock.advance(1.0);
  post({{"action", "runClaude"}}, elsewhere);
  EXPECT_EQ(log.messages().size(), 4u);
  EXPECT_EQ(log.messages().back(), refusal);
  EXPECT_THAT(host.calls, IsEmpty());
}

TEST_F(MessageDispatcherTest, EachPageHasItsOwnRefusalLine) {
  auto first = std::make_shared<FakePage>("https://one.example/");
  auto second = std::make_shared<FakePage>("https://two.example/");
  post({{"action", "hello"}}, first);
  post({{"action", "hello"}}, second);
  post({{"action", "hello"}}, first);
  EXPECT_THAT(log.messages(),
              ElementsAre("message from off-site page https://one.example/ — ignored",
                          "message from off-site page https://two.example/ — ignored"));
}

TEST_F(MessageDispatcherTest, MessageFromAFrameInsideASitePageIsRefused) {
  // Another origin, and even the site's own origin: a frame is not the page.
  postFromFrame({{"action", "hello"}, {"account", "mallory"}}, library, "http://127.0.0.1:8001/ad");
  clock.advance(1.5);
  postFromFrame({{"action", "runClaude"}, {"turn", "t"}}, library, "http://127.0.0.1:8000/embed");
  EXPECT_THAT(log.messages(),
              ElementsAre("message from off-site page http://127.0.0.1:8001/ad — ignored",
                          "message from off-site page http://127.0.0.1:8000/embed — ignored"));
  EXPECT_EQ(events.primaryWeb(), nullptr);
  EXPECT_FALSE(host.store.account().has_value());
  EXPECT_THAT(host.calls, IsEmpty());
}

TEST_F(MessageDispatcherTest, ALoadInFlightDoesNotPutAPageOnTheSite) {
  // The page has started to load the site but still holds another document.
  auto page = std::make_shared<FakePage>("https://evil.example/");
  page->startLoad("http://127.0.0.1:8000/");
  post({{"action", "closeSpar"}}, page);
  EXPECT_THAT(log.messages(),
              ElementsAre("message from off-site page https://evil.example/ — ignored"));
  // And the other way round: leaving the site is not yet off it.
  library->startLoad("https://evil.example/");
  post({{"action", "closeSpar"}}, library);
  EXPECT_THAT(host.calls, ElementsAre("closeSpar"));
}

TEST_F(MessageDispatcherTest, MessageOfThePreviousDocumentArrivingAfterACommitIsRefused) {
  // Posted by an off-site document, received once the site had committed.
  dispatcher.didReceiveScriptMessage("panel", {{"action", "hello"}}, library,
                                     {"https://evil.example/", true});
  EXPECT_THAT(log.messages(),
              ElementsAre("message from off-site page https://evil.example/ — ignored"));
  EXPECT_EQ(events.primaryWeb(), nullptr);
}

TEST_F(MessageDispatcherTest, MessageWithoutAPageIsRefused) {
  dispatcher.didReceiveScriptMessage("panel", {{"action", "dragFile"}, {"path", "/tmp/a.pdf"}},
                                     nullptr, {"http://127.0.0.1:8000/", true});
  EXPECT_THAT(log.messages(), ElementsAre("message from off-site page  — ignored"));
  EXPECT_THAT(host.calls, IsEmpty());
}

} // namespace
} // namespace orvane
