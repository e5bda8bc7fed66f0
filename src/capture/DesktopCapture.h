// The capture of the running desktop, built over the desktop seams.
#pragma once

#include "capture/Capture.h"
#include "desktop/Accessibility.h"
#include "desktop/FrontWindows.h"
#include "desktop/Notifications.h"
#include "desktop/Screens.h"
#include "desktop/Selections.h"

#include <functional>
#include <memory>

namespace orvane {

struct DesktopCaptureSeams {
  FrontWindows& front_windows;
  Selections& selections;
  const Screens& screens;
  const Accessibility& accessibility;
  Notifications& notifications;
  // Whether a process is a running Orvane (this one, or the instance a
  // capture process reports to).
  std::function<bool(int pid)> is_this_program;
  // The library account folder, while the store has an account.
  std::function<std::optional<std::string>()> library_folder;
  // The hand-off folder; empty means the account's own (HandoffFolder()).
  std::string handoff_folder;
};

class DesktopCapture final : public Capture {
public:
  explicit DesktopCapture(DesktopCaptureSeams seams);

  std::optional<FrontApplication> frontApplication() override;
  std::optional<std::string> captureSelection() override;
  Point attentionPoint() override;
  std::optional<std::string> focusedDocumentPath() override;
  int pageOfQuote(const std::string& pdf_path, const std::string& quote) override;
  void holdFrontWindow() override;
  void releaseFrontWindow() override;
  void readSelectionAhead() override;

  // Whether a capture wrote the user's clipboard back, so that this process
  // owns it (a capture process must then keep it alive when it exits).
  bool restoredClipboard() const { return restored_clipboard_; }
  const std::string& handoffFolder() const { return handoff_folder_; }

private:
  // The front window, read once while held.
  std::optional<FrontWindow> frontWindow();

  DesktopCaptureSeams seams_;
  std::string handoff_folder_;
  bool restored_clipboard_ = false;
  bool holding_front_window_ = false;
  std::optional<std::optional<FrontWindow>> held_front_window_;
};

std::unique_ptr<Capture> MakeDesktopCapture(DesktopCaptureSeams seams);

} // namespace orvane
