#pragma once

#include "desktop/Launcher.h"

namespace orvane {

// Launching through GIO's desktop application info, which reports the pid
// of the process it spawns.
class GioLauncher final : public Launcher {
public:
  void openFile(const std::string& path, Completion completion) override;
  void openApplication(const std::string& application, Completion completion) override;
  void openWithViewer(const std::string& path, Completion completion) override;
  void reveal(const std::string& path, Completion completion) override;
};

} // namespace orvane
