// The page bridge under load: many events waiting for a page, through the
// real dispatcher, the real library gate and a real store on disk, with a
// page that records what it is sent.
#include "bridge/MessageDispatcher.h"

#include "base/Settings.h"
#include "desktop/session/GLibScheduler.h"
#include "library/LibraryFolder.h"
#include "library/PdfActions.h"
#include "library/PdfStore.h"

#include "support/FakePage.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orvane {
namespace {

using nlohmann::json;
using ::testing::IsEmpty;

constexpr char kSite[] = "http://127.0.0.1:8000";
constexpr int kQueued = 10000;

class BridgeFaultTest : public ::testing::Test, public BridgeHost, public PdfActionHost {
protected:
  void SetUp() override {
    RegisterDefaultSettings();
    Settings::standard().remove(kLibraryBookmarkKey);
  }

  // BridgeHost, with the real store and the real library gate.
  bool handlePdfAction(const std::optional<std::string>& action, const json& body,
                       const PageRef& from) override {
    return actions.handlePdfAction(action, body, from);
  }
  void openSparWindowFor(const std::string& id) override { calls.push_back("spar " + id); }
  void closeSparWindow() override { calls.push_back("closeSpar"); }
  PageRef quickPanelPage() const override { return nullptr; }
  void hideQuickPanel() override { calls.push_back("hidePanel"); }
  void beginFileDrag(const std::string& path, const PageRef&) override {
    calls.push_back("drag " + path);
  }
  void openPreviewSplitFor(const std::string& path) override { calls.push_back("split " + path); }
  bool storeHasAccount() const override { return store.account().has_value(); }
  void setStoreAccount(const std::string& account) override { store.setAccount(account); }
  void rescanStore() override { store.rescan(); }
  void ensureLocal(const std::string& id, const std::optional<std::string>& url,
                   const std::optional<std::string>& etag,
                   LocalCopyCompletion completion) override {
    store.ensureLocal(id, url, etag, std::move(completion));
  }
  std::string claudePath() const override { return ""; }
  std::string sparFolder() override { return store.folder() + "/.spar"; }

  // PdfActionHost
  void helloFrom(const PageRef& from, const std::string& account) override {
    dispatcher.helloFrom(from, account);
  }
  void sendEvent(const Event& event) override { events.sendEvent(event); }
  void openInPreview(const std::string& path) override { calls.push_back("preview " + path); }
  void revealInFileManager(const std::string& path) override { calls.push_back("reveal " + path); }
  void runClaude(const json&) override { calls.push_back("runClaude"); }
  void stopClaude(const json&) override { calls.push_back("stopClaude"); }
  void updateFrom(const std::string& address) override { calls.push_back("updateFrom " + address); }

  void post(const json& body, const std::shared_ptr<FakePage>& from) {
    dispatcher.didReceiveScriptMessage("panel", body, from, {from->committedAddress(), true});
  }
  std::string account() const {
    return std::string("fault-") + ::testing::UnitTest::GetInstance()->current_test_info()->name();
  }
  // The event that carries number n: every kind of value, and text that
  // must arrive unchanged.
  static json NumberedEvent(int n) {
    return {{"type", n % 3 == 0   ? "claudeLine"
                     : n % 3 == 1 ? "pdfChanged"
                                  : "dockDrop"},
            {"n", n},
            {"line", "line " + std::to_string(n) + " \"quoted\" \\ </script>\n"},
            {"mtime", n + 0.5},
            {"ok", n % 2 == 0}};
  }
  void queueNumberedEvents() {
    for (int n = 0; n < kQueued; ++n)
      events.sendEvent(NumberedEvent(n));
  }
  // The numbered events a page received, in the order it received them.
  static std::vector<int> NumbersSeenBy(const FakePage& page) {
    std::vector<int> numbers;
    for (const json& event : page.events())
      if (event.contains("n"))
        numbers.push_back(event["n"].get<int>());
    return numbers;
  }
  static std::vector<int> AllNumbers() {
    std::vector<int> numbers(kQueued);
    for (int n = 0; n < kQueued; ++n)
      numbers[n] = n;
    return numbers;
  }

  LogCapture log;
  GLibScheduler scheduler;
  PdfStore store{scheduler};
  DockDrops drops{[this](const Event& e) { events.sendEvent(e); }};
  PdfActions actions{store, drops, *this};
  EventDelivery events{[] { return std::string(kSite); }};
  MessageDispatcher dispatcher{*this, events, [] { return std::string(kSite); }};
  std::vector<std::string> calls;
};

TEST_F(BridgeFaultTest, TenThousandEventsQueuedBeforeHelloReachTheHelloPageInOrder) {
  queueNumberedEvents();
  ASSERT_EQ(events.queuedEvents().size(), size_t(kQueued));

  auto page = std::make_shared<FakePage>(std::string(kSite) + "/");
  post({{"action", "hello"}, {"account", account()}}, page);

  EXPECT_EQ(NumbersSeenBy(*page), AllNumbers());
  std::vector<json> received = page->events();
  ASSERT_EQ(received.size(), size_t(kQueued) + 1);
  for (int n = 0; n < kQueued; ++n)
    ASSERT_EQ(received[n], NumberedEvent(n)) << n;
  EXPECT_EQ(received.back()["type"], "claudeStatus");
  EXPECT_THAT(events.queuedEvents(), IsEmpty());

  size_t queued_lines = 0;
  for (const std::string& line : log.messages())
    queued_lines += line.find(" queued (no page yet)") != std::string::npos;
  EXPECT_EQ(queued_lines, size_t(kQueued));
  EXPECT_THAT(calls, IsEmpty());
}

TEST_F(BridgeFaultTest, QueuedEventsWaitOutForeignPagesAndAPrimaryThatLeft) {
  auto page = std::make_shared<FakePage>(std::string(kSite) + "/");
  post({{"action", "hello"}, {"account", account()}}, page);
  page->scripts.clear();
  // The primary page is sent elsewhere; everything from now on waits.
  page->setAddress("http://127.0.0.1:8001/elsewhere");
  events.pageCommitted(page);
  queueNumberedEvents();
  // The foreign document, and a frame inside a site page, say hello: refused.
  post({{"action", "hello"}, {"account", "mallory"}}, page);
  auto framed = std::make_shared<FakePage>(std::string(kSite) + "/framed");
  dispatcher.didReceiveScriptMessage("panel", {{"action", "hello"}}, framed,
                                     {"http://127.0.0.1:8001/ad", false});
  EXPECT_THAT(page->scripts, IsEmpty());
  EXPECT_THAT(framed->scripts, IsEmpty());
  EXPECT_EQ(events.queuedEvents().size(), size_t(kQueued));

  // A page on the site says hello and gets every one, in order.
  auto sparring = std::make_shared<FakePage>(std::string(kSite) + "/?sparwin=1#spar/x");
  post({{"action", "hello"}, {"account", account()}}, sparring);
  EXPECT_EQ(NumbersSeenBy(*sparring), AllNumbers());
  EXPECT_THAT(page->scripts, IsEmpty());
  EXPECT_THAT(framed->scripts, IsEmpty());
}

} // namespace
} // namespace orvane
