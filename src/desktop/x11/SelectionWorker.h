// Runs the conversations with selection owners on a thread of their own,
// over an X connection of their own, so that an owner that answers slowly or
// never cannot hold the main loop: while a conversation runs, the calling
// thread goes on running its main context (pages are answered, timers fire,
// and GTK serves this process's own selections to the worker).
#pragma once

#include "desktop/x11/XSelectionReader.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace orvane {

class SelectionWorker {
public:
  // Works with the worker's own reader, on the worker thread; it must touch
  // nothing but what its caller hands it for the call.
  using Job = std::function<void(XSelectionReader&)>;

  SelectionWorker() = default;
  // Cancels the conversation in progress (its waits end at once) and joins
  // the thread.
  ~SelectionWorker();
  SelectionWorker(const SelectionWorker&) = delete;
  SelectionWorker& operator=(const SelectionWorker&) = delete;

  // Runs the job on the worker thread (started, with its X connection, on
  // first use) and returns once it has run. Meanwhile the calling thread
  // iterates its thread-default main context; the job's end comes back to it
  // as an idle source on that context. A job is bounded by the budgets it
  // waits with; a job queued after the worker began to shut down is not run.
  void run(Job job);

  // The two halves of run: post queues the job and returns at once; wait,
  // on the thread that posted it, iterates that thread's main context until
  // the job has run (at once when it has).
  struct Pending;
  using Ticket = std::shared_ptr<Pending>;
  Ticket post(Job job);
  static void wait(const Ticket& ticket);

private:
  void loop();

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::shared_ptr<Pending>> queue_;
  bool stopping_ = false;
  std::atomic<bool> cancelled_{false};
  std::thread thread_;
};

} // namespace orvane
