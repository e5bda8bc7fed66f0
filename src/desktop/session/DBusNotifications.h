// Desktop notifications through org.freedesktop.Notifications on the
// session bus.
#pragma once

#include "desktop/Notifications.h"

#include <chrono>

namespace orvane {

class DBusNotifications final : public Notifications {
public:
  // How long a call waits for the notification service's answer.
  explicit DBusNotifications(std::chrono::milliseconds reply_timeout = std::chrono::seconds(3))
      : reply_timeout_(reply_timeout) {}
  bool notify(const std::string& summary, const std::string& body) override;

private:
  std::chrono::milliseconds reply_timeout_;
};

} // namespace orvane
