// The activation seam: asking the desktop to bring the program to the
// front the way a second start of it would, so that the window manager
// lets its window take the keyboard.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace orvane {

class Activation {
public:
  // The error's text, or nothing when the request was accepted.
  using Completion = std::function<void(std::optional<std::string> error)>;
  virtual ~Activation() = default;
  // Sends the request carrying the X server time of the user's key press;
  // the completion runs on the main loop once the request was answered.
  virtual void requestActivation(uint32_t timestamp, Completion completion) = 0;
};

} // namespace orvane
