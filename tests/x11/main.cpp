// The X11 tests run on a desktop of their own: an Xvfb display with the
// openbox window manager and a private D-Bus session bus, all started here
// and stopped here by pid, in a throwaway home.
//
// The binary also has a helper mode for the tests of a process that exits
// while it owns the restored CLIPBOARD:
//   orvane_x11_tests --restore-and-exit LIFETIME_MS TARGET TEXT [TARGET TEXT]...
// one for a display without window manager:
//   orvane_x11_tests --print-front-window
// and one that provokes an X error no request watches for on the selection
// worker's connection, in a process whose GDK handler is watched:
//   orvane_x11_tests --untrapped-worker-error
// Before Xlib, whose None and Bool macros would break gtest's headers.
#include <gtest/gtest.h>

#include "desktop/x11/SelectionWorker.h"
#include "desktop/x11/X11FrontWindows.h"
#include "desktop/x11/X11Selections.h"
#include "support/SessionBus.h"
#include "support/TempDir.h"
#include "x11/X11TestSupport.h"

#include <X11/extensions/XTest.h>
#include <X11/keysym.h>
#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <gtk/gtk.h>
#include <sys/syscall.h>
#include <unistd.h>

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

// GDK's X error handler, watched: how often it ran on the main thread and
// on any other.
XErrorHandler gdk_handler = nullptr;
std::atomic<int> gdk_calls_on_main{0};
std::atomic<int> gdk_calls_elsewhere{0};

int WatchedGdkHandler(Display* display, XErrorEvent* error) {
  if (syscall(SYS_gettid) == getpid())
    ++gdk_calls_on_main;
  else
    ++gdk_calls_elsewhere;
  return gdk_handler ? gdk_handler(display, error) : 0;
}

// A request on a window that no longer exists: a BadWindow error.
void MapDestroyedWindow(Display* display) {
  Window window = XCreateSimpleWindow(display, DefaultRootWindow(display), 0, 0, 1, 1, 0, 0, 0);
  XDestroyWindow(display, window);
  XMapWindow(display, window);
  XSync(display, False);
}

// Prints "elsewhere=N main=N untrapped=N after=1": GDK's handler's calls off
// and on the main thread, the errors the worker's reader counted without a
// trap, and whether the worker still worked after the error.
int UntrappedWorkerError() {
  if (!gtk_init_check(nullptr, nullptr))
    return 2;
  // Watched in the place of GDK's handler before any reader exists, as GDK's
  // own is in the application.
  gdk_handler = XSetErrorHandler(WatchedGdkHandler);
  orvane::SelectionWorker worker;
  uint64_t untrapped = 0;
  worker.run([&](orvane::XSelectionReader& reader) {
    // A watched request first (a window that does not exist has no client).
    reader.pidOfWindow(0x3ffffff);
    MapDestroyedWindow(reader.display());
    untrapped = reader.untrappedErrors();
  });
  bool after = false;
  worker.run([&](orvane::XSelectionReader& reader) {
    after = reader.connected() && reader.noKeyHeld() == reader.noKeyHeld();
  });
  // An error of a display that is not ours, on the main thread, still goes
  // on to GDK's handler.
  Display* other = XOpenDisplay(nullptr);
  if (!other)
    return 3;
  MapDestroyedWindow(other);
  XCloseDisplay(other);
  printf("elsewhere=%d main=%d untrapped=%llu after=%d\n", gdk_calls_elsewhere.load(),
         gdk_calls_on_main.load(), static_cast<unsigned long long>(untrapped), after ? 1 : 0);
  return 0;
}

} // namespace

int main(int argc, char** argv) {
  // Selection conversations run on a worker thread: two threads use Xlib.
  XInitThreads();
  // The helper runs in the environment of the test that started it.
  if (argc >= 2 && strcmp(argv[1], "--restore-and-exit") == 0)
    return RestoreAndExit(argc, argv);
  if (argc >= 2 && strcmp(argv[1], "--print-front-window") == 0)
    return PrintFrontWindow();
  if (argc >= 2 && strcmp(argv[1], "--untrapped-worker-error") == 0)
    return UntrappedWorkerError();

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
