// The X11 tests run on a desktop of their own: an Xvfb display with the
// openbox window manager and a private D-Bus session bus, all started here
// and stopped here by pid, in a throwaway home.
//
// The binary also has a helper mode for the tests of a process that exits
// while it owns the restored CLIPBOARD:
//   orvane_x11_tests --restore-and-exit LIFETIME_MS TARGET TEXT [TARGET TEXT]...
// and one for a display without window manager:
//   orvane_x11_tests --print-front-window
// Before Xlib, whose None and Bool macros would break gtest's headers.
#include <gtest/gtest.h>

#include "desktop/x11/X11FrontWindows.h"
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

// Prints the front window's id as this process's GDK display sees it, or
// "none".
int PrintFrontWindow() {
  if (!gtk_init_check(nullptr, nullptr))
    return 2;
  std::optional<orvane::FrontWindow> front = orvane::X11FrontWindows().frontWindow();
  printf("%s\n", front ? std::to_string(front->id).c_str() : "none");
  return 0;
}

} // namespace

int main(int argc, char** argv) {
  // The helper runs in the environment of the test that started it.
  if (argc >= 2 && strcmp(argv[1], "--restore-and-exit") == 0)
    return RestoreAndExit(argc, argv);
  if (argc >= 2 && strcmp(argv[1], "--print-front-window") == 0)
    return PrintFrontWindow();

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
  orvane::XDesktop desktop;
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
