// Unit tests run in a throwaway home: every XDG folder points into it, so
// settings, the log and the library never touch the user's own.
#include "support/TempDir.h"

#include <gtest/gtest.h>

int main(int argc, char** argv) {
  static orvane::TempDir home;
  setenv("HOME", home.path().c_str(), 1);
  setenv("XDG_CONFIG_HOME", (home.path() + "/.config").c_str(), 1);
  setenv("XDG_STATE_HOME", (home.path() + "/.local/state").c_str(), 1);
  setenv("XDG_CACHE_HOME", (home.path() + "/.cache").c_str(), 1);
  setenv("XDG_DATA_HOME", (home.path() + "/.local/share").c_str(), 1);
  unsetenv("XDG_DOCUMENTS_DIR");
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
