// A hosted page as the bridge sees it: something that runs a script and has
// an address. The real one wraps a WebKit web view; tests use fakes.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace orvane {

class Page {
public:
  virtual ~Page() = default;
  // Evaluates the script in the page; the result and any error are ignored.
  virtual void evaluateScript(const std::string& script) = 0;
  // The same, calling `done` once the page has run the script, failed to,
  // or gone away; never before this call returns. A page that cannot tell
  // when a script has run calls it soon after handing the script over.
  virtual void evaluateScriptThen(const std::string& script, std::function<void()> done) = 0;
  // The address the page shows, which changes as soon as a load starts;
  // "" before the first load.
  virtual std::string currentAddress() const = 0;
  // The address of the document the page holds now: the one its last load
  // committed. A load still in flight does not change it. "" before the
  // first commit. The bridge trusts a page by this address only.
  virtual std::string committedAddress() const = 0;
};

using PageRef = std::shared_ptr<Page>;
using WeakPageRef = std::weak_ptr<Page>;

} // namespace orvane
