// PRIMARY and CLIPBOARD on the X server, XTest for the copy chord.
#pragma once

#include "desktop/Selections.h"

namespace orvane {

class X11Selections final : public Selections {
public:
  X11Selections();
  ~X11Selections() override;

  std::optional<int> primaryOwnerPid() override;
  std::optional<std::string> primaryText() override;
  uint64_t clipboardChangeCount() override;
  ClipboardContents saveClipboard() override;
  std::optional<std::string> clipboardText() override;
  void restoreClipboard(const ClipboardContents& contents) override;
  bool sendCopyChord(CopyChord chord) override;
  void pause(std::chrono::milliseconds duration) override;
  void keepClipboardAfterExit() override;
};

} // namespace orvane
