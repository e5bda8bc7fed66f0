// The screens seam: monitors and the pointer, in desktop coordinates.
#pragma once

#include "desktop/Geometry.h"

#include <vector>

namespace orvane {

struct Screen {
  int index = 0;     // position in the screen list; 0 is the primary
  Rect frame;        // the whole monitor
  Rect visibleFrame; // without panels and docks (the work area)
  bool operator==(const Screen&) const = default;
};

class Screens {
public:
  virtual ~Screens() = default;
  // Every monitor, the primary first.
  virtual std::vector<Screen> screens() const = 0;
  virtual Point mouseLocation() const = 0;
};

} // namespace orvane
