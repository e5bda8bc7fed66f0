#pragma once
// The fake desktop a capture runs against in unit tests, and the seams bundle
// that points a capture at it.
#include "capture/DesktopCapture.h"
#include "support/FakeAccessibility.h"
#include "support/FakeFrontWindows.h"
#include "support/FakeNotifications.h"
#include "support/FakeScreens.h"
#include "support/FakeSelections.h"

#include <optional>
#include <string>
#include <utility>

namespace orvane {

struct FakeCaptureDesktop {
  // `own_pid` is the process that counts as a running Orvane; there is no
  // library account.
  DesktopCaptureSeams seams(int own_pid, std::string handoff_folder) {
    return {windows,
            selections,
            screens,
            accessibility,
            notifications,
            [own_pid](int pid) { return pid == own_pid; },
            [] { return std::optional<std::string>(); },
            std::move(handoff_folder)};
  }

  FakeFrontWindows windows;
  FakeSelections selections;
  FakeScreens screens;
  FakeAccessibility accessibility;
  FakeNotifications notifications;
};

} // namespace orvane
