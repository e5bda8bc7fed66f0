// Makes every web view the same way: one shared web context whose site data
// (cookies, local storage) persists, the "panel" message channel, and the
// capabilities script at document start.
#pragma once

#include "web/WebPage.h"

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

namespace orvane {

// "window.panelCaps = {localPdfs: true, hotkey: true, dockDrop: true,
// claude: "<path>", version: '1.0', build: '<build>'};"
std::string CapabilitiesScript(const std::string& claude_path);

// What a web view made here reports to its owner.
class WebViewDelegate {
public:
  virtual ~WebViewDelegate() = default;
  virtual void didReceiveScriptMessage(const std::string& name, const nlohmann::json& body,
                                       WebKitWebView* from) = 0;
  // Navigation and UI: the handlers behind WebKit's signals.
  virtual bool decidePolicy(WebKitWebView* view, WebKitPolicyDecision* decision,
                            WebKitPolicyDecisionType type) = 0;
  virtual GtkWidget* createWebView(WebKitWebView* view, WebKitNavigationAction* action) = 0;
  virtual bool runFileChooser(WebKitWebView* view, WebKitFileChooserRequest* request) = 0;
  virtual void webViewDidClose(WebKitWebView* view) = 0;
  virtual void didFinishNavigation(WebKitWebView* view) = 0;
};

class WebViewFactory {
public:
  // claude_path is read when each view is made.
  WebViewFactory(WebViewDelegate& delegate, std::function<std::string()> claude_path);
  ~WebViewFactory();

  // The window that holds the view gives it its size.
  std::shared_ptr<WebPage> makeWebView();

private:
  WebViewDelegate& delegate_;
  std::function<std::string()> claude_path_;
  WebKitWebContext* context_ = nullptr;
};

} // namespace orvane
