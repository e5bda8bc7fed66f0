#include "web/WebViewFactory.h"

#include "base/BuildInfo.h"
#include "base/GObjectPtr.h"
#include "base/Paths.h"
#include "base/Settings.h"

#include <glib/gstdio.h>

namespace orvane {

std::string JsStringLiteral(std::string_view text) {
  // A one-element JSON list without its brackets is a correctly escaped
  // string literal; ASCII-only output leaves no line or paragraph separator
  // (U+2028, U+2029) raw in the source.
  std::string list = nlohmann::json::array({std::string(text)})
                         .dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
  std::string literal;
  literal.reserve(list.size());
  for (char c : std::string_view(list).substr(1, list.size() - 2)) {
    if (c == '<')
      literal += "\\u003c"; // no "</script>" or "<!--" in any context
    else if (c == '\x7f')
      literal += "\\u007f";
    else
      literal += c;
  }
  return literal;
}

std::string CapabilitiesScript(const std::string& claude_path,
                               const std::optional<std::string>& release) {
  return "window.panelCaps = {localPdfs: true, hotkey: true, dockDrop: true, claude: " +
         JsStringLiteral(claude_path) + ", version: '" + kVersion + "', build: '" +
         kBuildIdentifier + "', release: " + (release ? JsStringLiteral(*release) : "null") + "};";
}

PanelMessage ReadPanelMessage(std::string_view envelope_json) {
  PanelMessage message;
  nlohmann::json envelope = nlohmann::json::parse(envelope_json, nullptr, false);
  if (!envelope.is_object())
    return message;
  message.sender.document_address = StringMember(envelope, "href").value_or("");
  auto top = envelope.find("top");
  message.sender.main_frame = top != envelope.end() && top->is_boolean() && top->get<bool>();
  if (std::optional<std::string> body = StringMember(envelope, "body"))
    message.body = ParseMessageBody(*body);
  return message;
}

namespace {

constexpr char kBridgeEvent[] = "orvane-bridge-message";

// In the page's world, every frame: the channel the site's pages call.
std::string PageWorldChannelScript() {
  return std::string(R"JS((function () {
  'use strict';
  const stringify = JSON.stringify;
  const BridgeEvent = CustomEvent;
  const dispatch = EventTarget.prototype.dispatchEvent;
  const target = window;
  const panel = Object.freeze({
    postMessage(body) {
      const text = stringify(body);
      dispatch.call(target, new BridgeEvent(')JS") +
         kBridgeEvent + R"JS(', {detail: text === undefined ? 'null' : text}));
    },
  });
  try {
    Object.defineProperty(window, 'webkit', {
      value: Object.freeze({messageHandlers: Object.freeze({panel})}),
      configurable: false, enumerable: false, writable: false,
    });
  } catch (error) {}
})();)JS";
}

// In the bridge's isolated world, every frame: hands each message to the
// program with where it came from. Registered before any page script runs,
// so it is the first to hear the event.
std::string IsolatedWorldRelayScript() {
  return std::string(R"JS((function () {
  'use strict';
  const handler = window.webkit.messageHandlers.panel;
  window.addEventListener(')JS") +
         kBridgeEvent + R"JS(', (event) => {
    event.stopImmediatePropagation();
    if (typeof event.detail !== 'string') return;
    handler.postMessage({href: String(location.href), top: window === window.top, body: event.detail});
  }, true);
})();)JS";
}

void AddScript(WebKitUserContentManager* content, const std::string& source,
               WebKitUserContentInjectedFrames frames, const char* world) {
  WebKitUserScript* script =
      world ? webkit_user_script_new_for_world(source.c_str(), frames,
                                               WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START, world,
                                               nullptr, nullptr)
            : webkit_user_script_new(source.c_str(), frames,
                                     WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START, nullptr, nullptr);
  webkit_user_content_manager_add_script(content, script);
  webkit_user_script_unref(script);
}

WebKitWebContext* MakeSharedContext() {
  std::string data = WebsiteDataFolder();
  std::string cache = WebsiteCacheFolder();
  g_mkdir_with_parents(data.c_str(), 0700);
  g_mkdir_with_parents(cache.c_str(), 0700);
  auto manager = GObjectPtr<WebKitWebsiteDataManager>::adopt(webkit_website_data_manager_new(
      "base-data-directory", data.c_str(), "base-cache-directory", cache.c_str(), nullptr));
  // Cookies in a file of their own, so that a site login survives a restart.
  std::string cookies = data + "/cookies.sqlite";
  webkit_cookie_manager_set_persistent_storage(
      webkit_website_data_manager_get_cookie_manager(manager.get()), cookies.c_str(),
      WEBKIT_COOKIE_PERSISTENT_STORAGE_SQLITE);
  WebKitWebContext* context = webkit_web_context_new_with_website_data_manager(manager.get());
  // The text-substitution switches are all off by default; spelling
  // correction is the one WebKitGTK offers, as spell checking.
  webkit_web_context_set_spell_checking_enabled(
      context, Settings::standard().boolForKey("NSAutomaticSpellingCorrectionEnabled"));
  return context;
}

} // namespace

