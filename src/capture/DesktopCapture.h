// The capture of the running desktop, built over the desktop seams.
#pragma once

#include "capture/Capture.h"
#include "desktop/Accessibility.h"
#include "desktop/FrontWindows.h"
#include "desktop/Notifications.h"
#include "desktop/Screens.h"
#include "desktop/Selections.h"

#include <functional>
#include <memory>

namespace orvane {

struct DesktopCaptureSeams {
  FrontWindows& front_windows;
  Selections& selections;
  const Screens& screens;
  const Accessibility& accessibility;
  Notifications& notifications;
  // Whether a process is a running Orvane (this one, or the instance a
  // capture process reports to).
  std::function<bool(int pid)> is_this_program;
  // The library account folder, while the store has an account.
  std::function<std::optional<std::string>()> library_folder;
};

std::unique_ptr<Capture> MakeDesktopCapture(DesktopCaptureSeams seams);

} // namespace orvane
