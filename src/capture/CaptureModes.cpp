#include "capture/CaptureModes.h"

namespace orvane {

bool IsCaptureArgument(int argc, char** argv) {
  if (argc < 2 || !argv[1])
    return false;
  std::string first = argv[1];
  return first == kCaptureSelectionArgument || first == kCaptureQuoteArgument;
}

int RunCaptureMode(const std::string& mode) {
  // Selection capture is not built yet: a capture start ends at once,
  // without starting the application or writing to the log.
  (void)mode;
  return 0;
}

} // namespace orvane
