#include "bridge/EventDelivery.h"

#include "app/SparLog.h"

namespace orvane {

std::string EventDelivery::EventScript(const Event& event) {
  // Compact UTF-8 JSON; a stray invalid byte is replaced rather than thrown.
  std::string json = event.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  return "window.panelEvent && window.panelEvent(" + json + ")";
}

void EventDelivery::sendEvent(const Event& event) {
  sendEvent(event, primary_web_.lock());
}

void EventDelivery::sendEvent(const Event& event, const PageRef& target) {
  if (target) {
    target->evaluateScript(EventScript(event));
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
