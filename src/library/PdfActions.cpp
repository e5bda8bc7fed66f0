#include "library/PdfActions.h"

#include "app/SparLog.h"

namespace orvane {

PdfActions::PdfActions(PdfStore& store, HelloHandler hello)
    : store_(store), hello_(std::move(hello)) {}

bool PdfActions::handlePdfAction(const std::optional<std::string>& action,
                                 const nlohmann::json& body, const PageRef& from) {
  if (action == "hello") {
    std::string account;
    if (body.is_object()) {
      auto found = body.find("account");
      if (found != body.end() && found->is_string())
        account = found->get<std::string>();
    }
    hello_(from, account);
    return true;
  }
  if (!store_.account()) {
    // Written for the dispatcher's own actions too, which still run.
    SparLog("%@ before hello — ignored", action);
    return false;
  }
  return false;
}

} // namespace orvane
