// The keystroke that copies the selection in the front window. Ctrl+C is an
// interrupt in a terminal emulator, so the known terminals get their own
// chord, or none at all when they have no copy keystroke. This table is the
// only place that knows terminals.
#pragma once

#include "desktop/Selections.h"

#include <optional>
#include <string>

namespace orvane {

// The chord for a window by its WM_CLASS (instance or class, compared
// case-insensitively): Ctrl+Shift+C for a known terminal, nothing for a
// terminal without a copy chord, Ctrl+C for every other window.
std::optional<CopyChord> CopyChordFor(const std::string& wm_instance, const std::string& wm_class);

// "Ctrl+C" or "Ctrl+Shift+C", for log lines.
std::string CopyChordText(CopyChord chord);

} // namespace orvane
