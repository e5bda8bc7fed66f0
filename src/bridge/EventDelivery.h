// Native-to-page events: serialised as JSON and handed to the page's
// window.panelEvent. Events carry agent output, paper ids and local paths, so
// they go only to a page whose committed document has the site's origin.
// Without such a recipient they wait, in order, until a page says hello.
#pragma once

#include "base/Settings.h"
#include "bridge/Event.h"
#include "bridge/Page.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace orvane {

// What a batch of events may cost a page.
struct EventDeliveryLimits {
  // A batch's script for one page is handed over once it has grown past
  // this many bytes, and a new one begins: a flood never builds one huge
  // script. An event larger than this goes in a script of its own.
  size_t script_bytes = size_t(1) << 20;
  // Bytes of scripts the primary page has been handed and not yet run
  // beyond which isBackedUp() says so, and the agent's output waits.
  size_t in_flight_bytes = size_t(8) << 20;
};

class EventDelivery {
public:
  // site_address is read at each event (once per page in a batch), so a
  // changed setting applies.
  explicit EventDelivery(std::function<std::string()> site_address = SiteAddress,
                         EventDeliveryLimits limits = {});
  ~EventDelivery();
  EventDelivery(const EventDelivery&) = delete;
  EventDelivery& operator=(const EventDelivery&) = delete;

  // To the primary page, or queued when there is none.
  void sendEvent(const Event& event);
  // To the given page, or queued when it is null or not on the site.
  void sendEvent(const Event& event, const PageRef& target);

  // A page committed a new document. When it is the primary page and the
  // document is not the site's, the page stops being primary: events wait
  // until a page on the site says hello.
  void pageCommitted(const PageRef& page);

  PageRef primaryWeb() const { return primary_web_.lock(); }
  void setPrimaryWeb(const PageRef& page);

  const std::vector<Event>& queuedEvents() const { return queued_events_; }
  // Empties the queue and hands back what it held, oldest first.
  std::vector<Event> takeQueuedEvents();

  // "window.panelEvent && window.panelEvent(<json>)"
  static std::string EventScript(const Event& event);

  // While a batch is open, events for a page are gathered and handed over
  // together when it closes (or when the script grows past the limit): a
  // burst of agent output reaches the page in one script evaluation per
  // read instead of one per line. The script hands every event to
  // window.panelEvent in order, each exactly as a script of its own would.
  // Batches nest.
  void openBatch() { ++batch_depth_; }
  void closeBatch();

  // Whether the primary page is behind: it holds more scripts not yet run
  // than the limit allows. A producer that can wait (the agent's output)
  // stops reading until whenDrained calls back; nothing is ever dropped.
  bool isBackedUp() const;
  // Calls `resume` once the primary page is no longer behind (it ran its
  // scripts, went away, or another page became primary); at once when it
  // is not behind now.
  void whenDrained(std::function<void()> resume);

private:
  struct Flow;
  struct Segment;
  bool holdsSiteDocument(const Page& page) const;
  bool trusted(const PageRef& target);
  Segment& segmentFor(const PageRef& target);
  void hand(const PageRef& target, std::string script);
  void flush(Segment& segment);
  void flushAll();

  std::function<std::string()> site_address_;
  EventDeliveryLimits limits_;
  WeakPageRef primary_web_;
  std::vector<Event> queued_events_;
  int batch_depth_ = 0;
  // The scripts being gathered in the open batch, in the order their pages
  // first received an event; a page's trust is looked up once per batch.
  std::vector<std::unique_ptr<Segment>> batch_;
  std::shared_ptr<Flow> flow_;
};

} // namespace orvane
