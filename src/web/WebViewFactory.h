// Makes every web view the same way: one shared web context whose site data
// (cookies, local storage) persists, the "panel" message channel, and the
// capabilities script at document start.
//
// WebKit tells the receiver of a script message nothing about the frame that
// posted it, so the channel goes through a script world of its own that page
// scripts cannot reach. In every frame, window.webkit.messageHandlers.panel
// .postMessage(body) (defined by a small script in the page's world) hands
// the body's JSON text over as a DOM event; the bridge's script, in its
// isolated world, takes it and posts {href, top, body} to the program: the
// address of its own frame's document and whether that frame is the main
// frame, values the page cannot forge.
#pragma once

#include "bridge/MessageDispatcher.h"
#include "web/WebPage.h"

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace orvane {

// "window.panelCaps = {localPdfs: true, hotkey: true, dockDrop: true,
// claude: "<path>", version: '1.0', build: '<build>', release: "<V>"};"
// `release` is the version the running install folder was released as, or
// null for a run from the build tree; pages offer an update when the site
// has another one.
std::string CapabilitiesScript(const std::string& claude_path,
                               const std::optional<std::string>& release);

// Any bytes as one JavaScript string literal in double quotes: everything
// outside printable ASCII, and "<", escaped, so that no value can end the
// literal or the script around it; invalid UTF-8 reads as U+FFFD.
std::string JsStringLiteral(std::string_view text);

// The name of the bridge's isolated script world.
inline constexpr char kBridgeWorld[] = "orvane-bridge";

// A message as the bridge's isolated script hands it over: the page's body
// (its JSON text read back) and where it was posted. Anything malformed reads
// as a null body from a frame that is not the main frame, which the bridge
// refuses.
struct PanelMessage {
  nlohmann::json body;
  MessageSender sender;
};
PanelMessage ReadPanelMessage(std::string_view envelope_json);

// What a web view made here reports to its owner.
class WebViewDelegate {
public:
  virtual ~WebViewDelegate() = default;
  virtual void didReceiveScriptMessage(const std::string& name, const nlohmann::json& body,
                                       WebKitWebView* from, const MessageSender& sender) = 0;
  // Navigation and UI: the handlers behind WebKit's signals.
  virtual bool decidePolicy(WebKitWebView* view, WebKitPolicyDecision* decision,
                            WebKitPolicyDecisionType type) = 0;
  virtual GtkWidget* createWebView(WebKitWebView* view, WebKitNavigationAction* action) = 0;
  virtual bool runFileChooser(WebKitWebView* view, WebKitFileChooserRequest* request) = 0;
  virtual void webViewDidClose(WebKitWebView* view) = 0;
  // A load committed: the view now holds a new document.
  virtual void didCommitNavigation(WebKitWebView* view) = 0;
  virtual void didFinishNavigation(WebKitWebView* view) = 0;
};

class WebViewFactory {
public:
  // claude_path is read when each view is made; release is read once, at
  // start, by the owner.
  WebViewFactory(WebViewDelegate& delegate, std::function<std::string()> claude_path,
                 std::optional<std::string> release);
  ~WebViewFactory();

  // The window that holds the view gives it its size. A view made with
  // another view's page shares that view's web process (WebKit's related
  // view) instead of starting one of its own at its first load: one process
  // fewer to start, to keep in memory and to wake, and a first load that
  // finds a process already running.
  std::shared_ptr<WebPage> makeWebView(const WebPage* share_process_of = nullptr);

private:
  WebViewDelegate& delegate_;
  std::function<std::string()> claude_path_;
  std::optional<std::string> release_;
  WebKitWebContext* context_ = nullptr;
};

} // namespace orvane
