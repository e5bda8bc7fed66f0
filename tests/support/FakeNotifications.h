// Desktop notifications recorded instead of shown.
#pragma once

#include "desktop/Notifications.h"

#include <string>
#include <vector>

namespace orvane {

class FakeNotifications final : public Notifications {
public:
  struct Shown {
    std::string summary;
    std::string body;
  };
  std::vector<Shown> shown;
  bool service_answers = true;
  bool notify(const std::string& summary, const std::string& body) override {
    shown.push_back({summary, body});
    return service_answers;
  }
};

} // namespace orvane
