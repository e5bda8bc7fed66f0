// The X11 tests run on a desktop of their own: an Xvfb display with the
// openbox window manager and a private D-Bus session bus, all started here
// and stopped here by pid, in a throwaway home.
//
// The binary also has a helper mode for the tests of a process that exits
// while it owns the restored CLIPBOARD:
//   orvane_x11_tests --restore-and-exit LIFETIME_MS TARGET TEXT [TARGET TEXT]...
// Before Xlib, whose None and Bool macros would break gtest's headers.
#include <gtest/gtest.h>

#include "desktop/x11/X11Selections.h"
#include "support/SessionBus.h"
#include "support/TempDir.h"
#include "x11/X11TestSupport.h"

#include <X11/extensions/XTest.h>
#include <X11/keysym.h>
#include <cstring>
#include <gtest/gtest.h>
#include <gtk/gtk.h>

namespace {

// Xvfb reporting its display number, then openbox on it.
class XDesktop {
public:
  bool start() {
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
    setenv("DISPLAY", (":" + number).c_str(), 1);
    openbox_ = fork();
    if (openbox_ == 0) {
      int null = open("/dev/null", O_WRONLY);
      dup2(null, 1);
      dup2(null, 2);
      execlp("openbox", "openbox", "--sm-disable", static_cast<char*>(nullptr));
      _exit(127);
    }
    return orvane::SpinUntil([] { return WindowManagerRuns(); }, 30);
  }

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
  static bool WindowManagerRuns() {
    orvane::TestDisplay display;
    if (!display.get())
      return false;
    Atom type = None;
    int format = 0;
    unsigned long items = 0, after = 0;
    unsigned char* data = nullptr;
    XGetWindowProperty(display.get(), DefaultRootWindow(display.get()),
                       display.atom("_NET_SUPPORTING_WM_CHECK"), 0, 1, False, XA_WINDOW, &type,
                       &format, &items, &after, &data);
    if (data)
      XFree(data);
    return items == 1;
  }

  pid_t xvfb_ = 0, openbox_ = 0;
};

// Restores the given targets to the CLIPBOARD, hands them to a keeper (the
// real Orvane executable) and exits at once.
int RestoreAndExit(int argc, char** argv) {
  if (argc < 3 || !gtk_init_check(nullptr, nullptr))
    return 2;
  orvane::X11SelectionLimits limits;
  limits.keeper_lifetime = std::chrono::milliseconds(std::stol(argv[2]));
  limits.keeper_executable = orvane::OrvaneExecutable();
  orvane::X11Selections selections(limits);
  orvane::ClipboardContents contents;
  for (int i = 3; i + 1 < argc; i += 2)
    contents.push_back({argv[i], argv[i + 1]});
  selections.restoreClipboard(contents);
  selections.keepClipboardAfterExit();
  return 0;
}

} // namespace

int main(int argc, char** argv) {
  // The helper runs in the environment of the test that started it.
  if (argc >= 2 && strcmp(argv[1], "--restore-and-exit") == 0)
    return RestoreAndExit(argc, argv);

  orvane::UseThrowawayHome();
  setenv("NO_AT_BRIDGE", "1", 1);
  setenv("GSETTINGS_BACKEND", "memory", 1);
  setenv("GDK_BACKEND", "x11", 1);
  unsetenv("WAYLAND_DISPLAY");
  orvane::SessionBus bus;
  if (!bus.start()) {
    fprintf(stderr, "could not start a private D-Bus session bus\n");
    return 1;
  }
  XDesktop desktop;
  if (!desktop.start()) {
    fprintf(stderr, "could not start Xvfb with openbox\n");
    return 1;
  }
  if (!gtk_init_check(nullptr, nullptr)) {
    fprintf(stderr, "GTK could not open the test display\n");
    return 1;
  }
  {
    // On a fresh server the first synthetic key press can get lost; one
    // harmless press now means every press a test makes counts.
    orvane::TestDisplay display;
    KeyCode shift = XKeysymToKeycode(display.get(), XK_Shift_L);
    XTestFakeKeyEvent(display.get(), shift, True, CurrentTime);
    XTestFakeKeyEvent(display.get(), shift, False, CurrentTime);
    XSync(display.get(), False);
  }
  testing::InitGoogleTest(&argc, argv);
  int result = RUN_ALL_TESTS();
  gdk_display_close(gdk_display_get_default());
  desktop.stop();
  return result;
}
