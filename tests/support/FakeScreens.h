// Two monitors side by side (the primary 1920 × 1080 with a 30-point panel,
// a second 1280 × 1024 to its right) and a pointer the test moves.
#pragma once

#include "desktop/Screens.h"

#include <vector>

namespace orvane {

class FakeScreens final : public Screens {
public:
  std::vector<Screen> screens() const override { return list; }
  Point mouseLocation() const override { return mouse; }
  std::vector<Screen> list{{0, {0, 0, 1920, 1080}, {0, 0, 1920, 1050}},
                           {1, {1920, 0, 1280, 1024}, {1920, 0, 1280, 1024}}};
  Point mouse{10, 10};
};

} // namespace orvane
