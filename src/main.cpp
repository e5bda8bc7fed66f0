// Orvane's entry point: a one-shot capture mode, or the application.
#include "app/Application.h"
#include "base/Settings.h"
#include "capture/CaptureModes.h"
#include "desktop/DesktopChooser.h"

int main(int argc, char** argv) {
  // Defaults first, so that they hold in the capture modes too, and the
  // desktop's setting is read with them.
  orvane::RegisterDefaultSettings();
  // Before any GDK call: the desktop backend decides which display GDK opens.
  // What reading its setting finds wrong with the settings file is logged
  // after the application's banner (the launch releases it), or at once in
  // the other modes.
  orvane::Settings::standard().holdBadLineReports();
  orvane::DesktopChoice desktop = orvane::ChooseDesktopAtStart();
  if (orvane::IsCaptureArgument(argc, argv) || orvane::IsClipboardKeeperArgument(argc, argv))
    orvane::Settings::standard().releaseBadLineReports();
  if (orvane::IsCaptureArgument(argc, argv))
    return orvane::RunCaptureMode(argv[1], desktop);
  // The background keeper a capture process starts for the CLIPBOARD it
  // restored (private: only Orvane itself passes this argument).
  if (orvane::IsClipboardKeeperArgument(argc, argv))
    return orvane::RunClipboardKeeperMode(argv[2]);
  return orvane::RunApplication(argc, argv, desktop);
}
