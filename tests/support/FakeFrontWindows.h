// A front window set by the test, for unit tests of capture.
#pragma once

#include "desktop/FrontWindows.h"

#include <optional>
#include <string>

namespace orvane {

class FakeFrontWindows final : public FrontWindows {
public:
  std::optional<FrontWindow> front;
  mutable int reads = 0;
  std::optional<FrontWindow> frontWindow() const override {
    ++reads;
    return front;
  }

  // A window of a process, with a WM_CLASS and a frame.
  static FrontWindow Window(int pid, const std::string& wm_instance, const std::string& wm_class,
                            std::optional<Rect> frame = Rect{100, 200, 800, 600},
                            const std::string& title = "") {
    FrontWindow window;
    window.id = 0x1200001;
    window.pid = pid;
    window.wm_instance = wm_instance;
    window.wm_class = wm_class;
    window.title = title;
    window.frame = frame;
    return window;
  }
};

} // namespace orvane
