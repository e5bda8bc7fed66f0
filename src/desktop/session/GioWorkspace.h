#pragma once

#include "desktop/Workspace.h"

namespace orvane {

// Opening, revealing and browsing through GIO's application registry.
class GioWorkspace final : public Workspace {
public:
  ErrorText openInBrowser(const std::string& uri) override;
  void openInViewer(const std::string& path, std::function<void(ErrorText)> completion) override;
  void reveal(const std::string& path) override;
};

} // namespace orvane
