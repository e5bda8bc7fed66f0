#include "desktop/wayland/WaylandWithoutMeans.h"

#include "desktop/ProcessDocuments.h"
#include "desktop/session/GdkScreens.h"
#include "desktop/wayland/GtkOwnWindows.h"
#include "desktop/wayland/LayerShellPanels.h"

#include <thread>

namespace orvane {

namespace {

class UntrustedAccessibility final : public Accessibility {
public:
  explicit UntrustedAccessibility(std::string desktop_name)
      : desktop_name_(std::move(desktop_name)) {}
  bool isTrusted() const override { return false; }
  std::string reasonNotTrusted() const override {
    return "On " + desktop_name_ +
           "'s Wayland session Orvane has no way to bind global hotkeys, read the text you "
           "select in other applications, or move their windows. Bind the command "
           "\"orvane --capture-selection\" to a keyboard shortcut in your desktop's settings "
           "(see the README), or log in to an X11 session.";
  }

private:
  std::string desktop_name_;
};

class NoHotkeys final : public Hotkeys {
public:
  bool bind(const std::string&, Handler) override { return false; }
};

class NoFrontWindows final : public FrontWindows {
public:
  std::optional<FrontWindow> frontWindow() const override { return std::nullopt; }
};

class NoSelections final : public Selections {
public:
  std::optional<int> primaryOwnerPid() override { return std::nullopt; }
  std::optional<std::string> primaryText() override { return std::nullopt; }
  uint64_t clipboardChangeCount() override { return 0; }
  ClipboardContents saveClipboard() override { return {}; }
  std::optional<std::string> clipboardText() override { return std::nullopt; }
  void restoreClipboard(const ClipboardContents&) override {}
  bool sendCopyChord(CopyChord) override { return false; }
  void pause(std::chrono::milliseconds duration) override { std::this_thread::sleep_for(duration); }
  void keepClipboardAfterExit() override {}
};

// No window list: no process can be addressed. What a process holds open
// is still read from /proc.
class NoWindows final : public Windows {
public:
  std::optional<std::vector<WindowInfo>> windowsOfPid(int) override { return std::nullopt; }
  std::vector<WindowInfo> normalWindows() override { return {}; }
  std::optional<WindowInfo> window(unsigned long) override { return std::nullopt; }
  bool setFrame(unsigned long, const Rect&) override { return false; }
  bool activate(unsigned long, uint32_t) override { return false; }
  bool leaveFullScreen(unsigned long) override { return false; }
  std::vector<int> pidsOfApplication(const std::string&) override { return {}; }
  std::vector<std::string> documentsOfPid(int pid) override { return PdfFilesOfProcess(pid); }
};

} // namespace

WaylandWithoutMeans::WaylandWithoutMeans(std::string desktop_name)
    : desktop_name_(std::move(desktop_name)) {}

std::string WaylandWithoutMeans::description() const {
  return desktop_name_ + " (Wayland) — no backend";
}

std::unique_ptr<Screens> WaylandWithoutMeans::makeScreens() {
  return std::make_unique<GdkScreens>();
}

std::unique_ptr<Accessibility> WaylandWithoutMeans::makeAccessibility() {
  return std::make_unique<UntrustedAccessibility>(desktop_name_);
}

std::unique_ptr<Hotkeys> WaylandWithoutMeans::makeHotkeys() {
  return std::make_unique<NoHotkeys>();
}

std::unique_ptr<FrontWindows> WaylandWithoutMeans::makeFrontWindows() {
  return std::make_unique<NoFrontWindows>();
}

std::unique_ptr<Selections> WaylandWithoutMeans::makeSelections() {
  return std::make_unique<NoSelections>();
}

std::unique_ptr<Windows> WaylandWithoutMeans::makeWindows() {
  return std::make_unique<NoWindows>();
}

std::unique_ptr<OwnWindows> WaylandWithoutMeans::makeOwnWindows() {
  // The panel is a layer-shell surface where the compositor offers one.
  return std::make_unique<LayerShellPanels>(std::make_unique<GtkOwnWindows>());
}

} // namespace orvane
