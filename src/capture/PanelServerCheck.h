// The development server's check that comes before every load of the quick
// panel's page (a probe, and a start when the server does not answer). A
// summon starts it at the key press on a worker thread, so that it runs
// while the selection is read from the other application; the page load
// then waits for it, so the page never loads before the check has ended.
// The worker is made at the first check and kept for the next ones: it
// sleeps on a condition until a check comes (no wake-up while idle), and
// ends once this object is gone and its last check has ended.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

namespace orvane {

class PanelServerCheck {
public:
  // The whole check, blocking. It runs on the worker thread, so it works
  // only on what it was given (no settings, no main-thread state).
  using Check = std::function<void()>;
  // Makes the check with what it needs from the main thread (the site
  // address, the project folder), each time one starts.
  explicit PanelServerCheck(std::function<Check()> make_check);
  ~PanelServerCheck();
  PanelServerCheck(const PanelServerCheck&) = delete;
  PanelServerCheck& operator=(const PanelServerCheck&) = delete;

  // Starts a check, unless one is started and not yet waited for.
  void start();
  // Returns once the started check has ended; without a started one, makes
  // one first. Each wait takes its check: the next page load checks anew.
  void finish();
  bool started() const { return ticket_ != 0; }

private:
  struct Worker;
  std::function<Check()> make_check_;
  std::shared_ptr<Worker> worker_;
  // The number of the started check not yet waited for; 0 without one.
  uint64_t ticket_ = 0;
};

} // namespace orvane
