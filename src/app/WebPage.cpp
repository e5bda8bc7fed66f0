#include "app/WebPage.h"

namespace orvane {

namespace {
constexpr char kPageKey[] = "orvane-page";
}

WebPage::WebPage(WebKitWebView* view) : view_(view) {
  g_object_ref_sink(view_);
  g_object_set_data(G_OBJECT(view_), kPageKey, this);
}

WebPage::~WebPage() {
  g_object_set_data(G_OBJECT(view_), kPageKey, nullptr);
  g_object_unref(view_);
}

WebPage* WebPage::From(WebKitWebView* view) {
  return view ? static_cast<WebPage*>(g_object_get_data(G_OBJECT(view), kPageKey)) : nullptr;
}

void WebPage::evaluateScript(const std::string& script) {
  webkit_web_view_evaluate_javascript(view_, script.c_str(), gssize(script.size()), nullptr,
                                      nullptr, nullptr, nullptr, nullptr);
}

std::string WebPage::currentAddress() const {
  const gchar* uri = webkit_web_view_get_uri(view_);
  return uri ? uri : "";
}

void WebPage::load(const std::string& address) {
  webkit_web_view_load_uri(view_, address.c_str());
}

void WebPage::loadBlank() {
  webkit_web_view_load_html(view_, "", nullptr);
}

bool WebPage::hasLoadedAnything() const {
  return webkit_web_view_get_uri(view_) != nullptr;
}

} // namespace orvane
