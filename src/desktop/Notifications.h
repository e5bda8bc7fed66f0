// The desktop notifications seam (org.freedesktop.Notifications).
#pragma once

#include <string>

namespace orvane {

class Notifications {
public:
  virtual ~Notifications() = default;
  // Shows a notification; false when no notification service answered.
  virtual bool notify(const std::string& summary, const std::string& body) = 0;
};

} // namespace orvane
