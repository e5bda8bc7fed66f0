// The selections seam on a KDE Plasma Wayland session: PRIMARY and the
// CLIPBOARD through the compositor's data-control protocol (DataControl, on
// a Wayland connection and a thread of its own), the copy chord through
// KWin's fake-input (FakeInputKeys, on the calling thread with bounded
// waits). Construct and use it on the main thread; the connections open on
// first use, so a program that never captures opens none.
//
// The desktop file must list the restricted interfaces this uses:
//   X-KDE-Wayland-Interfaces=org_kde_kwin_fake_input
// (data-control is not restricted in KWin 5.27).
#pragma once

#include "desktop/Selections.h"
#include "desktop/wayland/DataControl.h"

#include <memory>

namespace orvane {

class FakeInputKeys;

struct KWinSelectionLimits {
  DataControlLimits data_control;
  // How long a round trip of the fake-input connection may take.
  std::chrono::milliseconds key_wait{1000};
};

class KWinSelections final : public Selections {
public:
  explicit KWinSelections(KWinSelectionLimits limits = {});
  ~KWinSelections() override;

  // Always nothing: data-control does not tell which client owns a
  // selection, and Wayland gives no client another's pid.
  std::optional<int> primaryOwnerPid() override;
  // PRIMARY counts as the selection of the window in front.
  bool tellsPrimaryOwner() const override { return false; }
  std::optional<std::string> primaryText() override;
  uint64_t clipboardChangeCount() override;
  ClipboardContents saveClipboard() override;
  std::optional<std::string> clipboardText() override;
  void restoreClipboard(const ClipboardContents& contents) override;
  // Wayland tells no client which keys are held. Instead of waiting, the
  // chord begins with releases of both Alt keys (the hotkeys' modifier):
  // KWin's keyboard state then has no Alt in it, so the focused window gets
  // Ctrl+C, not Ctrl+Alt+C, even while the user still holds Alt.
  bool sendCopyChord(CopyChord chord) override;
  void pause(std::chrono::milliseconds duration) override;
  // The restored CLIPBOARD lives as long as this process's connection: it
  // is served until the process exits, and then the compositor clears it
  // (Plasma's clipboard manager, Klipper, puts its last copy back when it
  // runs). Only logs what happens.
  void keepClipboardAfterExit() override;
  // Connects data-control ahead of the first capture: KWin takes most of a
  // second over each new connection of a large executable.
  void warmUp() override;

  DataControl& dataControl() { return data_control_; }

private:
  KWinSelectionLimits limits_;
  DataControl data_control_;
  std::unique_ptr<FakeInputKeys> keys_;
};

} // namespace orvane
