#include "bridge/MessageDispatcher.h"

#include "base/SiteAddress.h"
#include "base/SparLog.h"

namespace orvane {

namespace {
// The action as text: a string as itself, any other value as its JSON.
std::optional<std::string> ActionOf(const nlohmann::json& body) {
  if (!body.is_object())
    return std::nullopt;
  auto found = body.find("action");
  if (found == body.end())
    return std::nullopt;
  return found->is_string() ? found->get<std::string>() : found->dump();
}

bool NonEmpty(const std::optional<std::string>& text) {
  return text && !text->empty();
}
} // namespace

MessageDispatcher::MessageDispatcher(BridgeHost& host, EventDelivery& events,
                                     std::function<std::string()> site_address)
    : host_(host), events_(events), site_address_(std::move(site_address)) {}

void MessageDispatcher::didReceiveScriptMessage(const std::string& name, const nlohmann::json& body,
                                                const PageRef& from) {
  if (name != kMessageChannel)
    return;
  // A page that is not on the site (reached by a redirect, say) must not
  // drive the program: it could start the agent with arguments of its own.
  if (from) {
    std::string address = from->currentAddress();
    if (!IsOnSite(address, site_address_())) {
      SparLog("message from off-site page %@ — ignored", address);
      return;
    }
  }
  std::optional<std::string> action = ActionOf(body);
  SparLog("message: %@", action.value_or("(none)"));
  if (host_.handlePdfAction(action, body, from))
    return;
  if (action)
    dispatchTopLevel(*action, body, from);
}

void MessageDispatcher::dispatchTopLevel(const std::string& action, const nlohmann::json& body,
                                         const PageRef& from) {
  if (action == "spar") {
    auto id = StringMember(body, "id");
    if (NonEmpty(id))
      host_.openSparWindowFor(*id);
  } else if (action == "closeSpar") {
    host_.closeSparWindow();
  } else if (action == "close") {
    PageRef panel = host_.quickPanelPage();
    if (from && panel && from == panel)
      host_.hideQuickPanel();
  } else if (action == "dragFile") {
    auto path = StringMember(body, "path");
    if (NonEmpty(path))
      host_.beginFileDrag(*path, from ? from : host_.quickPanelPage());
  } else if (action == "previewSplit") {
    previewSplit(body);
  }
  // Anything else: the "message:" line already said it all.
}

void MessageDispatcher::previewSplit(const nlohmann::json& body) {
  auto path = StringMember(body, "path");
  auto id = StringMember(body, "id");
  if (NonEmpty(path)) {
    host_.openPreviewSplitFor(*path);
    return;
  }
  if (!NonEmpty(id) || !host_.storeHasAccount())
    return;
  std::string paper_id = *id;
  host_.ensureLocal(
      paper_id, StringMember(body, "url"), StringMember(body, "etag"),
      [this, paper_id](std::optional<std::string> local, std::optional<std::string> error) {
        if (local) {
          host_.openPreviewSplitFor(*local);
          return;
        }
        events_.sendEvent({{"type", "error"},
                           {"id", paper_id},
                           {"message", error.value_or("Could not fetch the PDF")}});
      });
}

void MessageDispatcher::helloFrom(const PageRef& page, const std::string& account) {
  events_.setPrimaryWeb(page);
  host_.setStoreAccount(account);
  for (const Event& event : events_.takeQueuedEvents())
    events_.sendEvent(event);
  host_.rescanStore();
  events_.sendEvent(
      {{"type", "claudeStatus"}, {"path", host_.claudePath()}, {"sparRoot", host_.sparFolder()}});
}

} // namespace orvane
