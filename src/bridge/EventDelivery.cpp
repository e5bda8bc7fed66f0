#include "bridge/EventDelivery.h"

#include "base/SiteAddress.h"
#include "base/SparLog.h"
#include "base/Text.h"

namespace orvane {

namespace {
// Compact UTF-8 JSON; a stray invalid byte is replaced rather than thrown.
std::string Json(const Event& event) {
  return event.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string SingleEventScript(const std::string& json) {
  return "window.panelEvent && window.panelEvent(" + json + ")";
}
constexpr size_t kLoggedAddressLength = 200;
} // namespace

EventDelivery::EventDelivery(std::function<std::string()> site_address)
    : site_address_(std::move(site_address)) {}

bool EventDelivery::holdsSiteDocument(const Page& page) const {
  return HasSiteOrigin(page.committedAddress(), site_address_());
}

void EventDelivery::pageCommitted(const PageRef& page) {
  if (!page || page != primary_web_.lock() || holdsSiteDocument(*page))
    return;
  primary_web_.reset();
  SparLog("bridge: the primary page left the site for %@ — events wait for the next hello",
          ShortenedText(page->committedAddress(), kLoggedAddressLength));
}

std::string EventDelivery::EventScript(const Event& event) {
  return SingleEventScript(Json(event));
}

std::string EventDelivery::EventsScript(const std::vector<std::string>& json_events) {
  if (json_events.size() == 1)
    return SingleEventScript(json_events.front());
  std::string list;
  for (const std::string& json : json_events) {
    list += list.empty() ? "[" : ",";
    list += json;
  }
  list += "]";
  // The handler is looked up for every event, and an event whose handler
  // throws does not keep the next ones from arriving; the error still shows.
  return "(function(events){for(const e of events){if(!window.panelEvent)return;"
         "try{window.panelEvent(e)}catch(error){setTimeout(()=>{throw error})}}})(" +
         list + ")";
}

void EventDelivery::deliver(const PageRef& target, std::string json) {
  if (batch_depth_ > 0) {
    batch_.emplace_back(target, std::move(json));
    return;
  }
  target->evaluateScript(SingleEventScript(json));
}

void EventDelivery::closeBatch() {
  if (batch_depth_ == 0 || --batch_depth_ > 0)
    return;
  std::vector<std::pair<PageRef, std::string>> batch;
  batch.swap(batch_);
  // Runs of events for the same page go in one script, in their order.
  for (size_t start = 0; start < batch.size();) {
    size_t end = start;
    std::vector<std::string> run;
    while (end < batch.size() && batch[end].first == batch[start].first)
      run.push_back(std::move(batch[end++].second));
    batch[start].first->evaluateScript(EventsScript(run));
    start = end;
  }
}

void EventDelivery::sendEvent(const Event& event) {
  PageRef primary = primary_web_.lock();
  // A commit not reported (yet) still counts: the document decides.
  if (primary)
    pageCommitted(primary);
  sendEvent(event, primary_web_.lock());
}

void EventDelivery::sendEvent(const Event& event, const PageRef& target) {
  if (target && holdsSiteDocument(*target)) {
    deliver(target, Json(event));
    return;
  }
  queued_events_.push_back(event);
  LogArg type(nullptr);
  if (event.is_object()) {
    auto found = event.find("type");
    if (found != event.end())
      type = found->is_string() ? LogArg(found->get<std::string>()) : LogArg(found->dump());
  }
  SparLog("event %@ queued (no page yet)", type);
}

std::vector<Event> EventDelivery::takeQueuedEvents() {
  std::vector<Event> taken;
  taken.swap(queued_events_);
  return taken;
}

} // namespace orvane
