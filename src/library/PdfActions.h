// The library's first look at every page message: the sign-in greeting and
// the actions on local PDFs.
#pragma once

#include "bridge/Page.h"
#include "library/PdfStore.h"

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace orvane {

class PdfActions {
public:
  using HelloHandler = std::function<void(const PageRef& from, const std::string& account)>;
  PdfActions(PdfStore& store, HelloHandler hello);

  // True when the action was handled here; false sends it on to the
  // dispatcher's own table. Only "hello" is accepted before sign-in.
  bool handlePdfAction(const std::optional<std::string>& action, const nlohmann::json& body,
                       const PageRef& from);

private:
  PdfStore& store_;
  HelloHandler hello_;
};

} // namespace orvane
