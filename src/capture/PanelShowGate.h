// Holds the quick panel's showing back while the page it is to show loads:
// the panel is mapped once the new page's load has ended (loaded, or failed),
// or after a short limit, whichever comes first. Mapped earlier, the panel
// would first show the page of the summon before, and mapping the window and
// painting it (in this process and in the page's web process) would compete
// with the new page's load for the machine, putting its load event off by
// about ten milliseconds.
#pragma once

#include "desktop/Scheduler.h"

#include <functional>

namespace orvane {

// How long the panel waits for its page before it is shown anyway.
inline constexpr double kPanelLoadWait = 0.2;

class PanelShowGate {
public:
  explicit PanelShowGate(Scheduler& scheduler, double limit = kPanelLoadWait);
  ~PanelShowGate();
  PanelShowGate(const PanelShowGate&) = delete;
  PanelShowGate& operator=(const PanelShowGate&) = delete;

  // A page load was asked for: a showing waits for it from now on.
  void loadStarted();
  // The page's load has ended (loaded, failed or stopped): a waiting
  // showing runs now.
  void loadEnded();
  // Runs the showing at once when no page is on its way, else when its load
  // ends or the limit passes. A newer showing replaces a waiting one.
  void show(std::function<void()> showing);
  // Drops a waiting showing (the panel was hidden meanwhile).
  void cancel();
  bool waiting() const { return static_cast<bool>(showing_); }

private:
  void release();

  Scheduler& scheduler_;
  double limit_;
  bool loading_ = false;
  std::function<void()> showing_;
  Scheduler::TimerId timer_ = 0;
};

} // namespace orvane
