// The executable's one-shot capture modes, chosen by its first argument.
#pragma once

#include <string>

namespace orvane {

inline constexpr char kCaptureSelectionArgument[] = "--capture-selection";
inline constexpr char kCaptureQuoteArgument[] = "--capture-quote";

// True when the first argument asks for a capture mode.
bool IsCaptureArgument(int argc, char** argv);

// Runs the capture mode and answers the process's exit status.
int RunCaptureMode(const std::string& mode);

} // namespace orvane
