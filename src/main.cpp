// Orvane's entry point: a one-shot capture mode, or the application.
#include "app/Application.h"
#include "base/Settings.h"
#include "capture/CaptureModes.h"
#include "desktop/x11/ClipboardServer.h"

#include <X11/Xlib.h>
#include <gdk/gdk.h>

#include <cstring>

int main(int argc, char** argv) {
  // Before any other Xlib or GDK call: the selection conversations run on a
  // thread of their own with an X connection of their own, so two threads
  // use Xlib. (libX11 1.8 and later does this by itself; older ones do not.)
  XInitThreads();
  // Every mode places or reads windows through X11; under Wayland it runs
  // through XWayland. GDK_BACKEND (often "wayland" in a Wayland session)
  // would override the allowed backends and leave GDK no display to open,
  // so it goes, for this process and the programs it starts.
  g_unsetenv("GDK_BACKEND");
  gdk_set_allowed_backends("x11");
  // Defaults first, so that they hold in the capture modes too.
  orvane::RegisterDefaultSettings();
  if (orvane::IsCaptureArgument(argc, argv))
    return orvane::RunCaptureMode(argv[1]);
  // The background keeper a capture process starts for the CLIPBOARD it
  // restored (private: only Orvane itself passes this argument).
  if (argc == 3 && std::strcmp(argv[1], orvane::kKeepClipboardArgument) == 0)
    return orvane::RunClipboardKeeper(argv[2]);
  return orvane::RunApplication(argc, argv);
}
