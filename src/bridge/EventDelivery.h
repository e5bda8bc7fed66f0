// Native-to-page events: serialised as JSON and handed to the page's
// window.panelEvent. Events carry agent output, paper ids and local paths, so
// they go only to a page whose committed document has the site's origin.
// Without such a recipient they wait, in order, until a page says hello.
#pragma once

#include "base/Settings.h"
#include "bridge/Event.h"
#include "bridge/Page.h"

#include <functional>
#include <string>
#include <vector>

namespace orvane {

class EventDelivery {
public:
  // site_address is read at each event, so a changed setting applies.
  explicit EventDelivery(std::function<std::string()> site_address = SiteAddress);

  // To the primary page, or queued when there is none.
  void sendEvent(const Event& event);
  // To the given page, or queued when it is null or not on the site.
  void sendEvent(const Event& event, const PageRef& target);

  // A page committed a new document. When it is the primary page and the
  // document is not the site's, the page stops being primary: events wait
  // until a page on the site says hello.
  void pageCommitted(const PageRef& page);

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
  bool holdsSiteDocument(const Page& page) const;
  void deliver(const PageRef& target, std::string json);

  std::function<std::string()> site_address_;
  WeakPageRef primary_web_;
  std::vector<Event> queued_events_;
  int batch_depth_ = 0;
  std::vector<std::pair<PageRef, std::string>> batch_;
};

} // namespace orvane
