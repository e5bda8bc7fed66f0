// Other applications' windows through libwnck, on the default screen.
#pragma once

#include "desktop/Windows.h"

namespace orvane {

class WnckWindows final : public Windows {
public:
  std::optional<std::vector<WindowInfo>> windowsOfPid(int pid) override;
  std::vector<WindowInfo> normalWindows() override;
  std::optional<WindowInfo> window(unsigned long id) override;
  bool setFrame(unsigned long id, const Rect& frame) override;
  bool activate(unsigned long id, uint32_t timestamp) override;
  bool leaveFullScreen(unsigned long id) override;
  std::vector<int> pidsOfApplication(const std::string& name) override;
  std::vector<std::string> documentsOfPid(int pid) override;
};

} // namespace orvane
