// A page that records the scripts it is asked to run.
#pragma once

#include "bridge/Page.h"

#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace orvane {

class FakePage final : public Page {
public:
  explicit FakePage(std::string address = "http://127.0.0.1:8000/")
      : current_(address), committed_(std::move(address)) {}
  // A page that goes away calls back what it had not run.
  ~FakePage() override { finishScripts(); }
  FakePage(const FakePage&) = delete;
  FakePage& operator=(const FakePage&) = delete;
  void evaluateScript(const std::string& script) override { scripts.push_back(script); }
  // Recorded like any script; the page "runs" it when finishScripts says so.
  void evaluateScriptThen(const std::string& script, std::function<void()> done) override {
    scripts.push_back(script);
    unfinished_.push_back(std::move(done));
    unfinished_bytes_ += script.size();
  }
  // Runs the completion of every script handed over so far, oldest first.
  void finishScripts() {
    std::vector<std::function<void()>> finished;
    finished.swap(unfinished_);
    unfinished_bytes_ = 0;
    for (auto& done : finished)
      done();
  }
  size_t unfinishedScripts() const { return unfinished_.size(); }
  size_t unfinishedBytes() const { return unfinished_bytes_; }
  std::string currentAddress() const override { return current_; }
  std::string committedAddress() const override { return committed_; }
  // A load that has committed: the page now holds that document.
  void setAddress(std::string address) { current_ = committed_ = std::move(address); }
  // A load that has started but not committed: only the shown address moves.
  void startLoad(std::string address) { current_ = std::move(address); }

  // The events delivered through window.panelEvent, decoded: from
  // single-event scripts, and from batches (see EventDelivery.cpp), whose
  // entries are events, [event] for an event that is an array, and
  // [turn, lines joined by "\n"] for a run of "claudeLine" events.
  std::vector<nlohmann::json> events() const {
    static const std::string kPrefix = "window.panelEvent && window.panelEvent(";
    static const std::string kBatch = "(function(b){";
    std::vector<nlohmann::json> result;
    for (const std::string& script : scripts) {
      if (script.empty() || script.back() != ')')
        continue;
      if (script.rfind(kPrefix, 0) == 0) {
        result.push_back(nlohmann::json::parse(
            script.substr(kPrefix.size(), script.size() - kPrefix.size() - 1)));
        continue;
      }
      size_t list = script.find("})([");
      if (script.rfind(kBatch, 0) != 0 || list == std::string::npos)
        continue;
      auto entries = nlohmann::json::parse(script.substr(list + 3, script.size() - (list + 3) - 1));
      for (const auto& entry : entries) {
        if (!entry.is_array()) {
          result.push_back(entry);
        } else if (entry.size() == 1) {
          result.push_back(entry[0]);
        } else {
          const std::string text = entry[1];
          for (size_t start = 0;;) {
            size_t end = text.find('\n', start);
            std::string line = text.substr(start, end == std::string::npos ? end : end - start);
            result.push_back({{"line", line}, {"turn", entry[0]}, {"type", "claudeLine"}});
            if (end == std::string::npos)
              break;
            start = end + 1;
          }
        }
      }
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
  std::vector<std::function<void()>> unfinished_;
  size_t unfinished_bytes_ = 0;
  std::string current_;
  std::string committed_;
};

} // namespace orvane
