// The executable's one-shot capture modes, chosen by its first argument.
// They are what a user binds to a desktop keyboard shortcut: the process
// captures, leaves its results in the hand-off folder and exits.
#pragma once

#include "capture/DesktopCapture.h"
#include "desktop/DesktopChooser.h"
#include "desktop/MessageBus.h"

#include <string>

namespace orvane {

inline constexpr char kCaptureSelectionArgument[] = "--capture-selection";
inline constexpr char kCaptureQuoteArgument[] = "--capture-quote";
// The signal that tells the running program a quote waits in "quote.txt".
inline constexpr char kQuoteNotification[] = "com.tarnwick.orvane.quote";

inline constexpr char kSelectionHandoff[] = "selection.txt";
inline constexpr char kScreenHandoff[] = "screen.txt";
inline constexpr char kQuoteHandoff[] = "quote.txt";

// True when the first argument asks for a capture mode.
bool IsCaptureArgument(int argc, char** argv);

struct CaptureModeSeams {
  DesktopCaptureSeams capture;
  MessageBus& bus;
};

// Runs a capture mode over the given seams and answers the process's exit
// status.
int RunCaptureModeWith(const std::string& mode, CaptureModeSeams seams);

// Runs the capture mode on this display and session bus, through the
// desktop chosen before GDK started.
int RunCaptureMode(const std::string& mode, const DesktopChoice& desktop);

} // namespace orvane
