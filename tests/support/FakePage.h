// A page that records the scripts it is asked to run.
#pragma once

#include "bridge/Page.h"

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace orvane {

class FakePage final : public Page {
public:
  explicit FakePage(std::string address = "http://127.0.0.1:8000/")
      : current_(address), committed_(std::move(address)) {}
  void evaluateScript(const std::string& script) override { scripts.push_back(script); }
  std::string currentAddress() const override { return current_; }
  std::string committedAddress() const override { return committed_; }
  // A load that has committed: the page now holds that document.
  void setAddress(std::string address) { current_ = committed_ = std::move(address); }
  // A load that has started but not committed: only the shown address moves.
  void startLoad(std::string address) { current_ = std::move(address); }

  // The events delivered through window.panelEvent, decoded.
  std::vector<nlohmann::json> events() const {
    static const std::string kPrefix = "window.panelEvent && window.panelEvent(";
    std::vector<nlohmann::json> result;
    for (const std::string& script : scripts) {
      if (script.rfind(kPrefix, 0) != 0 || script.back() != ')')
        continue;
      result.push_back(
          nlohmann::json::parse(script.substr(kPrefix.size(), script.size() - kPrefix.size() - 1)));
    }
    return result;
  }
  std::vector<std::string> eventTypes() const {
    std::vector<std::string> types;
    for (const auto& event : events())
      types.push_back(event.value("type", "(none)"));
    return types;
  }

  std::vector<std::string> scripts;

private:
  std::string current_;
  std::string committed_;
};

} // namespace orvane
