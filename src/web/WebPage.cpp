#include "web/WebPage.h"

namespace orvane {

WebPage::WebPage(WebKitWebView* view) : view_(view) {
  g_object_ref_sink(view_);
}

WebPage::~WebPage() {
  g_object_unref(view_);
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
