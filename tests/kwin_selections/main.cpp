// The KWin selection tests run inside a headless KWin session (see
// tests/wayland/run-in-kwin-session), which gives them WAYLAND_DISPLAY and
// fake-input open to every client. Without a Wayland display they fail at
// once instead of testing nothing.
#include "support/TempDir.h"

#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  const char* display = getenv("WAYLAND_DISPLAY");
  if (!display || !*display) {
    fprintf(stderr, "no WAYLAND_DISPLAY: run these tests inside a KWin session "
                    "(tests/wayland/run-in-kwin-session)\n");
    return 1;
  }
  orvane::UseThrowawayHome();
  setenv("NO_AT_BRIDGE", "1", 1);
  return RUN_ALL_TESTS();
}
