// The windows seam: other applications' top-level windows, as the window
// manager lists them, and the few things Orvane does to them. Frames are
// outer frames (decorations included) in desktop coordinates; X11's
// top-left space stays inside the real implementation.
#pragma once

#include "desktop/Geometry.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace orvane {

struct WindowInfo {
  unsigned long id = 0;    // the X window id
  int pid = 0;             // _NET_WM_PID; 0 when the window names none
  bool normal = false;     // type NORMAL: a standard window, not a dialog, panel or menu
  std::string title;       // the window's name
  std::string wm_instance; // WM_CLASS instance part ("evince")
  std::string wm_class;    // WM_CLASS class part ("Evince")
  Rect frame;              // outer frame, desktop coordinates
  bool full_screen = false;
  bool operator==(const WindowInfo&) const = default;
};

class Windows {
public:
  virtual ~Windows() = default;
  // Every window of the process, in a stable order (the order the window
  // manager first listed them). Nothing when the process cannot be
  // addressed: no such process, or no window list to read (no display).
  virtual std::optional<std::vector<WindowInfo>> windowsOfPid(int pid) = 0;
  // Every normal window of every process, in the same stable order.
  virtual std::vector<WindowInfo> normalWindows() = 0;
  // The window with this id, when it still exists.
  virtual std::optional<WindowInfo> window(unsigned long id) = 0;

  // Places the outer frame: position, then size, then position again (a
  // window manager that clamps the position to fit the old size gets it
  // right the second time). Answers whether the window exists and the
  // window manager allows moving and resizing it (the first two writes);
  // the third write's outcome is not looked at.
  virtual bool setFrame(unsigned long id, const Rect& frame) = 0;
  // Raises and focuses the window; a timestamp of 0 means the X server's
  // time now. Answers whether the window exists.
  virtual bool activate(unsigned long id, uint32_t timestamp = 0) = 0;
  // Asks the window to leave full screen. Answers whether the window exists
  // and the window manager allows changing its full-screen state.
  virtual bool leaveFullScreen(unsigned long id) = 0;

  // The processes of the running application named by a desktop-file id
  // ("org.gnome.Evince" or "org.gnome.Evince.desktop") or a WM_CLASS part
  // ("evince", "Evince"), in the order their first normal windows are
  // listed. Empty when none runs.
  virtual std::vector<int> pidsOfApplication(const std::string& name) = 0;
  // The existing PDF files that the process names on its command line
  // (paths or file:// URIs) or holds open, as absolute paths, without
  // duplicates. What the desktop tells of a window's document.
  virtual std::vector<std::string> documentsOfPid(int pid) = 0;
};

} // namespace orvane
