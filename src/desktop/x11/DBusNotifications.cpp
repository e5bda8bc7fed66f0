#include "desktop/x11/DBusNotifications.h"

namespace orvane {

// Placeholder until the notification call lands.
bool DBusNotifications::notify(const std::string&, const std::string&) {
  return false;
}

} // namespace orvane
