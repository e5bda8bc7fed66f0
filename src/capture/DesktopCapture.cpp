#include "capture/DesktopCapture.h"

#include "base/Text.h"
#include "capture/FocusedDocument.h"
#include "capture/HandoffFolder.h"
#include "capture/PageOfQuote.h"
#include "capture/SelectionCapture.h"

namespace orvane {

DesktopCapture::DesktopCapture(DesktopCaptureSeams seams)
    : seams_(std::move(seams)),
      handoff_folder_(seams_.handoff_folder.empty() ? HandoffFolder() : seams_.handoff_folder) {}

std::optional<FrontWindow> DesktopCapture::frontWindow() {
  if (!holding_front_window_)
    return seams_.front_windows.frontWindow();
  if (!held_front_window_)
    held_front_window_ = seams_.front_windows.frontWindow();
  return *held_front_window_;
}

void DesktopCapture::holdFrontWindow() {
  holding_front_window_ = true;
}

void DesktopCapture::releaseFrontWindow() {
  holding_front_window_ = false;
  held_front_window_.reset();
  seams_.selections.dropPrimaryAhead();
}

void DesktopCapture::readSelectionAhead() {
  // Nothing is read from other applications without the permission.
  if (holding_front_window_ && seams_.accessibility.isTrusted())
    seams_.selections.readPrimaryAhead();
}

std::optional<FrontApplication> DesktopCapture::frontApplication() {
  std::optional<FrontWindow> front = frontWindow();
  if (!front)
    return std::nullopt;
  FrontApplication application;
  application.pid = front->pid;
  // A window names its own class: kept to one safe line of text.
  application.identifier = front->wm_class.empty() ? "?" : ShortenedText(front->wm_class, 80);
  application.is_this_program =
      front->pid > 0 && seams_.is_this_program && seams_.is_this_program(front->pid);
  return application;
}

std::optional<std::string> DesktopCapture::captureSelection() {
  CapturedSelection captured = CaptureSelection(
      frontWindow(), {seams_.selections, seams_.accessibility, seams_.notifications},
      handoff_folder_);
  restored_clipboard_ = restored_clipboard_ || captured.restored_clipboard;
  return captured.text;
}

Point DesktopCapture::attentionPoint() {
  return AttentionPoint(frontWindow(), seams_.screens);
}

std::optional<std::string> DesktopCapture::focusedDocumentPath() {
  std::optional<FrontWindow> front = frontWindow();
  if (!front)
    return std::nullopt;
  DocumentSources sources;
  sources.recently_used_xbel = RecentlyUsedXbelPath();
  if (seams_.library_folder)
    sources.library_folder = seams_.library_folder();
  return FocusedDocumentPath(front->pid, front->title, sources);
}

int DesktopCapture::pageOfQuote(const std::string& pdf_path, const std::string& quote) {
  return PageOfQuote(pdf_path, quote);
}

std::unique_ptr<Capture> MakeDesktopCapture(DesktopCaptureSeams seams) {
  return std::make_unique<DesktopCapture>(std::move(seams));
}

} // namespace orvane
