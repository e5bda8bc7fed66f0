#include "capture/PanelServerCheck.h"

#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

namespace orvane {

// Shared with the check's thread, which may outlive this object (a check
// that starts the server sleeps between its probes).
struct PanelServerCheck::Running {
  std::mutex mutex;
  std::condition_variable ended_signal;
  bool ended = false;
};

PanelServerCheck::PanelServerCheck(std::function<Check()> make_check)
    : make_check_(std::move(make_check)) {}

PanelServerCheck::~PanelServerCheck() = default;

void PanelServerCheck::start() {
  if (running_)
    return;
  auto running = std::make_shared<Running>();
  Check check = make_check_();
  std::thread([running, check = std::move(check)] {
    if (check)
      check();
    std::lock_guard<std::mutex> lock(running->mutex);
    running->ended = true;
    running->ended_signal.notify_all();
  }).detach();
  running_ = std::move(running);
}

void PanelServerCheck::finish() {
  start();
  std::shared_ptr<Running> running = std::exchange(running_, nullptr);
  std::unique_lock<std::mutex> lock(running->mutex);
  running->ended_signal.wait(lock, [&] { return running->ended; });
}

} // namespace orvane
