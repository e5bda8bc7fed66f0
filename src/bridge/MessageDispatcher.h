// Page-to-native messages: every page posts on the "panel" channel a body
// with an "action". The dispatcher logs each one, offers it to the library's
// handler first and then to its own short table, and runs the "hello"
// handshake that makes a page the primary recipient of events.
#pragma once

#include "bridge/BridgeHost.h"
#include "bridge/EventDelivery.h"
#include "bridge/Payload.h"

#include <functional>
#include <string>

namespace orvane {

inline constexpr char kMessageChannel[] = "panel";

class MessageDispatcher {
public:
  // site_address is read at each message, so a changed setting applies.
  MessageDispatcher(BridgeHost& host, EventDelivery& events,
                    std::function<std::string()> site_address);

  // One script message from a page.
  void didReceiveScriptMessage(const std::string& name, const nlohmann::json& body,
                               const PageRef& from);

  // The handshake: the sender becomes primary, the store learns the account,
  // queued events flush in order, the store rescans, and the page hears
  // where the agent is.
  void helloFrom(const PageRef& page, const std::string& account);

private:
  void dispatchTopLevel(const std::string& action, const nlohmann::json& body, const PageRef& from);
  void previewSplit(const nlohmann::json& body);

  BridgeHost& host_;
  EventDelivery& events_;
  std::function<std::string()> site_address_;
};

} // namespace orvane
