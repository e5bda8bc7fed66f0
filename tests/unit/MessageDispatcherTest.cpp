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
  MessageDispatcherTest() : dispatcher(host, events, [this] { return site; }) {
    host.dispatcher = &dispatcher;
    host.events = &events;
  }
  void post(const json& body, const PageRef& from) {
    dispatcher.didReceiveScriptMessage("panel", body, from);
  }

  LogCapture log;
  std::string site = "http://127.0.0.1:8000";
  RecordingHost host;
  EventDelivery events;
  MessageDispatcher dispatcher;
  std::shared_ptr<FakePage> library = std::make_shared<FakePage>();
};

TEST_F(MessageDispatcherTest, MessageOnAnotherChannelDoesNothing) {
  dispatcher.didReceiveScriptMessage("other", {{"action", "hello"}}, library);
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
  post({{"action", "dragFile"}, {"path", "/tmp/b.pdf"}}, nullptr);
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

TEST_F(MessageDispatcherTest, MessageFromAnOffSitePageIsRefused) {
  auto elsewhere = std::make_shared<FakePage>("https://evil.example/page?x=1");
  post({{"action", "hello"}, {"account", "a"}}, elsewhere);
  EXPECT_THAT(log.messages(),
              ElementsAre("message from off-site page https://evil.example/page?x=1 — ignored"));
  EXPECT_EQ(events.primaryWeb(), nullptr);
  EXPECT_THAT(host.calls, IsEmpty());
}

TEST_F(MessageDispatcherTest, LocalhostPagesCountAsOnTheSiteEvenForARemoteSite) {
  site = "https://papers.example";
  auto local = std::make_shared<FakePage>("http://localhost:5173/");
  post({{"action", "closeSpar"}}, local);
  auto remote = std::make_shared<FakePage>("https://papers.example/library");
  post({{"action", "closeSpar"}}, remote);
  EXPECT_THAT(host.calls, ElementsAre("closeSpar", "closeSpar"));
}

} // namespace
} // namespace orvane
