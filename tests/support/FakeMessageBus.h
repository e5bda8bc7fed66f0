// A message bus that records what is posted.
#pragma once

#include "desktop/MessageBus.h"

#include <string>
#include <utility>
#include <vector>

namespace orvane {

class FakeMessageBus final : public MessageBus {
public:
  std::vector<std::pair<std::string, std::string>> posted;
  bool reachable = true;
  bool subscribe(const std::string&, Handler) override { return reachable; }
  bool post(const std::string& name, const std::string& object) override {
    if (reachable)
      posted.emplace_back(name, object);
    return reachable;
  }
};

} // namespace orvane
