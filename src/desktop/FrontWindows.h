// The front-window seam: the window the user is working in, as the window
// manager reports it (_NET_ACTIVE_WINDOW).
#pragma once

#include "desktop/Geometry.h"

#include <optional>
#include <string>

namespace orvane {

struct FrontWindow {
  unsigned long id = 0;      // the X window id
  int pid = 0;               // the owning process (XRes, else _NET_WM_PID); 0 when unknown
  std::string wm_instance;   // WM_CLASS instance part ("xterm", "gnome-terminal-server")
  std::string wm_class;      // WM_CLASS class part ("XTerm", "Gnome-terminal")
  std::string title;         // _NET_WM_NAME, else WM_NAME
  std::optional<Rect> frame; // outer frame in desktop coordinates, when readable
};

class FrontWindows {
public:
  virtual ~FrontWindows() = default;
  // The active window, or nothing when no window is active.
  virtual std::optional<FrontWindow> frontWindow() const = 0;
};

} // namespace orvane