WebViewFactory::WebViewFactory(WebViewDelegate& delegate, std::function<std::string()> claude_path,
                               std::optional<std::string> release)
    : delegate_(delegate), claude_path_(std::move(claude_path)), release_(std::move(release)) {}

WebViewFactory::~WebViewFactory() {
  if (context_)
    g_object_unref(context_);
}

std::shared_ptr<WebPage> WebViewFactory::makeWebView(const WebPage* share_process_of) {
  if (!context_)
    context_ = MakeSharedContext();

  auto content = GObjectPtr<WebKitUserContentManager>::adopt(webkit_user_content_manager_new());
  AddScript(content.get(), IsolatedWorldRelayScript(), WEBKIT_USER_CONTENT_INJECT_ALL_FRAMES,
            kBridgeWorld);
  AddScript(content.get(), PageWorldChannelScript(), WEBKIT_USER_CONTENT_INJECT_ALL_FRAMES,
            nullptr);
  AddScript(content.get(), CapabilitiesScript(claude_path_ ? claude_path_() : "", release_),
            WEBKIT_USER_CONTENT_INJECT_TOP_FRAME, nullptr);

  // A related view takes its web context (and its web process) from the
  // other view; its content manager stays its own, so that its messages
  // still say which view posted them.
  auto* view = WEBKIT_WEB_VIEW(share_process_of
                                   ? g_object_new(WEBKIT_TYPE_WEB_VIEW, "related-view",
                                                  share_process_of->view(), "user-content-manager",
                                                  content.get(), nullptr)
                                   : g_object_new(WEBKIT_TYPE_WEB_VIEW, "web-context", context_,
                                                  "user-content-manager", content.get(), nullptr));
  // First, so that its record of the committed address is current for the
  // handlers below.
  auto page = std::make_shared<WebPage>(view);
  WebKitSettings* settings = webkit_web_view_get_settings(view);
  webkit_settings_set_javascript_can_open_windows_automatically(settings, TRUE);

  // Messages: the content manager is this view's own, so the view is known.
  // The handler lives only in the bridge's world, so only its relay can post.
  g_object_set_data(G_OBJECT(content.get()), "orvane-view", view);
  g_signal_connect(content.get(), "script-message-received::panel",
                   G_CALLBACK(+[](WebKitUserContentManager* manager, WebKitJavascriptResult* result,
                                  gpointer data) {
                     auto* self = static_cast<WebViewFactory*>(data);
                     auto* from = static_cast<WebKitWebView*>(
                         g_object_get_data(G_OBJECT(manager), "orvane-view"));
                     JSCValue* value = webkit_javascript_result_get_js_value(result);
                     GCharPtr json(value ? jsc_value_to_json(value, 0) : nullptr);
                     PanelMessage message = ReadPanelMessage(json ? json.get() : "");
                     self->delegate_.didReceiveScriptMessage(kMessageChannel, message.body, from,
                                                             message.sender);
                   }),
                   this);
  webkit_user_content_manager_register_script_message_handler_in_world(
      content.get(), kMessageChannel, kBridgeWorld);

  g_signal_connect(view, "decide-policy",
                   G_CALLBACK(+[](WebKitWebView* v, WebKitPolicyDecision* decision,
                                  WebKitPolicyDecisionType type, gpointer data) -> gboolean {
                     return static_cast<WebViewFactory*>(data)->delegate_.decidePolicy(v, decision,
                                                                                       type);
                   }),
                   this);
  g_signal_connect(view, "create",
                   G_CALLBACK(+[](WebKitWebView* v, WebKitNavigationAction* action,
                                  gpointer data) -> GtkWidget* {
                     return static_cast<WebViewFactory*>(data)->delegate_.createWebView(v, action);
                   }),
                   this);
  g_signal_connect(view, "run-file-chooser",
                   G_CALLBACK(+[](WebKitWebView* v, WebKitFileChooserRequest* request,
                                  gpointer data) -> gboolean {
                     return static_cast<WebViewFactory*>(data)->delegate_.runFileChooser(v,
                                                                                         request);
                   }),
                   this);
  g_signal_connect(view, "close", G_CALLBACK(+[](WebKitWebView* v, gpointer data) {
                     static_cast<WebViewFactory*>(data)->delegate_.webViewDidClose(v);
                   }),
                   this);
  g_signal_connect(view, "load-changed",
                   G_CALLBACK(+[](WebKitWebView* v, WebKitLoadEvent event, gpointer data) {
                     auto& delegate = static_cast<WebViewFactory*>(data)->delegate_;
                     if (event == WEBKIT_LOAD_COMMITTED)
                       delegate.didCommitNavigation(v);
                     else if (event == WEBKIT_LOAD_FINISHED)
                       delegate.didFinishNavigation(v);
                   }),
                   this);
  return page;
}

} // namespace orvane
