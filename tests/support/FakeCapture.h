// A capture whose front application, selection, attention point, focused
// document and page numbers a test sets; it records what it was asked.
#pragma once

#include "capture/Capture.h"

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace orvane {

class FakeCapture final : public Capture {
public:
  std::optional<FrontApplication> frontApplication() override {
    ++front_calls;
    return front;
  }
  std::optional<std::string> captureSelection() override {
    ++selection_calls;
    selection_while_held = held;
    return selection;
  }
  Point attentionPoint() override {
    ++point_calls;
    point_while_held = held;
    return point;
  }
  void holdFrontWindow() override {
    held = true;
    ++holds;
  }
  void releaseFrontWindow() override { held = false; }
  void readSelectionAhead() override {
    ++reads_ahead;
    read_ahead_while_held = held;
  }
  std::optional<std::string> focusedDocumentPath() override { return document; }
  int pageOfQuote(const std::string& pdf_path, const std::string& quote) override {
    page_queries.emplace_back(pdf_path, quote);
    return page;
  }

  // Another application in front, with its pid and WM_CLASS.
  void otherApplication(int pid = 4242, std::string identifier = "Evince") {
    front = FrontApplication{pid, std::move(identifier), false};
  }
  void thisProgram() { front = FrontApplication{int(1), "Orvane", true}; }

  std::optional<FrontApplication> front;
  std::optional<std::string> selection;
  Point point;
  std::optional<std::string> document;
  int page = 0;

  int front_calls = 0;
  int selection_calls = 0;
  int point_calls = 0;
  bool held = false;
  int holds = 0;
  bool selection_while_held = false;
  bool point_while_held = false;
  int reads_ahead = 0;
  bool read_ahead_while_held = false;
  std::vector<std::pair<std::string, std::string>> page_queries;
};

} // namespace orvane
