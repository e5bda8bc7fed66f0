#include "desktop/Scheduler.h"

#include <limits>

namespace orvane {

Scheduler::TimerId VirtualScheduler::after(double seconds, std::function<void()> task) {
  TimerId id = next_id_++;
  tasks_.emplace(Key{now_ + (seconds > 0 ? seconds : 0), id}, std::move(task));
  return id;
}

void VirtualScheduler::cancel(TimerId id) {
  for (auto it = tasks_.begin(); it != tasks_.end(); ++it) {
    if (it->first.id == id) {
      tasks_.erase(it);
      return;
    }
  }
}

void VirtualScheduler::advance(double seconds) {
  double until = now_ + seconds;
  while (!tasks_.empty() && tasks_.begin()->first.due <= until) {
    auto first = tasks_.begin();
    now_ = first->first.due;
    auto task = std::move(first->second);
    tasks_.erase(first);
    task();
  }
  now_ = until;
}

void VirtualScheduler::runAll() {
  while (!tasks_.empty())
    advance(tasks_.begin()->first.due - now_);
}

} // namespace orvane
