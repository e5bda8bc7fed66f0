#pragma once

#include "base/GObjectPtr.h"
#include "desktop/MessageBus.h"

#include <gio/gio.h>
#include <memory>
#include <vector>

namespace orvane {

// Notifications as session-bus signals with one string argument.
class DBusMessageBus final : public MessageBus {
public:
  DBusMessageBus();
  ~DBusMessageBus() override;
  bool subscribe(const std::string& name, Handler handler) override;
  bool post(const std::string& name, const std::string& object) override;

private:
  GObjectPtr<GDBusConnection> connection_;
  std::vector<guint> subscriptions_;
};

} // namespace orvane
