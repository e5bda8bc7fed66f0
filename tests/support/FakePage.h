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
      : address_(std::move(address)) {}
  void evaluateScript(const std::string& script) override { scripts.push_back(script); }
  std::string currentAddress() const override { return address_; }
  void setAddress(std::string address) { address_ = std::move(address); }

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
  std::string address_;
};

} // namespace orvane
