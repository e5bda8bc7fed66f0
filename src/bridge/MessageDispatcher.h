// Page-to-native messages: every page posts on the "panel" channel a body
// with an "action". The dispatcher first makes sure the message comes from
// the site's own top-level document, then logs it, offers it to the
// library's handler and then to its own short table, and runs the "hello"
// handshake that makes a page the primary recipient of events.
#pragma once

#include "base/LogThrottle.h"
#include "bridge/BridgeHost.h"
#include "bridge/EventDelivery.h"
#include "bridge/Payload.h"

#include <functional>
#include <string>

namespace orvane {

inline constexpr char kMessageChannel[] = "panel";

// Where a message was posted, as the bridge's own script saw it from a
// script world that page scripts cannot reach: the address of the document
// that posted it, and whether that document is its page's main frame.
struct MessageSender {
  std::string document_address;
  bool main_frame = false;
};

class MessageDispatcher {
public:
  using Clock = LogThrottle::Clock;

  // site_address is read at each message, so a changed setting applies.
  MessageDispatcher(BridgeHost& host, EventDelivery& events,
                    std::function<std::string()> site_address,
                    Clock clock = LogThrottle::MonotonicSeconds);

  // One script message from a page. It counts only when it comes from the
  // main frame, and both the sender's document and the page's committed
  // document have the site's origin; any other is refused with a log line.
  void didReceiveScriptMessage(const std::string& name, const nlohmann::json& body,
                               const PageRef& from, const MessageSender& sender);

  // The handshake: the sender becomes primary, the store learns the account,
  // queued events flush in order, the store rescans, and the page hears
  // where the agent is.
  void helloFrom(const PageRef& page, const std::string& account);

private:
  // The address to name in the refusal, or nullopt when the message counts.
  std::optional<std::string> offSiteAddress(const PageRef& from, const MessageSender& sender) const;
  void logRefusal(const PageRef& from, const std::string& address);
  void dispatchTopLevel(const std::string& action, const nlohmann::json& body, const PageRef& from);
  void previewSplit(const nlohmann::json& body);

  BridgeHost& host_;
  EventDelivery& events_;
  std::function<std::string()> site_address_;
  // A hostile page can post without end; its refusals are logged at most
  // once a second per page, and the ones held back are counted.
  LogThrottle refusals_;
};

} // namespace orvane
