#include "placement/PaperSplits.h"

#include "base/Paths.h"
#include "base/SparLog.h"

#include <memory>
#include <utility>

namespace orvane {

Rect LeftHalf(const Rect& vf) {
  return {vf.x, vf.y, vf.width * 0.5, vf.height};
}

Rect RightHalf(const Rect& vf) {
  return {vf.x + vf.width * 0.5, vf.y, vf.width * 0.5, vf.height};
}

PaperSplits::PaperSplits(PaperSplitSeams seams)
    : seams_(std::move(seams)), operations_(seams_.windows, seams_.screens) {}

std::optional<Screen> PaperSplits::primaryScreen() const {
  std::vector<Screen> all = seams_.screens.screens();
  if (all.empty())
    return std::nullopt;
  return all.front();
}

void PaperSplits::waitForViewer(
    const std::string& label, int pid, const std::string& path, int attempt,
    std::function<void(int owner, const WindowInfo& window, int attempt)> found) {
  if (attempt == 0)
    SparLog("%@: looking for pid %d showing %@", label, pid, path);
  std::optional<WindowInfo> window = operations_.CopyWindowForFile(pid, path);
  if (window) {
    // A viewer that handed the file to an instance already running does not
    // own the window itself: the window's own process is the one to follow.
    found(window->pid > 0 ? window->pid : pid, *window, attempt);
    return;
  }
  if (attempt >= kSplitWaitLastAttempt) {
    SparLog("%@: gave up waiting for Preview's window for %@", label, FileName(path));
    operations_.LogWindowTitles(pid, label);
    return;
  }
  seams_.scheduler.after(kSplitWaitInterval, [this, label, pid, path, attempt, found] {
    waitForViewer(label, pid, path, attempt + 1, found);
  });
}

void PaperSplits::openInViewer(const std::string& label, const std::string& path,
                               std::function<void(int pid)> opened) {
  seams_.launcher.openWithViewer(path, [label, opened](LaunchOutcome outcome) {
    if (outcome.no_application) {
      SparLog("%@: Preview not installed?", label);
      return;
    }
    if (outcome.error) {
      SparLog("%@: open failed: %@", label, *outcome.error);
      return;
    }
    opened(outcome.pid);
  });
}

// The viewer split

void PaperSplits::openPreviewSplitFor(const std::string& path) {
  openInViewer("split", path, [this, path](int pid) { tileWithPreview(pid, path, 0); });
}

void PaperSplits::tileWithPreview(int pid, const std::string& path, int attempt) {
  waitForViewer("split", pid, path, attempt,
                [this, path](int owner, const WindowInfo& w, int attempt) {
                  // A full-screen chat would cover the viewer; it leaves full screen
                  // before it gets its half.
                  if (seams_.chat.isFullScreen())
                    seams_.chat.leaveFullScreen();
                  std::optional<Screen> screen = seams_.chat.screen();
                  if (!screen)
                    screen = primaryScreen();
                  Rect vf = screen ? screen->visibleFrame : Rect{};
                  Rect paper = LeftHalf(vf);
                  Rect chat = RightHalf(vf);
                  bool placed = operations_.SetAXWindowFrame(w.id, paper);
                  bool raised = operations_.Raise(w.id);
                  holdPreviewWindow(owner, path, paper, kSplitHoldChecks);
                  seams_.chat.makeKeyAndOrderFront();
                  seams_.chat.setFrame(chat);
                  seams_.chat.orderFrontRegardless();
                  logChatFrame(placed, raised, chat, attempt);
                });
}

void PaperSplits::logChatFrame(bool placed, bool raised, const Rect& asked, int attempt) {
  // A frame set on X11 is a request to the window manager: what the chat
  // got is read once the window manager applied it, or after a short wait
  // when it does not, never before. Whichever comes first logs; the main
  // loop runs on meanwhile.
  auto logged = std::make_shared<bool>(false);
  auto report = [this, logged, placed, raised, asked, attempt] {
    if (std::exchange(*logged, true))
      return;
    SparLog("split: preview=%@ raise=%@, chat asked %@ got %@ (attempt %d)",
            placed ? "placed" : "REFUSED", raised ? "ok" : "failed", RectText(asked),
            RectText(seams_.chat.frame()), attempt);
  };
  seams_.chat.whenFrameApplied(asked, report);
  if (!*logged)
    seams_.scheduler.after(kChatFrameWait, report);
}

void PaperSplits::holdPreviewWindow(int pid, const std::string& path, const Rect& target,
                                    int tries) {
  if (tries < 1)
    return;
  seams_.scheduler.after(kSplitHoldInterval, [this, pid, path, target, tries] {
    operations_.ReassertWindowFrame(pid, path, false, "split", target);
    seams_.chat.orderFrontRegardless();
    holdPreviewWindow(pid, path, target, tries - 1);
  });
}

// The ask split

void PaperSplits::openAskSplitFor(const std::string& path) {
  // Taken now, before the viewer comes to the front and becomes what the
  // user looks at.
  Point point = seams_.attention_point();
  openInViewer("ask split", path,
               [this, path, point](int pid) { askDesktopForFile(path, pid, point, 0); });
}

void PaperSplits::askDesktopForFile(const std::string& path, int pid, Point point, int attempt) {
  waitForViewer("ask split", pid, path, attempt,
                [this, path, point](int owner, const WindowInfo&, int) {
                  seams_.ask_desktop(path, owner, point);
                });
}

bool PaperSplits::tilePaperForAsk(const std::string& path, int pid,
                                  const std::optional<Screen>& screen, Rect& free) {
  if (pid < 1 || !screen) {
    SparLog("ask: no front app or no screen to split, leaving the screen alone");
    return false;
  }
  std::optional<WindowInfo> window = operations_.CopyWindowForFile(pid, path);
  if (!window) {
    SparLog("ask: pid %d has no window showing %@, leaving the screen alone", pid, FileName(path));
    operations_.LogWindowTitles(pid, "ask");
    return false;
  }
  bool was_full_screen = window->full_screen;
  if (was_full_screen) {
    bool left = seams_.windows.leaveFullScreen(window->id);
    SparLog("%@: the paper was full screen, asked it to leave: %@", "ask", left ? "ok" : "REFUSED");
  }
  Rect paper = LeftHalf(screen->visibleFrame);
  Rect right = RightHalf(screen->visibleFrame);
  bool placed = operations_.SetAXWindowFrame(window->id, paper);
  bool raised = operations_.Raise(window->id);
  holdAskWindow(window->pid > 0 ? window->pid : pid, path, paper,
                was_full_screen ? kSplitHoldChecksAfterFullScreen : kSplitHoldChecks);
  SparLog("ask: paper=%@ raise=%@ fullscreen=%@, free half %@", placed ? "placed" : "REFUSED",
          raised ? "ok" : "failed", was_full_screen ? "left" : "no", RectText(right));
  free = right;
  return placed || was_full_screen;
}

void PaperSplits::holdAskWindow(int pid, const std::string& path, const Rect& target, int tries) {
  if (tries < 1)
    return;
  seams_.scheduler.after(kSplitHoldInterval, [this, pid, path, target, tries] {
    operations_.ReassertWindowFrame(pid, path, true, "ask", target);
    holdAskWindow(pid, path, target, tries - 1);
  });
}

} // namespace orvane
