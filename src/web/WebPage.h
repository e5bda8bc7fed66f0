// A WebKit web view as a hosted page.
#pragma once

#include "bridge/Page.h"

#include <functional>
#include <string>
#include <webkit2/webkit2.h>

namespace orvane {

// The script, made to run only in a document of the committed address's
// origin (for an http or https address; any other script is left as it is).
// WebKit reports a commit a moment after the page has it, so a script sent
// in between would run in the next document, which may be another site's.
std::string ScriptForDocumentOf(const std::string& script, const std::string& committed_address);

class WebPage final : public Page {
public:
  // Holds its own reference to the view (a floating one is sunk) and
  // follows its loads from now on.
  explicit WebPage(WebKitWebView* view);
  ~WebPage() override;
  WebPage(const WebPage&) = delete;
  WebPage& operator=(const WebPage&) = delete;

  // Only in a document of the committed document's origin.
  void evaluateScript(const std::string& script) override;
  // `done` runs when WebKit reports the script's end (or its failure, as
  // when the web process goes away).
  void evaluateScriptThen(const std::string& script, std::function<void()> done) override;
  std::string currentAddress() const override;
  // Recorded when a load commits (WEBKIT_LOAD_COMMITTED); "" before the
  // first commit and after the page's web process has gone.
  std::string committedAddress() const override { return committed_address_; }

  void load(const std::string& address);
  // Replaces the page with an empty document, stopping its scripts.
  void loadBlank();
  // Replaces the page with this HTML as an about:blank document (no base
  // address: it can reach nothing by a relative address, and it is not of
  // the site's origin).
  void loadHtml(const std::string& html);
  bool hasLoadedAnything() const;
  // `finished` runs each time a load of the view finishes
  // (WEBKIT_LOAD_FINISHED, which also ends a failed load). One at a time: a
  // new one replaces the last, and an empty one stops them.
  void onLoadFinished(std::function<void()> finished) { load_finished_ = std::move(finished); }

  WebKitWebView* view() const { return view_; }
  GtkWidget* widget() const { return GTK_WIDGET(view_); }

private:
  WebKitWebView* view_;
  std::string committed_address_;
  std::function<void()> load_finished_;
  gulong load_changed_handler_ = 0;
  gulong terminated_handler_ = 0;
};

} // namespace orvane
