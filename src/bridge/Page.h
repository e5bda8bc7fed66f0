// A hosted page as the bridge sees it: something that runs a script and has
// a current address. The real one wraps a WebKit web view; tests use fakes.
#pragma once

#include <memory>
#include <string>

namespace orvane {

class Page {
public:
  virtual ~Page() = default;
  // Evaluates the script in the page; the result and any error are ignored.
  virtual void evaluateScript(const std::string& script) = 0;
  // The address of the page currently shown; "" before the first load.
  virtual std::string currentAddress() const = 0;
};

using PageRef = std::shared_ptr<Page>;
using WeakPageRef = std::weak_ptr<Page>;

} // namespace orvane
