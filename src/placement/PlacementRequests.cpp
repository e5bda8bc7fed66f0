#include "placement/PlacementRequests.h"

#include "base/Paths.h"
#include "base/SparLog.h"
#include "base/Text.h"
#include "bridge/Payload.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cmath>

namespace orvane {

namespace {
// Paths and names come from other processes: a huge one is cut short in the
// log (which escapes what could break its line).
constexpr size_t kLoggedTextLength = 4096;

std::string Logged(const std::string& text) {
  return ShortenedText(text, kLoggedTextLength);
}

long ClampedToLong(double value) {
  if (std::isnan(value))
    return 0;
  if (value >= double(LONG_MAX))
    return LONG_MAX;
  if (value <= double(LONG_MIN))
    return LONG_MIN;
  return long(value);
}

// A string's integer value: leading blanks, an optional sign and the digits
// that follow; 0 when it does not begin with a number; clamped on overflow.
long StringIntegerValue(const std::string& text) {
  size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i])))
    ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-'))
    negative = text[i++] == '-';
  long value = 0;
  for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i) {
    int digit = text[i] - '0';
    if (!negative) {
      if (value > (LONG_MAX - digit) / 10)
        return LONG_MAX;
      value = value * 10 + digit;
    } else {
      if (value < (LONG_MIN + digit) / 10)
        return LONG_MIN;
      value = value * 10 - digit;
    }
  }
  return value;
}

// In the top-left convention, where the centre test of a placement is made.
Rect TopLeftRect(const Rect& frame, double primary_top) {
  return {frame.x, TopLeftY(frame, primary_top), frame.width, frame.height};
}
} // namespace

Rect PlacedFrame(const Rect& window_frame, const Rect& visible_frame) {
  Size size{std::min(window_frame.width, visible_frame.width),
            std::min(window_frame.height, visible_frame.height)};
  if (size.width < kPlaceMinimumWidth || size.height < kPlaceMinimumHeight)
    size = {std::min(visible_frame.width, kPlaceFallbackWidth),
            std::min(visible_frame.height, kPlaceFallbackHeight)};
  return {visible_frame.x + (visible_frame.width - size.width) * 0.5,
          visible_frame.y + (visible_frame.height - size.height) * 0.5, size.width, size.height};
}

long ScreenIndexValue(const nlohmann::json& value) {
  if (value.is_number_integer() && !value.is_number_unsigned())
    return long(value.get<int64_t>());
  if (value.is_number_unsigned())
    return value.get<uint64_t>() > uint64_t(LONG_MAX) ? LONG_MAX : long(value.get<uint64_t>());
  if (value.is_number_float())
    return ClampedToLong(value.get<double>());
  if (value.is_boolean())
    return value.get<bool>() ? 1 : 0;
  if (value.is_string())
    return StringIntegerValue(value.get<std::string>());
  return 0;
}

PlacementRequests::PlacementRequests(PlacementSeams seams)
    : seams_(std::move(seams)), operations_(seams_.windows, seams_.screens) {}

void PlacementRequests::placeRequested(const std::string& object) {
  nlohmann::json body = ParseMessageBody(object);
  if (!body.is_object()) {
    SparLog("place note: bad payload");
    return;
  }
  std::string kind = StringMember(body, "kind").value_or("file");
  std::optional<std::string> path = StringMember(body, "path");
  if (path && path->find('\0') != std::string::npos)
    path.reset(); // no file, application or class name holds a NUL
  long index = 0;
  if (auto screen = body.find("screen"); screen != body.end())
    index = ScreenIndexValue(*screen);
  std::vector<Screen> screens = seams_.screens.screens();
  if (!path || path->empty() || index < 0 || index >= long(screens.size())) {
    std::optional<std::string> shown;
    if (path)
      shown = Logged(*path);
    SparLog("place note: nothing to do (path %@, screen %ld of %lu)", shown, index,
            (unsigned long)screens.size());
    return;
  }
  Screen screen = screens[size_t(index)];
  SparLog("place: %@ %@ on screen %ld", Logged(kind), Logged(*path), index);

  if (kind == "front") {
    std::vector<int> pids = seams_.windows.pidsOfApplication(*path);
    if (pids.empty()) {
      SparLog("place: %@ is not running", Logged(*path));
      return;
    }
    int pid = pids.front();
    placeNewWindowOfPid(pid, screen, operations_.StandardWindowCount(pid), 0, windowIdsOfPid(pid));
    return;
  }

  // The process's windows there before the request, so that a new one of
  // its own is placed before an older one; and what a window of another
  // process must show to be this request's (the launched process may hand
  // its work to an instance that already runs): the file, the application,
  // or the folder a file manager shows the file in.
  Handoff handoff;
  handoff.windows_before.emplace();
  for (const auto& window : seams_.windows.normalWindows())
    handoff.windows_before->insert(window.id);
  handoff.file = kind == "reveal" ? ParentFolder(*path) : *path;
  auto completion = [this, screen, handoff](LaunchOutcome outcome) {
    if (outcome.error) {
      SparLog("place: open failed: %@", Logged(*outcome.error));
      return;
    }
    placeWindowsOfPid(outcome.pid, screen, 0, handoff);
  };
  if (kind == "reveal")
    seams_.launcher.reveal(*path, completion);
  else if (kind == "app")
    seams_.launcher.openApplication(*path, completion);
  else
    seams_.launcher.openFile(*path, completion);
}

