#pragma once

#include "desktop/Scheduler.h"

#include <glib.h>
#include <memory>
#include <unordered_map>

namespace orvane {

// Delays as GLib timeouts on the main context.
class GLibScheduler final : public Scheduler {
public:
  ~GLibScheduler() override;
  TimerId after(double seconds, std::function<void()> task) override;
  void cancel(TimerId id) override;
  double now() const override;

private:
  struct Pending;
  TimerId next_id_ = 1;
  std::unordered_map<TimerId, guint> sources_;
};

} // namespace orvane
