// The end of a page's load as a WebPage tells it, in a real web view: after
// a page that loaded, after one whose load failed, and only to the listener
// it has now.
#include <gtest/gtest.h>

#include "support/MainLoop.h"
#include "support/RawServer.h"
#include "support/TestHttpServer.h"
#include "web/WebPage.h"

#include <gtk/gtk.h>

#include <cstring>
#include <string>

namespace orvane {
namespace {

class WebPageLoadTest : public ::testing::Test {
protected:
  void SetUp() override {
    window_ = gtk_offscreen_window_new();
    gtk_container_add(GTK_CONTAINER(window_), page_.widget());
    gtk_widget_show_all(window_);
    // What WebKit itself reports, to know when a load has ended whoever
    // listens on the page, and whether it failed.
    g_signal_connect(page_.view(), "load-changed",
                     G_CALLBACK(+[](WebKitWebView*, WebKitLoadEvent event, gpointer data) {
                       if (event == WEBKIT_LOAD_FINISHED)
                         ++static_cast<WebPageLoadTest*>(data)->finished_;
                     }),
                     this);
    g_signal_connect(page_.view(), "load-failed",
                     G_CALLBACK(+[](WebKitWebView*, WebKitLoadEvent, gchar*, GError*,
                                    gpointer data) -> gboolean {
                       ++static_cast<WebPageLoadTest*>(data)->failed_;
                       return FALSE;
                     }),
                     this);
  }
  void TearDown() override {
    g_signal_handlers_disconnect_by_data(page_.view(), this);
    gtk_container_remove(GTK_CONTAINER(window_), page_.widget());
    gtk_widget_destroy(window_);
  }

  // Starts a load and waits until WebKit has finished it.
  void loadToItsEnd(const std::string& address) {
    int before = finished_;
    page_.load(address);
    ASSERT_TRUE(SpinUntil([&] { return finished_ > before; })) << address;
  }

  TestHttpServer site_{[](const HttpRequest&, HttpReply& reply) {
    reply.body = "<!doctype html><title>page</title><p>page";
    reply.content_type = "text/html; charset=utf-8";
  }};
  WebPage page_{WEBKIT_WEB_VIEW(webkit_web_view_new())};
  GtkWidget* window_ = nullptr;
  int finished_ = 0;
  int failed_ = 0;
};

TEST_F(WebPageLoadTest, TheListenerHearsTheEndOfALoadThatWorkedAndOfOneThatFailed) {
  int ended = 0;
  page_.onLoadFinished([&] { ++ended; });

  loadToItsEnd(site_.url("/"));
  EXPECT_EQ(ended, 1);
  EXPECT_EQ(failed_, 0);

  // A server that closes the connection without an answer: the load fails,
  // and still ends.
  RawServer closing([](RawServer&, int, const std::string&) {});
  loadToItsEnd(closing.url("/"));
  EXPECT_EQ(failed_, 1);
  EXPECT_EQ(ended, 2);
}

TEST_F(WebPageLoadTest, OnlyTheListenerItHasNowIsTold) {
  int first = 0;
  int second = 0;
  page_.onLoadFinished([&] { ++first; });
  page_.onLoadFinished([&] { ++second; });
  loadToItsEnd(site_.url("/one"));
  EXPECT_EQ(first, 0);
  EXPECT_EQ(second, 1);

  // A listener may take itself away when it is told.
  page_.onLoadFinished([&] {
    ++first;
    page_.onLoadFinished(nullptr);
  });
  loadToItsEnd(site_.url("/two"));
  loadToItsEnd(site_.url("/three"));
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 1);
  EXPECT_EQ(finished_, 3);
}

} // namespace
} // namespace orvane
