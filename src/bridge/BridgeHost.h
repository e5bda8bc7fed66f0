// What the page bridge asks of the rest of the program. The application
// delegate implements it; tests implement it with recorders.
#pragma once

#include "bridge/Page.h"
#include "desktop/Workspace.h"

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace orvane {

class BridgeHost {
public:
  virtual ~BridgeHost() = default;

  // The library's first look at every message; true when it was handled.
  virtual bool handlePdfAction(const std::optional<std::string>& action, const nlohmann::json& body,
                               const PageRef& from) = 0;

  virtual void openSparWindowFor(const std::string& paper_id) = 0;
  virtual void closeSparWindow() = 0;
  // The quick panel's page, for "close", which only that page may use.
  virtual PageRef quickPanelPage() const = 0;
  virtual void hideQuickPanel() = 0;
  virtual void beginFileDrag(const std::string& path, const PageRef& page) = 0;
  virtual void openPreviewSplitFor(const std::string& path) = 0;

  // The library store.
  virtual bool storeHasAccount() const = 0;
  virtual void setStoreAccount(const std::string& account) = 0;
  virtual void rescanStore() = 0;
  using LocalCopyCompletion =
      std::function<void(std::optional<std::string> path, std::optional<std::string> error)>;
  virtual void ensureLocal(const std::string& paper_id, const std::optional<std::string>& url,
                           const std::optional<std::string>& etag,
                           LocalCopyCompletion completion) = 0;

  // The agent: its executable ("" when none is known) and working folder.
  virtual std::string claudePath() const = 0;
  virtual std::string sparFolder() = 0;
};

} // namespace orvane
