// The four global hotkeys: their chords, their ids 1 to 4 and the one
// handler that maps an id to its action.
#pragma once

#include "desktop/Hotkeys.h"

#include <array>
#include <cstdint>
#include <functional>
#include <string>

namespace orvane {

struct HotkeyActions {
  std::function<void(uint32_t timestamp)> summon;      // ⌥B
  std::function<void(uint32_t timestamp)> quote;       // ⌥C
  std::function<void(uint32_t timestamp)> friendQuote; // ⌥Q
  std::function<void(uint32_t timestamp)> talk;        // ⌥V
};

struct HotkeyEntry {
  int id;
  const char* accelerator;
  const char* label;
  const char* name;        // the shortcut's id in the desktop's shortcut list
  const char* description; // what the desktop's shortcut settings show
};

// In registration order; the id of row N is N + 1.
inline constexpr std::array<HotkeyEntry, 4> kHotkeyTable{{
    {1, "<Alt>b", "⌥B", "summon", "Quick Panel: add the selected text"},
    {2, "<Alt>c", "⌥C", "quote", "Quote the selected text in the sparring chat"},
    {3, "<Alt>q", "⌥Q", "friend-quote", "Send the selected text as a quote from the PDF in front"},
    {4, "<Alt>v", "⌥V", "talk", "Talk to the Library"},
}};

// Runs the action of hotkey `id`; ids outside 1..4 are ignored.
void DispatchHotkey(int id, uint32_t timestamp, const HotkeyActions& actions);

// Grabs the four chords in table order, every one reporting its id to
// `handler`, and writes the launch's "hotkeys: ..." line. A chord that
// cannot be grabbed is logged as FAILED; the others still work.
void RegisterHotkeys(Hotkeys& hotkeys, std::function<void(int id, uint32_t timestamp)> handler);

} // namespace orvane
