// The keystroke that copies the selection in the front window. Ctrl+C is an
// interrupt in a terminal emulator, so the known terminals get their own
// chord, or none at all when they have no copy keystroke, and a window whose
// process holds a pseudo-terminal master is a terminal whatever its class.
// This table is the only place that knows terminals.
#pragma once

#include "desktop/Selections.h"

#include <functional>
#include <optional>
#include <string>

namespace orvane {

// The chord for a window by its WM_CLASS (instance or class, compared
// case-insensitively): the table's chord for a known terminal (Ctrl+Shift+C,
// or nothing for one without a copy keystroke). For any other class
// `holds_pseudo_terminal` is asked (only then, since it reads /proc): a
// window that runs terminals gets nothing, every other window Ctrl+C.
std::optional<CopyChord> CopyChordFor(const std::string& wm_instance, const std::string& wm_class,
                                      const std::function<bool()>& holds_pseudo_terminal);

// "Ctrl+C" or "Ctrl+Shift+C", for log lines.
std::string CopyChordText(CopyChord chord);

} // namespace orvane
