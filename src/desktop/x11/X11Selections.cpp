#include "desktop/x11/X11Selections.h"

#include <thread>

namespace orvane {

// Placeholder until the X11 selection work lands: nothing is readable and no
// chord is sent.
X11Selections::X11Selections() = default;
X11Selections::~X11Selections() = default;
std::optional<int> X11Selections::primaryOwnerPid() {
  return std::nullopt;
}
std::optional<std::string> X11Selections::primaryText() {
  return std::nullopt;
}
uint64_t X11Selections::clipboardChangeCount() {
  return 0;
}
ClipboardContents X11Selections::saveClipboard() {
  return {};
}
std::optional<std::string> X11Selections::clipboardText() {
  return std::nullopt;
}
void X11Selections::restoreClipboard(const ClipboardContents&) {}
bool X11Selections::sendCopyChord(CopyChord) {
  return false;
}
void X11Selections::pause(std::chrono::milliseconds duration) {
  std::this_thread::sleep_for(duration);
}
void X11Selections::keepClipboardAfterExit() {}

} // namespace orvane
