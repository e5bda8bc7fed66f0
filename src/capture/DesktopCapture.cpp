#include "capture/DesktopCapture.h"

namespace orvane {

namespace {
// Placeholder until selection capture lands: nothing is captured.
class NoCapture final : public Capture {
public:
  explicit NoCapture(DesktopCaptureSeams seams) : seams_(std::move(seams)) {}
  std::optional<FrontApplication> frontApplication() override { return std::nullopt; }
  std::optional<std::string> captureSelection() override { return std::nullopt; }
  Point attentionPoint() override { return seams_.screens.mouseLocation(); }
  std::optional<std::string> focusedDocumentPath() override { return std::nullopt; }
  int pageOfQuote(const std::string&, const std::string&) override { return 0; }

private:
  DesktopCaptureSeams seams_;
};
} // namespace

std::unique_ptr<Capture> MakeDesktopCapture(DesktopCaptureSeams seams) {
  return std::make_unique<NoCapture>(std::move(seams));
}

} // namespace orvane
