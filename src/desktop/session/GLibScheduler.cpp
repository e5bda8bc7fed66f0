#include "desktop/session/GLibScheduler.h"

#include <cmath>

namespace orvane {

struct GLibScheduler::Pending {
  GLibScheduler* owner;
  TimerId id;
  std::function<void()> task;
};

GLibScheduler::~GLibScheduler() {
  for (auto& [id, source] : sources_)
    g_source_remove(source);
}

Scheduler::TimerId GLibScheduler::after(double seconds, std::function<void()> task) {
  TimerId id = next_id_++;
  auto milliseconds = static_cast<guint>(std::llround(std::max(0.0, seconds) * 1000.0));
  auto* pending = new Pending{this, id, std::move(task)};
  guint source = g_timeout_add_full(
      G_PRIORITY_DEFAULT, milliseconds,
      [](gpointer data) -> gboolean {
        auto* p = static_cast<Pending*>(data);
        p->owner->sources_.erase(p->id);
        p->task();
        return G_SOURCE_REMOVE;
      },
      pending, [](gpointer data) { delete static_cast<Pending*>(data); });
  g_source_set_name_by_id(source, "[orvane] scheduled task");
  sources_[id] = source;
  return id;
}

void GLibScheduler::cancel(TimerId id) {
  auto found = sources_.find(id);
  if (found == sources_.end())
    return;
  g_source_remove(found->second);
  sources_.erase(found);
}

double GLibScheduler::now() const {
  return double(g_get_monotonic_time()) / 1e6;
}

} // namespace orvane
