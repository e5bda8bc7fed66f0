// The KDE Plasma backend against a real headless KWin session: run inside
// tests/wayland/run-in-kwin-session, and for the portal's hotkeys inside an
// app scope of Orvane (tests/wayland/in-app-scope com.tarnwick.orvane), which
// CTest does. Without a KWin session every test fails: nothing is skipped.
#include "support/TempDir.h"

#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (!getenv("WAYLAND_DISPLAY") || !getenv("DBUS_SESSION_BUS_ADDRESS")) {
    fprintf(stderr, "orvane_kwin_tests: no Wayland session (run it through "
                    "tests/wayland/run-in-kwin-session)\n");
    return 1;
  }
  // The log and the program's own files go to a throwaway home; the
  // session's runtime folder and bus stay the harness's.
  orvane::UseThrowawayHome();
  setenv("NO_AT_BRIDGE", "1", 1);
  setenv("GSETTINGS_BACKEND", "memory", 1);
  return RUN_ALL_TESTS();
}
