#include "bridge/MessageDispatcher.h"

#include "base/SiteAddress.h"
#include "base/SparLog.h"
#include "base/Text.h"

#include <glib.h>

namespace orvane {

namespace {
// The action as text: a string as itself, any other value as its JSON.
std::optional<std::string> ActionOf(const nlohmann::json& body) {
  if (!body.is_object())
    return std::nullopt;
  auto found = body.find("action");
  if (found == body.end())
    return std::nullopt;
  return found->is_string() ? found->get<std::string>()
                            : found->dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

constexpr size_t kRefusalAddressLength = 200;
} // namespace

MessageDispatcher::MessageDispatcher(BridgeHost& host, EventDelivery& events,
                                     std::function<std::string()> site_address, Clock clock)
    : host_(host), events_(events), site_address_(std::move(site_address)),
      refusals_(std::move(clock)) {}

std::optional<std::string> MessageDispatcher::offSiteAddress(const PageRef& from,
                                                             const MessageSender& sender) const {
  // A frame inside a page is never the site, whatever its origin: an
  // embedded document (an advertisement, a paper's landing page) must not
  // drive the program.
  if (!sender.main_frame)
    return sender.document_address;
  std::string site = site_address_();
  // The committed document, not the address of a load in flight: a page
  // that has started to leave for the site is not on it yet.
  std::string committed = from ? from->committedAddress() : "";
  if (!HasSiteOrigin(committed, site))
    return committed;
  // A message posted by the previous document can arrive after the next
  // one committed; the sender's own address settles it.
  if (!HasSiteOrigin(sender.document_address, site))
    return sender.document_address;
  return std::nullopt;
}

void MessageDispatcher::logRefusal(const PageRef& from, const std::string& address) {
  long held_back = 0;
  if (!refusals_.admit(from.get(), held_back))
    return;
  if (held_back > 0)
    SparLog("bridge: %ld more messages from off-site pages ignored since the last line", held_back);
  SparLog("message from off-site page %@ — ignored", ShortenedText(address, kRefusalAddressLength));
}

void MessageDispatcher::didReceiveScriptMessage(const std::string& name, const nlohmann::json& body,
                                                const PageRef& from, const MessageSender& sender) {
  if (name != kMessageChannel)
    return;
  // Only the site's own documents may drive the program: another page could
  // start the agent with arguments of its own, or read local paths.
  if (std::optional<std::string> address = offSiteAddress(from, sender)) {
    logRefusal(from, *address);
    return;
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
    if (auto id = NameMember(body, "id"))
      host_.openSparWindowFor(*id);
  } else if (action == "closeSpar") {
    host_.closeSparWindow();
  } else if (action == "close") {
    PageRef panel = host_.quickPanelPage();
    if (from && panel && from == panel)
      host_.hideQuickPanel();
  } else if (action == "dragFile") {
    // A message that got this far has a page: the trust check refuses any
    // other.
    if (auto path = NameMember(body, "path"))
      host_.beginFileDrag(*path, from);
  } else if (action == "previewSplit") {
    previewSplit(body);
  }
  // Anything else: the "message:" line already said it all.
}

void MessageDispatcher::previewSplit(const nlohmann::json& body) {
  // Empty, or holding a NUL (no file name can): missing.
  auto path = NameMember(body, "path");
  auto id = NameMember(body, "id");
  if (path) {
    host_.openPreviewSplitFor(*path);
    return;
  }
  if (!id || !host_.storeHasAccount())
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
