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

private:
  WeakPageRef primary_web_;
  std::vector<Event> queued_events_;
};

} // namespace orvane
