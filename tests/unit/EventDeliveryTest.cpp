#include "bridge/EventDelivery.h"

#include "support/FakePage.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orvane {
namespace {

using ::testing::ElementsAre;

TEST(EventDeliveryTest, EventWithoutAPageIsQueuedAndLogged) {
  LogCapture log;
  EventDelivery events;
  events.sendEvent({{"type", "pdfChanged"}, {"id", "2401.01234"}, {"mtime", 1.5}, {"size", 10}});
  ASSERT_EQ(events.queuedEvents().size(), 1u);
  EXPECT_THAT(log.messages(), ElementsAre("event pdfChanged queued (no page yet)"));
}

TEST(EventDeliveryTest, EventWithoutTypeIsQueuedAndDeliveredUnchanged) {
  LogCapture log;
  EventDelivery events;
  nlohmann::json untyped = {{"id", "x"}, {"n", 3}};
  events.sendEvent(untyped);
  EXPECT_THAT(log.messages(), ElementsAre("event (null) queued (no page yet)"));
  auto page = std::make_shared<FakePage>();
  events.setPrimaryWeb(page);
  for (const auto& event : events.takeQueuedEvents())
    events.sendEvent(event);
  ASSERT_EQ(page->events().size(), 1u);
  EXPECT_EQ(page->events()[0], untyped);
}

TEST(EventDeliveryTest, ScriptCallsPanelEventGuardedWithCompactJson) {
  EXPECT_EQ(EventDelivery::EventScript({{"type", "pdfOpened"}, {"id", "a"}}),
            R"(window.panelEvent && window.panelEvent({"id":"a","type":"pdfOpened"}))");
}

TEST(EventDeliveryTest, QuotesBackslashesAndLineBreaksArriveIntact) {
  EventDelivery events;
  auto page = std::make_shared<FakePage>();
  events.setPrimaryWeb(page);
  std::string tricky = "say \"hi\" \\ then\nnew line\r\tand ' and </script> and é…";
  events.sendEvent({{"type", "claudeLine"}, {"turn", "t"}, {"line", tricky}});
  ASSERT_EQ(page->events().size(), 1u);
  EXPECT_EQ(page->events()[0]["line"], tricky);
  EXPECT_EQ(page->scripts[0].find('\n'), std::string::npos);
}

TEST(EventDeliveryTest, TargetedEventGoesToItsPageNotThePrimary) {
  EventDelivery events;
  auto library = std::make_shared<FakePage>();
  auto sparring = std::make_shared<FakePage>();
  events.setPrimaryWeb(sparring);
  events.sendEvent({{"type", "claudeLine"}});
  events.sendEvent({{"type", "friendQuote"}}, library);
  EXPECT_THAT(sparring->eventTypes(), ElementsAre("claudeLine"));
  EXPECT_THAT(library->eventTypes(), ElementsAre("friendQuote"));
}

TEST(EventDeliveryTest, PrimaryIsAWeakReference) {
  LogCapture log;
  EventDelivery events;
  {
    auto page = std::make_shared<FakePage>();
    events.setPrimaryWeb(page);
  }
  EXPECT_EQ(events.primaryWeb(), nullptr);
  events.sendEvent({{"type", "pdfReady"}, {"id", "x"}});
  EXPECT_EQ(events.queuedEvents().size(), 1u);
}

TEST(EventDeliveryTest, PrimaryPageHoldingAnOffSiteDocumentGetsNothing) {
  LogCapture log;
  EventDelivery events([] { return std::string("http://127.0.0.1:8000"); });
  auto page = std::make_shared<FakePage>("http://127.0.0.1:8000/");
  events.setPrimaryWeb(page);
  page->setAddress("http://127.0.0.1:9000/elsewhere");
  events.sendEvent({{"type", "claudeLine"}, {"turn", "t"}, {"line", "secret"}});
  events.sendEvent({{"type", "pdfChanged"}, {"id", "2401.01234"}});
  EXPECT_TRUE(page->scripts.empty());
  EXPECT_EQ(events.queuedEvents().size(), 2u);
  EXPECT_EQ(events.primaryWeb(), nullptr);
  EXPECT_THAT(log.messages(),
              ElementsAre("bridge: the primary page left the site for "
                          "http://127.0.0.1:9000/elsewhere — events wait for the next hello",
                          "event claudeLine queued (no page yet)",
                          "event pdfChanged queued (no page yet)"));
}

TEST(EventDeliveryTest, EventForAPageWithoutANetworkOriginIsQueued) {
  EventDelivery events([] { return std::string("http://127.0.0.1:8000"); });
  for (const char* address : {"blob:http://127.0.0.1:8000/x", "data:text/html,x", "about:blank",
                              "file:///tmp/x.html", ""}) {
    auto page = std::make_shared<FakePage>(address);
    events.sendEvent({{"type", "friendQuote"}, {"text", "q"}}, page);
    EXPECT_TRUE(page->scripts.empty()) << address;
  }
  EXPECT_EQ(events.queuedEvents().size(), 5u);
}

TEST(EventDeliveryTest, ALoadInFlightDoesNotMoveThePageOffTheSite) {
  EventDelivery events([] { return std::string("http://127.0.0.1:8000"); });
  auto page = std::make_shared<FakePage>("http://localhost:8000/");
  events.setPrimaryWeb(page);
  page->startLoad("https://evil.example/");
  events.sendEvent({{"type", "pdfReady"}, {"id", "x"}});
  EXPECT_THAT(page->eventTypes(), ElementsAre("pdfReady"));
}

TEST(EventDeliveryTest, PrimaryThatCommitsAnOffSiteDocumentStaysDemoted) {
  LogCapture log;
  EventDelivery events([] { return std::string("http://127.0.0.1:8000"); });
  auto page = std::make_shared<FakePage>("http://127.0.0.1:8000/");
  events.setPrimaryWeb(page);
  page->setAddress("https://evil.example/landing");
  events.pageCommitted(page);
  EXPECT_EQ(events.primaryWeb(), nullptr);
  // Coming back to the site is not enough: it has to say hello again.
  page->setAddress("http://127.0.0.1:8000/");
  events.pageCommitted(page);
  EXPECT_EQ(events.primaryWeb(), nullptr);
  events.sendEvent({{"type", "claudeLine"}, {"line", "x"}});
  EXPECT_TRUE(page->scripts.empty());
  EXPECT_EQ(events.queuedEvents().size(), 1u);
  EXPECT_THAT(log.messages(),
              ElementsAre("bridge: the primary page left the site for https://evil.example/landing "
                          "— events wait for the next hello",
                          "event claudeLine queued (no page yet)"));
}

TEST(EventDeliveryTest, CommitsOfOtherPagesLeaveThePrimaryAlone) {
  EventDelivery events([] { return std::string("http://127.0.0.1:8000"); });
  auto primary = std::make_shared<FakePage>();
  auto other = std::make_shared<FakePage>("https://evil.example/");
  events.setPrimaryWeb(primary);
  events.pageCommitted(other);
  events.pageCommitted(nullptr);
  primary->setAddress("http://127.0.0.1:8000/?sparwin=1#spar/x");
  events.pageCommitted(primary);
  EXPECT_EQ(events.primaryWeb(), primary);
}

TEST(EventDeliveryTest, InvalidUtf8IsReplacedRatherThanThrown) {
  std::string script;
  EXPECT_NO_THROW(script = EventDelivery::EventScript({{"type", "claudeLine"}, {"line", "a\xff"}}));
  EXPECT_NE(script.find("\"type\":\"claudeLine\""), std::string::npos);
}

} // namespace
} // namespace orvane

