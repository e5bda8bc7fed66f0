// Native-to-page events: serialised as JSON and handed to the page's
// window.panelEvent. Without a recipient they wait, in order, until a page
// says hello.
#pragma once

#include "bridge/Event.h"
#include "bridge/Page.h"

#include <vector>

namespace orvane {

class EventDelivery {
public:
  // To the primary page, or queued when there is none.
  void sendEvent(const Event& event);
  // To the given page, or queued when it is null.
  void sendEvent(const Event& event, const PageRef& target);

  PageRef primaryWeb() const { return primary_web_.lock(); }
  void setPrimaryWeb(const PageRef& page) { primary_web_ = page; }

  const std::vector<Event>& queuedEvents() const { return queued_events_; }
  // Empties the queue and hands back what it held, oldest first.
  std::vector<Event> takeQueuedEvents();

  // "window.panelEvent && window.panelEvent(<json>)"
  static std::string EventScript(const Event& event);
  // Several events for one page in one script: each goes to
  // window.panelEvent in order, as separate scripts would hand them over.
  static std::string EventsScript(const std::vector<std::string>& json_events);

  // While a batch is open, events for a page are gathered and handed over
  // together when it closes: a burst of agent output reaches the page in
  // one script evaluation per read instead of one per line. Batches nest.
  void openBatch() { ++batch_depth_; }
  void closeBatch();

private:
  void deliver(const PageRef& target, std::string json);

  WeakPageRef primary_web_;
  std::vector<Event> queued_events_;
  int batch_depth_ = 0;
  std::vector<std::pair<PageRef, std::string>> batch_;
};

} // namespace orvane
