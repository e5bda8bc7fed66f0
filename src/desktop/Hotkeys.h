// The global hotkeys seam: chords that reach Orvane whichever application is
// in front (passive key grabs on X11, the desktop's shortcut service on
// Wayland).
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace orvane {

class Hotkeys {
public:
  // Called on the main loop with the time of the key press (the X server's
  // time on X11; 0 where the desktop gives none).
  using Handler = std::function<void(uint32_t timestamp)>;

  struct Request {
    std::string id;          // a stable name for the desktop's shortcut list ("summon")
    std::string description; // what the desktop shows in its shortcut settings
    std::string accelerator; // the chord in GTK's notation ("<Alt>b")
    Handler handler;
  };

  virtual ~Hotkeys() = default;
  // Grabs the accelerator ("<Alt>b") for the life of the process; the grab
  // also holds with Caps Lock or Num Lock on. False when another client
  // holds the combination or the desktop has no way to bind it.
  virtual bool bind(const std::string& accelerator, Handler handler) = 0;
  // Binds every request, answering for each whether it is bound. A desktop
  // that registers an application's shortcuts as one set gets them in one
  // go; the default binds them one by one.
  virtual std::vector<bool> bindAll(const std::vector<Request>& requests) {
    std::vector<bool> bound;
    for (const Request& request : requests)
      bound.push_back(bind(request.accelerator, request.handler));
    return bound;
  }
};

} // namespace orvane