std::set<unsigned long> PlacementRequests::windowIdsOfPid(int pid) {
  std::set<unsigned long> ids;
  for (const auto& window : seams_.windows.windowsOfPid(pid).value_or(std::vector<WindowInfo>{}))
    ids.insert(window.id);
  return ids;
}

void PlacementRequests::placeNewWindowOfPid(int pid, const Screen& screen, long baseline,
                                            int attempt, std::set<unsigned long> windows_before) {
  if (operations_.StandardWindowCount(pid) > baseline) {
    // The new window is the one to place, wherever the window manager lists
    // it among the older ones.
    placeWindowsOfPid(pid, screen, 0, Handoff{std::nullopt, std::move(windows_before)});
    return;
  }
  if (attempt < kPlaceAttempts) {
    seams_.scheduler.after(kPlaceInterval, [this, pid, screen, baseline, attempt,
                                            windows_before = std::move(windows_before)] {
      placeNewWindowOfPid(pid, screen, baseline, attempt + 1, windows_before);
    });
    return;
  }
  SparLog("place: pid %d made no new window in time", pid);
}

std::optional<WindowInfo> PlacementRequests::windowToPlace(int pid, const Handoff& handoff) {
  auto is_new = [&](const WindowInfo& window) {
    return handoff.windows_before && !handoff.windows_before->count(window.id);
  };
  // The process's own first normal window; a new one before an older one.
  std::optional<WindowInfo> first_own;
  if (pid > 0)
    for (const auto& window :
         seams_.windows.windowsOfPid(pid).value_or(std::vector<WindowInfo>{})) {
      if (!window.normal)
        continue;
      if (is_new(window))
        return window;
      if (!first_own)
        first_own = window;
    }
  if (first_own)
    return first_own;
  // Handed over: only a window that shows the file, by its document or its
  // title. Any other window that happens to appear meanwhile belongs to
  // someone else and is neither moved nor focused.
  if (handoff.file && !handoff.file->empty())
    return operations_.CopyWindowForFile(0, *handoff.file);
  return std::nullopt;
}

void PlacementRequests::placeWindowsOfPid(int pid, const Screen& screen, int attempt,
                                          const Handoff& handoff) {
  std::optional<WindowInfo> window = windowToPlace(pid, handoff);
  if (!window) {
    if (attempt <= kPlaceAttempts - 1) {
      seams_.scheduler.after(kPlaceInterval, [this, pid, screen, attempt, handoff] {
        placeWindowsOfPid(pid, screen, attempt + 1, handoff);
      });
      return;
    }
    SparLog("place: gave up waiting for a window of pid %d", pid);
    operations_.LogWindowTitles(pid, "place");
    return;
  }
  double top = operations_.primaryTop();
  const Rect& now = window->frame;
  Rect target = TopLeftRect(screen.frame, top);
  Rect current = TopLeftRect(now, top);
  Point centre{current.x + current.width * 0.5, current.y + current.height * 0.5};
  if (target.contains(centre))
    return; // already where it should be: neither moved nor raised
  Rect frame = PlacedFrame(now, screen.visibleFrame);
  bool placed = operations_.SetAXWindowFrame(window->id, frame);
  operations_.Raise(window->id);
  SparLog("place: pid %d window to %@: %@ (attempt %d)", window->pid > 0 ? window->pid : pid,
          RectText(frame), placed ? "placed" : "REFUSED", attempt);
}

void PlacementRequests::tileRequested(const std::string& object) {
  if (object.empty()) {
    SparLog("tile note: no path");
    return;
  }
  SparLog("tile note: %@", Logged(object));
  if (seams_.openAskSplitFor)
    seams_.openAskSplitFor(object);
}

} // namespace orvane