namespace orvane {
namespace {

TEST(EventBatchTest, EventsOfABatchReachEachPageInOneScriptInOrder) {
  EventDelivery events;
  auto library = std::make_shared<FakePage>();
  auto sparring = std::make_shared<FakePage>();
  events.setPrimaryWeb(sparring);
  events.openBatch();
  events.sendEvent({{"type", "claudeLine"}, {"line", "1"}});
  events.sendEvent({{"type", "claudeLine"}, {"line", "2 \"quoted\""}});
  events.sendEvent({{"type", "friendQuote"}}, library);
  events.sendEvent({{"type", "claudeLine"}, {"line", "3"}});
  EXPECT_TRUE(sparring->scripts.empty());
  events.closeBatch();
  ASSERT_EQ(sparring->scripts.size(), 2u);
  EXPECT_EQ(sparring->scripts[0],
            "(function(events){for(const e of events){if(!window.panelEvent)return;"
            "try{window.panelEvent(e)}catch(error){setTimeout(()=>{throw error})}}})("
            R"([{"line":"1","type":"claudeLine"},{"line":"2 \"quoted\"","type":"claudeLine"}]))");
  // A run of one keeps the single-event form.
  EXPECT_EQ(sparring->scripts[1],
            R"(window.panelEvent && window.panelEvent({"line":"3","type":"claudeLine"}))");
  EXPECT_EQ(library->eventTypes(), std::vector<std::string>{"friendQuote"});
}

TEST(EventBatchTest, NestedBatchesDeliverWhenTheOutermostCloses) {
  EventDelivery events;
  auto page = std::make_shared<FakePage>();
  events.setPrimaryWeb(page);
  events.openBatch();
  events.openBatch();
  events.sendEvent({{"type", "a"}});
  events.closeBatch();
  EXPECT_TRUE(page->scripts.empty());
  events.sendEvent({{"type", "b"}});
  events.closeBatch();
  EXPECT_EQ(page->scripts.size(), 1u);
  events.closeBatch(); // unbalanced: ignored
  events.sendEvent({{"type", "c"}});
  EXPECT_EQ(page->eventTypes(), std::vector<std::string>{"c"});
}

TEST(EventBatchTest, EventsWithoutAPageAreQueuedEvenInABatch) {
  LogCapture log;
  EventDelivery events;
  events.openBatch();
  events.sendEvent({{"type", "pdfChanged"}});
  events.closeBatch();
  EXPECT_EQ(events.queuedEvents().size(), 1u);
}

} // namespace
} // namespace orvane
