// The global hotkeys seam: passive key grabs on the whole display.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace orvane {

class Hotkeys {
public:
  // Called on the main loop with the X server time of the key press.
  using Handler = std::function<void(uint32_t timestamp)>;
  virtual ~Hotkeys() = default;
  // Grabs the accelerator ("<Alt>b") for the life of the process; the grab
  // also holds with Caps Lock or Num Lock on. False when another client
  // holds the combination or the display has no grabs.
  virtual bool bind(const std::string& accelerator, Handler handler) = 0;
};

} // namespace orvane
