#include "bridge/EventDelivery.h"

#include "support/FakePage.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <jsc/jsc.h>

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

Event Line(const std::string& turn, const std::string& line) {
  return {{"type", "claudeLine"}, {"turn", turn}, {"line", line}};
}

// Every kind of entry a batch holds, in one script, in order: runs of lines
// of one turn and of another, a line that cannot travel in a run (it holds
// a line feed, or bytes that are not UTF-8), other events, and an event
// that is an array.
std::vector<Event> MixedEvents() {
  return {Line("a", "one"),
          Line("a", "two \\ \"three\"\t\x01\x1f é ✓ 😀 \u2028 </script>"),
          Line("b", "other turn"),
          Line("a", "back to a"),
          Line("a", "has a\nline feed"),
          Line("a", std::string("NUL \0 inside", 12)),
          Line("a", "not UTF-8 \xff"),
          {{"type", "claudeDone"}, {"turn", "a"}, {"code", 0}, {"stderr", ""}},
          {{"type", "claudeLine"}, {"turn", "a"}, {"line", "extra key"}, {"n", 1}},
          {{"type", "claudeLine"}, {"turn", 5}, {"line", "turn is a number"}},
          Event::array({1, "two"}),
          {{"type", "pdfChanged"}, {"id", "x"}, {"mtime", 1.5}, {"size", 3}},
          Line("a", "after the rest")};
}

// The events the page receives from one script: the script runs in a real
// JavaScript engine whose window.panelEvent records each event as JSON text.
std::vector<Event>
RunInJavaScript(const std::vector<std::string>& scripts,
                const std::string& handler = "e => got.push(JSON.stringify(e))") {
  JSCContext* context = jsc_context_new();
  std::string setup = "var window = globalThis; var got = []; var thrown = [];"
                      "function setTimeout(f) { try { f() } catch (e) { thrown.push(String(e)) } }"
                      "window.panelEvent = " +
                      handler + ";";
  g_object_unref(jsc_context_evaluate(context, setup.c_str(), gssize(setup.size())));
  for (const std::string& script : scripts) {
    g_object_unref(jsc_context_evaluate(context, script.c_str(), gssize(script.size())));
    if (JSCException* exception = jsc_context_get_exception(context)) {
      ADD_FAILURE() << jsc_exception_get_message(exception);
      jsc_context_clear_exception(context);
    }
  }
  JSCValue* got = jsc_context_evaluate(context, "JSON.stringify(got)", -1);
  gchar* text = jsc_value_to_string(got);
  std::vector<Event> received;
  for (const auto& json : nlohmann::json::parse(text))
    received.push_back(nlohmann::json::parse(json.get<std::string>()));
  g_free(text);
  g_object_unref(got);
  g_object_unref(context);
  return received;
}

// What separate scripts would hand the page: each event's JSON as the
// JSON library writes it, with invalid UTF-8 replaced.
std::vector<Event> AsSeparateScriptsWouldHandThem(const std::vector<Event>& sent) {
  std::vector<Event> expected;
  for (const Event& event : sent)
    expected.push_back(nlohmann::json::parse(
        event.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)));
  return expected;
}

TEST(EventBatchTest, EventsOfABatchReachEachPageInOneScriptInOrder) {
  EventDelivery events;
  auto library = std::make_shared<FakePage>();
  auto sparring = std::make_shared<FakePage>();
  events.setPrimaryWeb(sparring);
  events.openBatch();
  events.sendEvent(Line("t", "1"));
  events.sendEvent(Line("t", "2 \"quoted\""));
  events.sendEvent({{"type", "friendQuote"}}, library);
  events.sendEvent(Line("t", "3"));
  EXPECT_TRUE(sparring->scripts.empty());
  events.closeBatch();
  ASSERT_EQ(sparring->scripts.size(), 1u);
  EXPECT_THAT(sparring->events(),
              ElementsAre(Line("t", "1"), Line("t", "2 \"quoted\""), Line("t", "3")));
  // A batch of one event hands the page that event, as its own script would.
  ASSERT_EQ(library->scripts.size(), 1u);
  EXPECT_EQ(RunInJavaScript(library->scripts),
            RunInJavaScript({EventDelivery::EventScript({{"type", "friendQuote"}})}));
  EXPECT_THAT(library->events(), ElementsAre(Event{{"type", "friendQuote"}}));
}

