#include "web/WebPage.h"

#include "base/SiteAddress.h"

#include <nlohmann/json.hpp>

#include <memory>

namespace orvane {

std::string ScriptForDocumentOf(const std::string& script, const std::string& committed_address) {
  std::optional<std::string> origin = LocationOrigin(committed_address);
  if (!origin)
    return script;
  // location and its origin cannot be redefined by a page's scripts.
  return "if (location.origin === " + nlohmann::json(*origin).dump() + ") {\n" + script + "\n}";
}

WebPage::WebPage(WebKitWebView* view) : view_(view) {
  g_object_ref_sink(view_);
  // Connected before anyone else's handler, so that the address is current
  // for whoever reacts to the same commit.
  load_changed_handler_ =
      g_signal_connect(view_, "load-changed",
                       G_CALLBACK(+[](WebKitWebView* v, WebKitLoadEvent event, gpointer data) {
                         auto* self = static_cast<WebPage*>(data);
                         if (event == WEBKIT_LOAD_COMMITTED) {
                           const gchar* uri = webkit_web_view_get_uri(v);
                           self->committed_address_ = uri ? uri : "";
                         } else if (event == WEBKIT_LOAD_FINISHED && self->load_finished_) {
                           // A copy: the call may replace the listener.
                           std::function<void()> finished = self->load_finished_;
                           finished();
                         }
                       }),
                       this);
  terminated_handler_ = g_signal_connect(
      view_, "web-process-terminated",
      G_CALLBACK(+[](WebKitWebView*, WebKitWebProcessTerminationReason, gpointer data) {
        static_cast<WebPage*>(data)->committed_address_.clear();
      }),
      this);
}

WebPage::~WebPage() {
  g_signal_handler_disconnect(view_, load_changed_handler_);
  g_signal_handler_disconnect(view_, terminated_handler_);
  g_object_unref(view_);
}

void WebPage::evaluateScript(const std::string& script) {
  std::string guarded = ScriptForDocumentOf(script, committed_address_);
  webkit_web_view_evaluate_javascript(view_, guarded.c_str(), gssize(guarded.size()), nullptr,
                                      nullptr, nullptr, nullptr, nullptr);
}

void WebPage::evaluateScriptThen(const std::string& script, std::function<void()> done) {
  std::string guarded = ScriptForDocumentOf(script, committed_address_);
  auto* held = new std::function<void()>(std::move(done));
  webkit_web_view_evaluate_javascript(
      view_, guarded.c_str(), gssize(guarded.size()), nullptr, nullptr, nullptr,
      [](GObject* view, GAsyncResult* result, gpointer data) {
        std::unique_ptr<std::function<void()>> call(static_cast<std::function<void()>*>(data));
        // The value and any error are of no interest; finishing frees them.
        if (JSCValue* value =
                webkit_web_view_evaluate_javascript_finish(WEBKIT_WEB_VIEW(view), result, nullptr))
          g_object_unref(value);
        (*call)();
      },
      held);
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

void WebPage::loadHtml(const std::string& html) {
  webkit_web_view_load_html(view_, html.c_str(), nullptr);
}

bool WebPage::hasLoadedAnything() const {
  return webkit_web_view_get_uri(view_) != nullptr;
}

} // namespace orvane
