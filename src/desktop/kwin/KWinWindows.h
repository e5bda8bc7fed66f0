// The front window and other applications' windows on KDE Plasma (Wayland),
// through KWin's scripting (KWinScripting). A window's id is Orvane's own
// number for KWin's internalId, the same for the life of the process (KWin
// gives native Wayland windows no X window id). Frames are outer frames in
// desktop coordinates. Main thread only.
#pragma once

#include "desktop/FrontWindows.h"
#include "desktop/Windows.h"
#include "desktop/kwin/KWinScripting.h"

namespace orvane {

// A described window as the seams report it.
WindowInfo WindowInfoFromKWin(const KWinWindow& window, unsigned long id,
                              const std::optional<Rect>& primary);

// The windows of a list answer: nothing (and the reason) when the answer is
// not a list of at most 10000 or names no screens. A window described
// wrongly is left out and counted in `left_out` (`why` says the last
// reason); the others are kept, so one hostile window hides no other.
std::optional<std::vector<KWinWindow>> ParseKWinWindowList(const ScriptAnswer& answer,
                                                           size_t& left_out, std::string& why);

class KWinFrontWindows final : public FrontWindows {
public:
  // `scripting` must outlive this object.
  explicit KWinFrontWindows(KWinScripting& scripting) : scripting_(scripting) {}
  std::optional<FrontWindow> frontWindow() const override;

private:
  KWinScripting& scripting_;
};

class KWinWindows final : public Windows {
public:
  // `scripting` must outlive this object.
  explicit KWinWindows(KWinScripting& scripting) : scripting_(scripting) {}

  std::optional<std::vector<WindowInfo>> windowsOfPid(int pid) override;
  std::vector<WindowInfo> normalWindows() override;
  std::optional<WindowInfo> window(unsigned long id) override;
  // One write of the whole frame (KWin places and sizes together); a
  // maximized window is released first. Answers whether the window exists
  // and KWin lets it be moved and resized.
  bool setFrame(unsigned long id, const Rect& frame) override;
  // Un-minimizes the window and makes it KWin's active window; KWin takes
  // no timestamp.
  bool activate(unsigned long id, uint32_t timestamp = 0) override;
  bool leaveFullScreen(unsigned long id) override;
  std::vector<int> pidsOfApplication(const std::string& name) override;
  std::vector<std::string> documentsOfPid(int pid) override;

private:
  std::optional<std::vector<KWinWindow>> describedWindows(std::optional<Rect>& primary);
  std::optional<std::vector<WindowInfo>> allWindows();
  // Runs a body against the window `id`; the answer's result, or nothing
  // when the window is unknown or KWin did not answer.
  std::optional<ScriptAnswer> onWindow(unsigned long id, const std::string& body);

  KWinScripting& scripting_;
};

} // namespace orvane
