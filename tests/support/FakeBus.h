// A message bus that records what is posted and subscribes nothing.
#pragma once

#include "desktop/MessageBus.h"

#include <string>
#include <utility>
#include <vector>

namespace orvane {

class FakeBus final : public MessageBus {
public:
  bool subscribe(const std::string&, Handler) override { return true; }
  bool post(const std::string& name, const std::string& object) override {
    posts.emplace_back(name, object);
    return true;
  }
  std::vector<std::pair<std::string, std::string>> posts;
};

} // namespace orvane
