#include "capture/HotkeyTable.h"

#include "base/SparLog.h"
#include "capture/SelectionCapture.h"

#include <array>
#include <vector>

namespace orvane {

void DispatchHotkey(int id, uint32_t timestamp, const HotkeyActions& actions) {
  // The ids are 1-based on purpose: id - 1 taken as unsigned is below 4 only
  // for the four rows, so 0 and anything negative fall out with the rest.
  switch (static_cast<unsigned>(id) - 1u) {
  case 0:
    if (actions.summon)
      actions.summon(timestamp);
    break;
  case 1:
    if (actions.quote)
      actions.quote(timestamp);
    break;
  case 2:
    if (actions.friendQuote)
      actions.friendQuote(timestamp);
    break;
  case 3:
    if (actions.talk)
      actions.talk(timestamp);
    break;
  default:
    break;
  }
}

void RegisterHotkeys(Hotkeys& hotkeys, std::function<void(int id, uint32_t timestamp)> handler) {
  std::vector<Hotkeys::Request> requests;
  for (const HotkeyEntry& row : kHotkeyTable) {
    int id = row.id;
    requests.push_back(
        {row.name, row.description, row.accelerator, [handler, id](uint32_t timestamp) {
           // A capture lets the main loop run while it waits for the
           // copy; a key pressed meanwhile would start a summon or
           // quote without its text.
           if (SelectionCaptureRunning()) {
             SparLog("hotkey: pressed while a capture is still running — ignored");
             return;
           }
           handler(id, timestamp);
         }});
  }
  std::vector<bool> bound = hotkeys.bindAll(requests);
  std::array<const char*, kHotkeyTable.size()> status{};
  for (size_t row = 0; row < kHotkeyTable.size(); ++row)
    status[row] = row < bound.size() && bound[row] ? "registered" : "FAILED";
  SparLog("hotkeys: ⌥B %@, ⌥C %@, ⌥Q %@, ⌥V %@", status[0], status[1], status[2], status[3]);
}

} // namespace orvane
