// The scheduler seam: every delay and retry goes through it, so unit tests
// run on virtual time.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <utility>

namespace orvane {

class Scheduler {
public:
  using TimerId = uint64_t;
  virtual ~Scheduler() = default;
  // Runs task once on the main loop after the delay; never before.
  virtual TimerId after(double seconds, std::function<void()> task) = 0;
  // Cancels a timer that has not fired; unknown ids are ignored.
  virtual void cancel(TimerId id) = 0;
  // Seconds on a monotonic clock.
  virtual double now() const = 0;
};

// Time that moves only when a test says so.
class VirtualScheduler final : public Scheduler {
public:
  TimerId after(double seconds, std::function<void()> task) override;
  void cancel(TimerId id) override;
  double now() const override { return now_; }

  // Moves the clock forward, running every task that falls due, in order of
  // due time and then of scheduling; tasks may schedule further tasks.
  void advance(double seconds);
  // Runs everything pending, however far ahead.
  void runAll();
  size_t pending() const { return tasks_.size(); }

private:
  struct Key {
    double due;
    TimerId id;
    bool operator<(const Key& other) const {
      return due < other.due || (due == other.due && id < other.id);
    }
  };
  double now_ = 0;
  TimerId next_id_ = 1;
  std::map<Key, std::function<void()>> tasks_;
};

} // namespace orvane
