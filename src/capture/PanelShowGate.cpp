#include "capture/PanelShowGate.h"

#include <utility>

namespace orvane {

PanelShowGate::PanelShowGate(Scheduler& scheduler, double limit)
    : scheduler_(scheduler), limit_(limit) {}

PanelShowGate::~PanelShowGate() {
  if (timer_)
    scheduler_.cancel(timer_);
}

void PanelShowGate::loadStarted() {
  loading_ = true;
}

void PanelShowGate::loadEnded() {
  loading_ = false;
  release();
}

void PanelShowGate::show(std::function<void()> showing) {
  showing_ = std::move(showing);
  if (!loading_) {
    release();
    return;
  }
  // The limit counts from the first showing that waits: a newer one does
  // not put it off.
  if (!timer_)
    timer_ = scheduler_.after(limit_, [this] {
      timer_ = 0;
      loading_ = false;
      release();
    });
}

void PanelShowGate::cancel() {
  showing_ = nullptr;
  if (timer_) {
    scheduler_.cancel(timer_);
    timer_ = 0;
  }
}

void PanelShowGate::release() {
  if (timer_) {
    scheduler_.cancel(timer_);
    timer_ = 0;
  }
  // Taken before it runs: a showing that loads again starts afresh.
  if (std::function<void()> showing = std::exchange(showing_, nullptr))
    showing();
}

} // namespace orvane