TEST(EventBatchTest, ABatchHandsThePageEveryEventExactlyAsSeparateScriptsWould) {
  EventDelivery events;
  auto page = std::make_shared<FakePage>();
  events.setPrimaryWeb(page);
  events.openBatch();
  for (const Event& event : MixedEvents())
    events.sendEvent(event);
  events.closeBatch();
  ASSERT_EQ(page->scripts.size(), 1u);
  auto expected = AsSeparateScriptsWouldHandThem(MixedEvents());
  EXPECT_EQ(RunInJavaScript(page->scripts), expected);
  EXPECT_EQ(page->events(), expected);
  // Each line's object has its keys in the order of the JSON text.
  JSCContext* context = jsc_context_new();
  std::string script = "var window = globalThis; var keys = [];"
                       "window.panelEvent = e => keys.push(Object.keys(e).join());" +
                       page->scripts[0] + "; keys[0]";
  JSCValue* keys = jsc_context_evaluate(context, script.c_str(), gssize(script.size()));
  gchar* text = jsc_value_to_string(keys);
  EXPECT_STREQ(text, "line,turn,type");
  g_free(text);
  g_object_unref(keys);
  g_object_unref(context);
}

TEST(EventBatchTest, ABatchOfOneLineHandsThePageWhatThatLinesOwnScriptWould) {
  for (const std::string& line :
       {std::string("plain"), std::string("q\"b\\c\x01\x7f\b\f\r\t"), std::string("é ✓ 😀"),
        std::string("NUL \0", 5), std::string(100, 'x')}) {
    EventDelivery events;
    auto page = std::make_shared<FakePage>();
    events.setPrimaryWeb(page);
    events.openBatch();
    events.sendEvent(Line("turn \"q\"", line));
    events.closeBatch();
    ASSERT_EQ(page->scripts.size(), 1u);
    std::vector<Event> alone =
        RunInJavaScript({EventDelivery::EventScript(Line("turn \"q\"", line))});
    EXPECT_EQ(RunInJavaScript(page->scripts), alone);
    EXPECT_EQ(alone, AsSeparateScriptsWouldHandThem({Line("turn \"q\"", line)}));
  }
}

TEST(EventBatchTest, AHandlerThatThrowsDoesNotStopTheRestAndAMissingOneDropsThem) {
  EventDelivery events;
  auto page = std::make_shared<FakePage>();
  events.setPrimaryWeb(page);
  events.openBatch();
  for (const Event& event : MixedEvents())
    events.sendEvent(event);
  events.closeBatch();
  auto expected = AsSeparateScriptsWouldHandThem(MixedEvents());
  // Every event is offered even though the handler throws at each.
  EXPECT_EQ(RunInJavaScript(page->scripts, "e => { got.push(JSON.stringify(e)); throw 'no' }"),
            expected);
  // A handler that takes itself away after the third event gets three.
  std::vector<Event> first_three(expected.begin(), expected.begin() + 3);
  EXPECT_EQ(RunInJavaScript(page->scripts, "e => { got.push(JSON.stringify(e));"
                                           "if (got.length === 3) window.panelEvent = undefined }"),
            first_three);
}

TEST(EventBatchTest, ABatchPastTheScriptLimitGoesInSeveralScriptsInOrder) {
  EventDeliveryLimits limits;
  limits.script_bytes = 1000;
  EventDelivery events(SiteAddress, limits);
  auto page = std::make_shared<FakePage>();
  events.setPrimaryWeb(page);
  std::vector<Event> sent;
  events.openBatch();
  for (int i = 0; i < 500; ++i) {
    sent.push_back(i % 50 == 49 ? Event{{"type", "other"}, {"i", i}}
                                : Line(i % 7 == 0 ? "x" : "y", "line " + std::to_string(i)));
    events.sendEvent(sent.back());
  }
  // Full scripts went while the batch was still open.
  EXPECT_GT(page->scripts.size(), 5u);
  events.closeBatch();
  for (const std::string& script : page->scripts)
    EXPECT_LE(script.size(), 1000u + 200u) << script.substr(0, 200);
  EXPECT_EQ(page->events(), sent);
  EXPECT_EQ(RunInJavaScript(page->scripts), sent);
}

