// Real X clients for the X11 tests: child processes read line by line,
// tools run to completion while the main loop keeps serving (our own
// CLIPBOARD is answered by it), and direct Xlib access to the test display.
#pragma once

// Before Xlib, whose None and Bool macros would break gtest's headers.
#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/MainLoop.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <cerrno>
#include <fcntl.h>
#include <gdk/gdk.h>
#include <glib.h>
#include <memory>
#include <optional>
#include <poll.h>
#include <signal.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace orvane {

// Starts a fixture that prints "ready WINDOW" once it is up, and waits for
// that line; `window` (when given) gets the window it reported. Nothing when
// the fixture did not start or did not report.
inline std::unique_ptr<Child> StartReady(const std::vector<std::string>& argv,
                                         Window* window = nullptr) {
  std::unique_ptr<Child> child = Child::Start(argv);
  if (!child)
    return nullptr;
  std::optional<std::string> line = child->readLine();
  if (!line || line->rfind("ready ", 0) != 0)
    return nullptr;
  if (window)
    *window = std::stoul(line->substr(6));
  return child;
}

// A direct connection to the test display, for what the tests do to the
// server themselves.
class TestDisplay {
public:
  explicit TestDisplay(const char* name = nullptr) : display_(XOpenDisplay(name)) {}
  ~TestDisplay() {
    if (display_)
      XCloseDisplay(display_);
  }
  Display* get() const { return display_; }
  Atom atom(const char* name) const { return XInternAtom(display_, name, False); }
  Window owner(const char* selection) const {
    return XGetSelectionOwner(display_, atom(selection));
  }
  void disown(const char* selection) const {
    XSetSelectionOwner(display_, atom(selection), None, CurrentTime);
    XSync(display_, False);
  }
  Window activeWindow() const { return rootWindowProperty("_NET_ACTIVE_WINDOW"); }
  // The window a root-window property of type WINDOW names; None without one.
  Window rootWindowProperty(const char* name) const {
    Atom type = None;
    int format = 0;
    unsigned long items = 0, after = 0;
    unsigned char* data = nullptr;
    Window value = None;
    if (XGetWindowProperty(display_, DefaultRootWindow(display_), atom(name), 0, 1, False,
                           XA_WINDOW, &type, &format, &items, &after, &data) == Success &&
        type == XA_WINDOW && items == 1)
      value = Window(reinterpret_cast<long*>(data)[0]);
    if (data)
      XFree(data);
    return value;
  }

private:
  Display* display_;
};

// Xvfb reporting its display number, then (unless told otherwise) openbox
// on it. DISPLAY is set to it when `make_default`.
class XDesktop {
public:
  bool start(bool with_window_manager = true, bool make_default = true) {
    int fds[2];
    if (pipe(fds) != 0)
      return false;
    xvfb_ = fork();
    if (xvfb_ == 0) {
      close(fds[0]);
      std::string fd = std::to_string(fds[1]);
      execlp("Xvfb", "Xvfb", "-displayfd", fd.c_str(), "-screen", "0", "1280x800x24", "-nolisten",
             "tcp", "-noreset", static_cast<char*>(nullptr));
      _exit(127);
    }
    close(fds[1]);
    std::string number;
    char c;
    pollfd descriptor{fds[0], POLLIN, 0};
    while (poll(&descriptor, 1, 20000) > 0 && read(fds[0], &c, 1) == 1 && c != '\n')
      number += c;
    close(fds[0]);
    if (number.empty())
      return false;
    name_ = ":" + number;
    if (make_default)
      setenv("DISPLAY", name_.c_str(), 1);
    if (!with_window_manager)
      return true;
    openbox_ = fork();
    if (openbox_ == 0) {
      setenv("DISPLAY", name_.c_str(), 1);
      int null = open("/dev/null", O_WRONLY);
      dup2(null, 1);
      dup2(null, 2);
      execlp("openbox", "openbox", "--sm-disable", static_cast<char*>(nullptr));
      _exit(127);
    }
    return SpinUntil([this] { return WindowManagerRuns(name_); }, 30);
  }

  const std::string& name() const { return name_; }

  void stop() {
    for (pid_t* pid : {&openbox_, &xvfb_}) {
      if (*pid > 0) {
        kill(*pid, SIGTERM);
        waitpid(*pid, nullptr, 0);
        *pid = 0;
      }
    }
  }
  ~XDesktop() { stop(); }

private:
  static bool WindowManagerRuns(const std::string& name) {
    TestDisplay display(name.c_str());
    return display.get() && display.rootWindowProperty("_NET_SUPPORTING_WM_CHECK") != None;
  }

  pid_t xvfb_ = 0, openbox_ = 0;
  std::string name_;
};

// Where the fixtures are (set by the build).
inline std::string FixtureScript(const std::string& name) {
  return std::string(ORVANE_X11_FIXTURES) + "/" + name;
}
// A stand-in that the end-to-end tests use as well (tests/fixtures).
inline std::string SharedFixtureScript(const std::string& name) {
  return std::string(ORVANE_SHARED_FIXTURES) + "/" + name;
}
inline std::string SelectionOwnerFixture() {
  return ORVANE_X11_SELECTION_OWNER;
}
inline std::string OrvaneExecutable() {
  return ORVANE_EXECUTABLE;
}

} // namespace orvane
