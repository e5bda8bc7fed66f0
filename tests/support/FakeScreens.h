// Monitors and a pointer set by the test (one 1920 x 1080 screen by default).
#pragma once

#include "desktop/Screens.h"

#include <vector>

namespace orvane {

class FakeScreens final : public Screens {
public:
  std::vector<Screen> list{{0, {0, 0, 1920, 1080}, {0, 0, 1920, 1050}}};
  Point mouse{333, 444};
  std::vector<Screen> screens() const override { return list; }
  Point mouseLocation() const override { return mouse; }
};

} // namespace orvane
