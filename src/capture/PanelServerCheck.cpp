#include "capture/PanelServerCheck.h"

#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

namespace orvane {

// Shared with the worker thread, which may outlive this object (a check
// that starts the server sleeps between its probes): the thread is
// detached and ends on its own once told to.
struct PanelServerCheck::Worker {
  std::mutex mutex;
  // A check to run, or the end.
  std::condition_variable work_signal;
  // A check has ended.
  std::condition_variable ended_signal;
  Check next;
  bool has_next = false;
  bool quit = false;
  uint64_t queued = 0; // checks handed to the worker
  uint64_t ended = 0;  // checks it has run to their end

  void run() {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
      work_signal.wait(lock, [this] { return has_next || quit; });
      if (!has_next)
        return;
      Check check = std::exchange(next, nullptr);
      has_next = false;
      lock.unlock();
      if (check)
        check();
      // Released here, on this thread, before the end is told.
      check = nullptr;
      lock.lock();
      ++ended;
      ended_signal.notify_all();
    }
  }
};

PanelServerCheck::PanelServerCheck(std::function<Check()> make_check)
    : make_check_(std::move(make_check)) {}

PanelServerCheck::~PanelServerCheck() {
  if (!worker_)
    return;
  std::lock_guard<std::mutex> lock(worker_->mutex);
  worker_->quit = true;
  worker_->work_signal.notify_all();
}

void PanelServerCheck::start() {
  if (ticket_ != 0)
    return;
  Check check = make_check_();
  if (!worker_) {
    worker_ = std::make_shared<Worker>();
    std::thread([worker = worker_] { worker->run(); }).detach();
  }
  std::lock_guard<std::mutex> lock(worker_->mutex);
  // The worker is idle here: every check before this one was waited for.
  worker_->next = std::move(check);
  worker_->has_next = true;
  ticket_ = ++worker_->queued;
  worker_->work_signal.notify_one();
}

void PanelServerCheck::finish() {
  start();
  uint64_t ticket = std::exchange(ticket_, 0);
  std::unique_lock<std::mutex> lock(worker_->mutex);
  worker_->ended_signal.wait(lock, [&] { return worker_->ended >= ticket; });
}

} // namespace orvane
