// Placement requests from other processes over the session bus: open a
// file, an application or a file-manager selection, or take a running
// application's next window, and put the resulting window on a given
// screen; and tile a paper beside the sibling application.
#pragma once

#include "desktop/Launcher.h"
#include "desktop/Scheduler.h"
#include "desktop/Screens.h"
#include "desktop/Windows.h"
#include "placement/WindowOperations.h"

#include <nlohmann/json.hpp>

#include <functional>
#include <optional>
#include <set>
#include <string>

namespace orvane {

// The placement schedule: one check now and up to kPlaceAttempts more,
// kPlaceInterval apart.
constexpr int kPlaceAttempts = 40;
constexpr double kPlaceInterval = 0.1;
// A window smaller than this is given the fallback size.
constexpr double kPlaceMinimumWidth = 200, kPlaceMinimumHeight = 120;
constexpr double kPlaceFallbackWidth = 1100, kPlaceFallbackHeight = 760;

// Where a placed window goes on the screen's visible frame: its size, at
// most the visible frame, or the fallback size when that is too small,
// centred without rounding.
Rect PlacedFrame(const Rect& window_frame, const Rect& visible_frame);

// The screen index of a request: any value with an integer value (a number,
// truncated; a string that begins with one; true and false); 0 otherwise.
// Numbers beyond the range of long are clamped to it.
long ScreenIndexValue(const nlohmann::json& value);

struct PlacementSeams {
  Windows& windows;
  const Screens& screens;
  Launcher& launcher;
  Scheduler& scheduler;
  // The ask split of a PDF beside the sibling application.
  std::function<void(const std::string& path)> openAskSplitFor;
};

class PlacementRequests {
public:
  explicit PlacementRequests(PlacementSeams seams);

  // "com.tarnwick.orvane.place": a JSON object {"kind", "path", "screen"}.
  void placeRequested(const std::string& object);
  // "com.tarnwick.orvane.tile": the path of a PDF.
  void tileRequested(const std::string& object);

  // What a chain knows besides the pid, for a process that hands its work to
  // an instance that already runs: the file it opened, and the windows that
  // were there before the request.
  struct Handoff {
    std::optional<std::string> file;
    std::optional<std::set<unsigned long>> windows_before;
  };
  // Waits until the process has more normal windows than the baseline, then
  // places them.
  // windows_before: the process's windows at the baseline, so that the new
  // one is the one placed.
  void placeNewWindowOfPid(int pid, const Screen& screen, long baseline, int attempt,
                           std::set<unsigned long> windows_before = {});
  // Puts the process's first normal window on the screen unless its centre
  // already lies there; waits for one to appear.
  void placeWindowsOfPid(int pid, const Screen& screen, int attempt, const Handoff& handoff = {});

  WindowOperations& operations() { return operations_; }

private:
  std::optional<WindowInfo> windowToPlace(int pid, const Handoff& handoff);
  std::set<unsigned long> windowIdsOfPid(int pid);

  PlacementSeams seams_;
  WindowOperations operations_;
};

} // namespace orvane
