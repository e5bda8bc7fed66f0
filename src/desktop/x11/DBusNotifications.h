// Desktop notifications through org.freedesktop.Notifications on the
// session bus.
#pragma once

#include "desktop/Notifications.h"

namespace orvane {

class DBusNotifications final : public Notifications {
public:
  bool notify(const std::string& summary, const std::string& body) override;
};

} // namespace orvane
