// The trust check, trusted or not as the test says.
#pragma once

#include "desktop/Accessibility.h"

#include <string>

namespace orvane {

class FakeAccessibility final : public Accessibility {
public:
  bool trusted = true;
  std::string reason = "Orvane is not running on an X11 display.";
  bool isTrusted() const override { return trusted; }
  std::string reasonNotTrusted() const override { return trusted ? "" : reason; }
};

} // namespace orvane
