// Orvane's entry point: a one-shot capture mode, or the application.
#include "app/Application.h"
#include "base/Settings.h"
#include "capture/CaptureModes.h"

int main(int argc, char** argv) {
  // Defaults first, so that they hold in the capture modes too.
  orvane::RegisterDefaultSettings();
  if (orvane::IsCaptureArgument(argc, argv))
    return orvane::RunCaptureMode(argv[1]);
  return orvane::RunApplication(argc, argv);
}
