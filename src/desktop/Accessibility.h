// The trust check behind selection capture and window tiling. On Linux the
// program is trusted when it runs on X11 under an EWMH window manager.
#pragma once

#include <string>

namespace orvane {

class Accessibility {
public:
  virtual ~Accessibility() = default;
  virtual bool isTrusted() const = 0;
  // Why the program is not trusted, for the dialog that says so.
  virtual std::string reasonNotTrusted() const = 0;
};

} // namespace orvane
