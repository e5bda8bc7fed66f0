// The library window's own page for a site that did not start, in a real
// web view made as every view is (the bridge's message channel included):
// it is not the site, so a message posted from it is refused like any
// off-site page's, while the same document under the site's address would be
// taken. The page itself runs no script (its policy forbids them); the test
// runs one in it anyway, as a page that managed to would.
#include <gtest/gtest.h>

#include "bridge/BridgeHost.h"
#include "bridge/EventDelivery.h"
#include "bridge/MessageDispatcher.h"
#include "support/LogCapture.h"
#include "support/MainLoop.h"
#include "support/TestHttpServer.h"
#include "web/ServerFailurePage.h"
#include "web/WebViewFactory.h"

#include <gtk/gtk.h>

namespace orvane {
namespace {

using nlohmann::json;

std::string PageHtml() {
  return ServerFailurePage("http://127.0.0.1:8000", "/tmp/shelfkeep.log", "ModuleNotFoundError");
}

// The program as the bridge sees it: records every message that gets past
// the bridge's check.
class RecordingHost final : public BridgeHost {
public:
  bool handlePdfAction(const std::optional<std::string>& action, const json&,
                       const PageRef&) override {
    taken.push_back(action.value_or("(none)"));
    return true;
  }
  void openSparWindowFor(const std::string&) override {}
  void closeSparWindow() override {}
  PageRef quickPanelPage() const override { return nullptr; }
  void hideQuickPanel() override {}
  void beginFileDrag(const std::string&, const PageRef&) override {}
  void openPreviewSplitFor(const std::string&) override {}
  bool storeHasAccount() const override { return false; }
  void setStoreAccount(const std::string&) override {}
  void rescanStore() override {}
  void ensureLocal(const std::string&, const std::optional<std::string>&,
                   const std::optional<std::string>&, LocalCopyCompletion) override {}
  std::string claudePath() const override { return ""; }
  std::string sparFolder() override { return "/nonexistent"; }

  std::vector<std::string> taken;
};

class ForwardingDelegate final : public WebViewDelegate {
public:
  explicit ForwardingDelegate(MessageDispatcher& dispatcher) : dispatcher_(dispatcher) {}
  void didReceiveScriptMessage(const std::string& name, const json& body, WebKitWebView*,
                               const MessageSender& sender) override {
    senders.push_back(sender);
    dispatcher_.didReceiveScriptMessage(name, body, page, sender);
  }
  bool decidePolicy(WebKitWebView*, WebKitPolicyDecision*, WebKitPolicyDecisionType) override {
    return false;
  }
  GtkWidget* createWebView(WebKitWebView*, WebKitNavigationAction*) override { return nullptr; }
  bool runFileChooser(WebKitWebView*, WebKitFileChooserRequest*) override { return false; }
  void webViewDidClose(WebKitWebView*) override {}
  void didCommitNavigation(WebKitWebView*) override {}
  void didFinishNavigation(WebKitWebView*) override { ++finished; }

  PageRef page;
  std::vector<MessageSender> senders;
  int finished = 0;

private:
  MessageDispatcher& dispatcher_;
};

class FailurePageBridgeTest : public ::testing::Test {
protected:
  void SetUp() override {
    page_ = factory_.makeWebView();
    delegate_.page = page_;
    window_ = gtk_offscreen_window_new();
    gtk_container_add(GTK_CONTAINER(window_), page_->widget());
    gtk_widget_show_all(window_);
  }
  void TearDown() override {
    gtk_container_remove(GTK_CONTAINER(window_), page_->widget());
    gtk_widget_destroy(window_);
  }

  // Loads a document and waits until it has finished loading.
  void loaded(const std::function<void()>& load) {
    int before = delegate_.finished;
    load();
    ASSERT_TRUE(SpinUntil([&] { return delegate_.finished > before; }));
  }
  // Posts "hello" on the panel channel from the page's own script world and
  // waits until the program has the message.
  void postHelloFromThePage() {
    size_t before = delegate_.senders.size();
    const char script[] =
        "window.webkit.messageHandlers.panel.postMessage({action: 'hello', account: 'a'})";
    webkit_web_view_evaluate_javascript(page_->view(), script, -1, nullptr, nullptr, nullptr,
                                        nullptr, nullptr);
    ASSERT_TRUE(SpinUntil([&] { return delegate_.senders.size() > before; }));
  }

  // The site: a real loopback server that serves the same document.
  TestHttpServer site_{[](const HttpRequest&, HttpReply& reply) {
    reply.body = PageHtml();
    reply.content_type = "text/html; charset=utf-8";
  }};
  std::string site_address_ = site_.url("");
  LogCapture log_;
  RecordingHost host_;
  EventDelivery events_{[this] { return site_address_; }};
  MessageDispatcher dispatcher_{host_, events_, [this] { return site_address_; }};
  ForwardingDelegate delegate_{dispatcher_};
  WebViewFactory factory_{delegate_, [] { return std::string(); }, std::nullopt};
  std::shared_ptr<WebPage> page_;
  GtkWidget* window_ = nullptr;
};

TEST_F(FailurePageBridgeTest, AMessageFromTheFailurePageIsRefused) {
  loaded([&] { page_->loadHtml(PageHtml()); });
  EXPECT_EQ(page_->committedAddress(), "about:blank");

  postHelloFromThePage();
  EXPECT_EQ(delegate_.senders.back().document_address, "about:blank");
  EXPECT_TRUE(host_.taken.empty());
  std::vector<std::string> messages = log_.messages();
  EXPECT_NE(std::find(messages.begin(), messages.end(),
                      "message from off-site page about:blank — ignored"),
            messages.end());
}

TEST_F(FailurePageBridgeTest, TheSameDocumentUnderTheSitesAddressWouldBeTaken) {
  // What the failure page must not be: a document of the site. Served by
  // the site, the same page's message is taken.
  std::string address = site_.url("/");
  loaded([&] { page_->load(address); });
  EXPECT_EQ(page_->committedAddress(), address);

  postHelloFromThePage();
  EXPECT_EQ(delegate_.senders.back().document_address, address);
  EXPECT_EQ(host_.taken, std::vector<std::string>{"hello"});
}

} // namespace
} // namespace orvane
