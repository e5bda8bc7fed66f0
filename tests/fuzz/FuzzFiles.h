// For fuzz targets that write a file per input.
#pragma once

#include <glib.h>

namespace orvane {

// Under libFuzzer every run writes files: they go to memory when the machine
// has a tmpfs there and the caller chose no folder of their own.
inline void PreferMemoryForTemporaryFiles() {
  if (!g_getenv("TMPDIR") && g_file_test("/dev/shm", G_FILE_TEST_IS_DIR))
    g_setenv("TMPDIR", "/dev/shm", FALSE);
}

} // namespace orvane
