#include "web/WebPage.h"
#include "web/WebViewFactory.h"

#include <gtest/gtest.h>

namespace orvane {
namespace {

TEST(PanelMessageTest, EnvelopeGivesBodyAndSender) {
  PanelMessage message = ReadPanelMessage(
      R"({"href":"http://127.0.0.1:8000/?s=x","top":true,"body":"{\"action\":\"hello\"}"})");
  EXPECT_EQ(message.body, (nlohmann::json{{"action", "hello"}}));
  EXPECT_EQ(message.sender.document_address, "http://127.0.0.1:8000/?s=x");
  EXPECT_TRUE(message.sender.main_frame);
}

TEST(PanelMessageTest, FrameInsideThePageIsNotTheMainFrame) {
  PanelMessage message =
      ReadPanelMessage(R"({"href":"http://127.0.0.1:8001/ad","top":false,"body":"42"})");
  EXPECT_FALSE(message.sender.main_frame);
  EXPECT_EQ(message.sender.document_address, "http://127.0.0.1:8001/ad");
  EXPECT_EQ(message.body, nlohmann::json(42));
}

TEST(PanelMessageTest, MalformedEnvelopesComeFromNoMainFrame) {
  for (const char* envelope :
       {"", "null", "42", "[]", "{", R"({"top":"true","href":"http://127.0.0.1:8000/"})",
        R"({"top":1,"href":"http://127.0.0.1:8000/"})", R"({"href":7})",
        "{\"top\":true,\"href\":\"\xff\"}"}) {
    PanelMessage message = ReadPanelMessage(envelope);
    EXPECT_FALSE(message.sender.main_frame) << envelope;
    EXPECT_TRUE(message.body.is_null()) << envelope;
  }
}

TEST(PanelMessageTest, BodyThatIsNotJsonTextIsNull) {
  EXPECT_TRUE(ReadPanelMessage(R"({"top":true,"href":"x","body":"{not json"})").body.is_null());
  EXPECT_TRUE(
      ReadPanelMessage(R"({"top":true,"href":"x","body":{"action":"hello"}})").body.is_null());
  EXPECT_TRUE(ReadPanelMessage(R"({"top":true,"href":"x"})").body.is_null());
}

TEST(PageScriptTest, ScriptRunsOnlyInADocumentOfTheCommittedOrigin) {
  EXPECT_EQ(ScriptForDocumentOf("window.panelEvent && window.panelEvent({})",
                                "http://127.0.0.1:8000/?sparwin=1#spar/x"),
            "if (location.origin === \"http://127.0.0.1:8000\") {\n"
            "window.panelEvent && window.panelEvent({})\n}");
  // Nothing committed yet, or a document without a web origin: as it is.
  EXPECT_EQ(ScriptForDocumentOf("f()", ""), "f()");
  EXPECT_EQ(ScriptForDocumentOf("f()", "about:blank"), "f()");
}

} // namespace
} // namespace orvane
