#include "capture/CopyChords.h"

#include <glib.h>

#include <string>

namespace orvane {

namespace {

struct TerminalChord {
  const char* wm_class; // instance or class, lower case
  std::optional<CopyChord> chord;
};

// Terminal emulators by WM_CLASS. Those with no copy keystroke (copying is
// selecting there) get no chord: anything sent would reach the shell.
const TerminalChord kTerminals[] = {
    {"xterm", std::nullopt},
    {"uxterm", std::nullopt},
    {"urxvt", std::nullopt},
    {"rxvt-unicode", std::nullopt},
    {"st", std::nullopt},
    {"st-256color", std::nullopt},
    {"gnome-terminal", CopyChord::kControlShiftC},
    {"gnome-terminal-server", CopyChord::kControlShiftC},
    {"konsole", CopyChord::kControlShiftC},
    {"xfce4-terminal", CopyChord::kControlShiftC},
    {"tilix", CopyChord::kControlShiftC},
    {"terminator", CopyChord::kControlShiftC},
    {"alacritty", CopyChord::kControlShiftC},
    {"kitty", CopyChord::kControlShiftC},
    {"wezterm", CopyChord::kControlShiftC},
    {"org.wezfurlong.wezterm", CopyChord::kControlShiftC},
    {"foot", CopyChord::kControlShiftC},
    {"footclient", CopyChord::kControlShiftC},
    {"lxterminal", CopyChord::kControlShiftC},
    {"mate-terminal", CopyChord::kControlShiftC},
    {"qterminal", CopyChord::kControlShiftC},
    {"terminology", CopyChord::kControlShiftC},
};

const TerminalChord* TerminalNamed(const std::string& name) {
  if (name.empty())
    return nullptr;
  for (const TerminalChord& terminal : kTerminals)
    if (g_ascii_strcasecmp(name.c_str(), terminal.wm_class) == 0 &&
        name.size() == std::char_traits<char>::length(terminal.wm_class))
      return &terminal;
  return nullptr;
}

} // namespace

std::optional<CopyChord> CopyChordFor(const std::string& wm_instance, const std::string& wm_class) {
  const TerminalChord* terminal = TerminalNamed(wm_instance);
  if (!terminal)
    terminal = TerminalNamed(wm_class);
  return terminal ? terminal->chord : std::optional<CopyChord>(CopyChord::kControlC);
}

std::string CopyChordText(CopyChord chord) {
  return chord == CopyChord::kControlShiftC ? "Ctrl+Shift+C" : "Ctrl+C";
}

} // namespace orvane
