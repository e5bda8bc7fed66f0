// Two side-by-side layouts of a paper and a conversation. The viewer split
// opens a PDF in the PDF viewer on the left half of the screen and puts the
// sparring window on the right half. The ask split opens a PDF in the
// viewer, or takes the PDF window already in front, puts it on the left
// half of the screen the user looks at and leaves the right half to the
// sibling desktop application. Both hold the paper's window in place for a
// while, because viewers tend to move their window back after opening.
#pragma once

#include "desktop/Geometry.h"
#include "desktop/Launcher.h"
#include "desktop/Scheduler.h"
#include "desktop/Screens.h"
#include "desktop/Windows.h"
#include "placement/WindowOperations.h"

#include <functional>
#include <optional>
#include <string>

namespace orvane {

// Waiting for the viewer's window: a try now and then every 0.1 s; the wait
// gives up when a try with an attempt number above 99 finds nothing
// (attempts 0 to 100).
constexpr double kSplitWaitInterval = 0.1;
constexpr int kSplitWaitLastAttempt = 100;
// Holding the paper's window: a check every 0.3 s, 4 of them, or 16 when
// the paper left full screen (leaving it animates).
constexpr double kSplitHoldInterval = 0.3;
constexpr int kSplitHoldChecks = 4;
constexpr int kSplitHoldChecksAfterFullScreen = 16;
// How long the viewer split waits for the window manager to apply the
// chat's frame before it logs the frame the chat has.
constexpr double kChatFrameWait = 0.3;

// The halves of a visible frame: the paper on the left, the chat or the
// free area on the right.
Rect LeftHalf(const Rect& visible_frame);
Rect RightHalf(const Rect& visible_frame);

// The sparring window as the viewer split moves it.
class SplitChat {
public:
  virtual ~SplitChat() = default;
  virtual bool isFullScreen() const = 0;
  virtual void leaveFullScreen() = 0;
  // The screen the window is on; nothing when there is no window.
  virtual std::optional<Screen> screen() const = 0;
  // Shows the window, brings it to the front and gives it the focus.
  virtual void makeKeyAndOrderFront() = 0;
  // Places the outer frame.
  virtual void setFrame(const Rect& frame) = 0;
  // Brings the window to the front without taking the focus.
  virtual void orderFrontRegardless() = 0;
  // The outer frame; zero when there is no window.
  virtual Rect frame() const = 0;
  // Calls `applied` once the window manager has given the window that frame
  // (at once when it has it already). It may never be called: the caller
  // bounds the wait itself.
  virtual void whenFrameApplied(const Rect& frame, std::function<void()> applied) = 0;
};

struct PaperSplitSeams {
  Windows& windows;
  const Screens& screens;
  Launcher& launcher;
  Scheduler& scheduler;
  SplitChat& chat;
  // Where the user looks, taken before the viewer comes to the front.
  std::function<Point()> attention_point;
  // Tells the desktop application about the paper (with an empty quote); it
  // tiles the paper through tilePaperForAsk on the way.
  std::function<void(const std::string& pdf_path, int pid, Point point)> ask_desktop;
};

class PaperSplits {
public:
  explicit PaperSplits(PaperSplitSeams seams);

  // The viewer split: the "previewSplit" page action ends here.
  void openPreviewSplitFor(const std::string& path);
  void tileWithPreview(int pid, const std::string& path, int attempt);
  void holdPreviewWindow(int pid, const std::string& path, const Rect& target, int tries);

  // The ask split: the tile request ends here.
  void openAskSplitFor(const std::string& path);
  void askDesktopForFile(const std::string& path, int pid, Point point, int attempt);
  // Puts the paper's window on the left half of the screen's visible frame;
  // answers whether it did (or the paper had been in full screen), with the
  // right half in `free`.
  bool tilePaperForAsk(const std::string& path, int pid, const std::optional<Screen>& screen,
                       Rect& free);
  void holdAskWindow(int pid, const std::string& path, const Rect& target, int tries);

private:
  // Opens the file in the PDF viewer; `opened` gets the launched process.
  // No viewer or a failed open ends in its line under the label.
  void openInViewer(const std::string& label, const std::string& path,
                    std::function<void(int pid)> opened);
  // The viewer's window showing the file, tried now and again until the
  // last attempt; `found` gets it with the process that owns it.
  void waitForViewer(const std::string& label, int pid, const std::string& path, int attempt,
                     std::function<void(int owner, const WindowInfo& window, int attempt)> found);
  std::optional<Screen> primaryScreen() const;
  // Logs the viewer split's outcome with the frame the chat got.
  void logChatFrame(bool placed, bool raised, const Rect& asked, int attempt);

  PaperSplitSeams seams_;
  WindowOperations operations_;
};

} // namespace orvane
