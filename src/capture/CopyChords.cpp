#include "capture/CopyChords.h"

#include <glib.h>

#include <string>

namespace orvane {

namespace {

struct TerminalChord {
  const char* wm_class; // instance or class, lower case
  std::optional<CopyChord> chord;
};

// Terminal emulators by WM_CLASS (both parts as they really are, lower
// case). Those with no copy keystroke (copying is selecting there) get no
// chord: anything sent would reach the shell.
const TerminalChord kTerminals[] = {
    {"xterm", std::nullopt},
    {"uxterm", std::nullopt},
    {"urxvt", std::nullopt},
    {"rxvt", std::nullopt},
    {"rxvt-unicode", std::nullopt},
    {"st", std::nullopt},
    {"st-256color", std::nullopt},
    {"mlterm", std::nullopt},
    {"aterm", std::nullopt},
    {"eterm", std::nullopt},
    {"kterm", std::nullopt},
    {"zutty", std::nullopt},
    {"gnome-terminal", CopyChord::kControlShiftC},
    {"gnome-terminal-server", CopyChord::kControlShiftC},
    {"kgx", CopyChord::kControlShiftC},
    {"org.gnome.console", CopyChord::kControlShiftC},
    {"ptyxis", CopyChord::kControlShiftC},
    {"org.gnome.ptyxis", CopyChord::kControlShiftC},
    {"ghostty", CopyChord::kControlShiftC},
    {"com.mitchellh.ghostty", CopyChord::kControlShiftC},
    {"konsole", CopyChord::kControlShiftC},
    {"yakuake", CopyChord::kControlShiftC},
    {"xfce4-terminal", CopyChord::kControlShiftC},
    {"guake", CopyChord::kControlShiftC},
    {"tilda", CopyChord::kControlShiftC},
    {"sakura", CopyChord::kControlShiftC},
    {"roxterm", CopyChord::kControlShiftC},
    {"tilix", CopyChord::kControlShiftC},
    {"com.gexperts.tilix", CopyChord::kControlShiftC},
    {"terminix", CopyChord::kControlShiftC},
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
    {"cool-retro-term", CopyChord::kControlShiftC},
    {"contour", CopyChord::kControlShiftC},
    {"org.contourterminal.contour", CopyChord::kControlShiftC},
    {"rio", CopyChord::kControlShiftC},
    {"termite", CopyChord::kControlShiftC},
    {"deepin-terminal", CopyChord::kControlShiftC},
    {"io.elementary.terminal", CopyChord::kControlShiftC},
    {"pantheon-terminal", CopyChord::kControlShiftC},
    {"com.raggesilver.blackbox", CopyChord::kControlShiftC},
    {"lilyterm", CopyChord::kControlShiftC},
    {"tabby", CopyChord::kControlShiftC},
    {"hyper", CopyChord::kControlShiftC},
};

// Programs whose own windows are editors or file managers but which may
// hold a pseudo-terminal for a terminal pane they embed (IDEs, Kate and
// Dolphin with Konsole's part, editors with a terminal plugin): their
// window's copy keystroke is Ctrl+C, as it was before the pane was opened.
// JetBrains IDEs all have a class "jetbrains-<product>".
const char* const kEditorsWithTerminalPanes[] = {
    "code",
    "code-oss",
    "vscodium",
    "codium",
    "kate",
    "kwrite",
    "dolphin",
    "kdevelop",
    "qtcreator",
    "geany",
    "gedit",
    "org.gnome.gedit",
    "org.gnome.builder",
    "gnome-builder",
    "emacs",
    "gvim",
    "dev.zed.zed",
    "zed",
    "sublime_text",
    "pulsar",
    "lite-xl",
    "cursor",
};
constexpr char kJetBrainsClassPrefix[] = "jetbrains-";

bool SameName(const std::string& name, const char* known) {
  return name.size() == std::char_traits<char>::length(known) &&
         g_ascii_strcasecmp(name.c_str(), known) == 0;
}

bool IsEditorWithTerminalPanes(const std::string& name) {
  if (name.size() > sizeof kJetBrainsClassPrefix - 1 &&
      g_ascii_strncasecmp(name.c_str(), kJetBrainsClassPrefix, sizeof kJetBrainsClassPrefix - 1) ==
          0)
    return true;
  for (const char* editor : kEditorsWithTerminalPanes)
    if (SameName(name, editor))
      return true;
  return false;
}

const TerminalChord* TerminalNamed(const std::string& name) {
  if (name.empty())
    return nullptr;
  for (const TerminalChord& terminal : kTerminals)
    if (SameName(name, terminal.wm_class))
      return &terminal;
  return nullptr;
}

} // namespace

std::optional<CopyChord> CopyChordFor(const std::string& wm_instance, const std::string& wm_class,
                                      const std::function<bool()>& holds_pseudo_terminal) {
  const TerminalChord* terminal = TerminalNamed(wm_instance);
  if (!terminal)
    terminal = TerminalNamed(wm_class);
  if (terminal)
    return terminal->chord;
  if (IsEditorWithTerminalPanes(wm_instance) || IsEditorWithTerminalPanes(wm_class))
    return CopyChord::kControlC;
  // A terminal the table does not know: its copy keystroke is unknown, and
  // Ctrl+C would interrupt the program running in it.
  if (holds_pseudo_terminal && holds_pseudo_terminal())
    return std::nullopt;
  return CopyChord::kControlC;
}

std::string CopyChordText(CopyChord chord) {
  return chord == CopyChord::kControlShiftC ? "Ctrl+Shift+C" : "Ctrl+C";
}

} // namespace orvane