TEST(EventBatchTest, ALineLargerThanTheScriptLimitGoesInAScriptOfItsOwn) {
  EventDeliveryLimits limits;
  limits.script_bytes = 1000;
  EventDelivery events(SiteAddress, limits);
  auto page = std::make_shared<FakePage>();
  events.setPrimaryWeb(page);
  std::string huge(5000, 'h');
  events.openBatch();
  events.sendEvent(Line("t", "before"));
  events.sendEvent(Line("t", huge));
  events.sendEvent(Line("t", "after"));
  events.closeBatch();
  ASSERT_EQ(page->scripts.size(), 3u);
  EXPECT_EQ(RunInJavaScript({page->scripts[1]}), std::vector<Event>{Line("t", huge)});
  EXPECT_THAT(page->events(),
              ElementsAre(Line("t", "before"), Line("t", huge), Line("t", "after")));
}

TEST(EventBatchTest, AThousandBatchesOfAThousandLinesArriveWholeAndInOrder) {
  EventDelivery events;
  auto page = std::make_shared<FakePage>();
  events.setPrimaryWeb(page);
  for (int batch = 0; batch < 1000; ++batch) {
    events.openBatch();
    for (int i = 0; i < 1000; ++i)
      events.sendEvent(Line("flood", std::to_string(batch * 1000 + i)));
    events.closeBatch();
    page->finishScripts();
  }
  auto received = page->events();
  ASSERT_EQ(received.size(), 1000000u);
  for (size_t i = 0; i < received.size(); ++i)
    ASSERT_EQ(received[i]["line"], std::to_string(i)) << i;
}

TEST(EventFlowTest, APageBehindItsScriptsIsBackedUpUntilItRunsThem) {
  EventDeliveryLimits limits;
  limits.in_flight_bytes = 10000;
  EventDelivery events(SiteAddress, limits);
  auto page = std::make_shared<FakePage>();
  events.setPrimaryWeb(page);
  int resumed = 0;
  events.whenDrained([&] { ++resumed; });
  EXPECT_EQ(resumed, 1); // not behind: at once
  for (int i = 0; !events.isBackedUp(); ++i) {
    ASSERT_LT(i, 1000);
    events.openBatch();
    events.sendEvent(Line("t", std::string(500, 'x')));
    events.sendEvent(Line("t", std::string(500, 'y')));
    events.closeBatch();
  }
  events.whenDrained([&] { ++resumed; });
  EXPECT_EQ(resumed, 1);
  page->finishScripts();
  EXPECT_FALSE(events.isBackedUp());
  EXPECT_EQ(resumed, 2);
}

TEST(EventFlowTest, APageThatGoesAwayOrIsReplacedHoldsNothingBack) {
  EventDeliveryLimits limits;
  limits.in_flight_bytes = 100;
  EventDelivery events(SiteAddress, limits);
  auto first = std::make_shared<FakePage>();
  events.setPrimaryWeb(first);
  events.sendEvent(Line("t", std::string(500, 'x')));
  ASSERT_TRUE(events.isBackedUp());
  int resumed = 0;
  events.whenDrained([&] { ++resumed; });
  // Another page says hello: the lagging one no longer holds anything back.
  auto second = std::make_shared<FakePage>();
  events.setPrimaryWeb(second);
  EXPECT_EQ(resumed, 1);
  events.sendEvent(Line("t", std::string(500, 'x')));
  ASSERT_TRUE(events.isBackedUp());
  events.whenDrained([&] { ++resumed; });
  // A page that goes away calls what it was running back.
  second.reset();
  EXPECT_EQ(resumed, 2);
  EXPECT_FALSE(events.isBackedUp());
  // The first page's late completions are harmless.
  first->finishScripts();
  EXPECT_EQ(resumed, 2);
}

TEST(EventFlowTest, CompletionsAfterTheDeliveryIsGoneAreHarmless) {
  auto page = std::make_shared<FakePage>();
  {
    EventDelivery events;
    events.setPrimaryWeb(page);
    events.sendEvent(Line("t", "x"));
  }
  page->finishScripts();
  EXPECT_EQ(page->events().size(), 1u);
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
  EXPECT_EQ(page->scripts.size(), 2u);
  EXPECT_EQ(page->scripts.back(), EventDelivery::EventScript({{"type", "c"}}));
  EXPECT_THAT(page->eventTypes(), ElementsAre("a", "b", "c"));
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
