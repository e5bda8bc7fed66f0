#include "placement/WindowOperations.h"

#include "base/Paths.h"
#include "base/SparLog.h"
#include "base/Text.h"

#include <cmath>
#include <filesystem>
#include <map>
#include <system_error>

namespace orvane {

namespace {
namespace fs = std::filesystem;

// Titles come from other programs: a line break in one must not start a
// line of its own in the log.
constexpr size_t kLoggedTitleLength = 1000;

std::string NameWithoutExtension(const std::string& path) {
  return fs::path(path).stem().string();
}

bool IsExistingAbsoluteFile(const std::string& path) {
  if (path.empty() || path[0] != '/' || path.find('\0') != std::string::npos)
    return false;
  std::error_code error;
  return fs::is_regular_file(path, error);
}

// Two paths name the same file: equal once standardized, or the same file
// on disk (one of them reached through a symbolic link).
bool SameFile(const std::string& a, const std::string& b) {
  std::string left = StandardizedPath(a), right = StandardizedPath(b);
  if (left == right)
    return true;
  std::error_code error;
  return fs::equivalent(left, right, error) && !error;
}
} // namespace

std::string StandardizedPath(const std::string& path) {
  if (path.empty())
    return path;
  fs::path p(path);
  if (p.is_relative()) {
    std::error_code error;
    fs::path absolute = fs::absolute(p, error);
    if (!error)
      p = absolute;
  }
  std::string normal = p.lexically_normal().string();
  while (normal.size() > 1 && normal.back() == '/')
    normal.pop_back();
  return normal;
}

bool TitleNamesFile(const std::string& title, const std::string& path) {
  return BeginsWith(title, NameWithoutExtension(StandardizedPath(path)));
}

std::optional<std::string> DocumentShownBy(const WindowInfo& window,
                                           const std::vector<std::string>& candidates) {
  std::vector<std::string> all = candidates;
  if (IsExistingAbsoluteFile(window.title))
    all.push_back(window.title);
  std::vector<std::string> distinct;
  for (const auto& candidate : all) {
    bool seen = false;
    for (const auto& kept : distinct)
      seen = seen || SameFile(kept, candidate);
    if (!seen)
      distinct.push_back(candidate);
  }
  if (distinct.size() == 1)
    return distinct.front();
  for (const auto& candidate : distinct)
    if (BeginsWith(window.title, FileName(candidate)) ||
        BeginsWith(window.title, NameWithoutExtension(candidate)))
      return candidate;
  return std::nullopt;
}

double TopLeftY(const Rect& frame, double primary_top) {
  return primary_top - (frame.y + frame.height);
}

WindowOperations::WindowOperations(Windows& windows, const Screens& screens)
    : windows_(windows), screens_(screens) {}

double WindowOperations::primaryTop() const {
  std::vector<Screen> list = screens_.screens();
  return list.empty() ? 0 : list.front().frame.maxY();
}

bool WindowOperations::SetAXWindowFrame(unsigned long window, const Rect& frame) {
  return windows_.setFrame(window, frame);
}

bool WindowOperations::Raise(unsigned long window) {
  return windows_.activate(window, 0);
}

long WindowOperations::StandardWindowCount(int pid) {
  std::optional<std::vector<WindowInfo>> list = windows_.windowsOfPid(pid);
  if (!list)
    return 0;
  long count = 0;
  for (const auto& window : *list)
    count += window.normal ? 1 : 0;
  return count;
}

std::optional<WindowInfo> WindowOperations::firstShowing(const std::vector<WindowInfo>& windows,
                                                         const std::string& path) {
  // What each process tells of its documents, read once per search.
  std::map<int, std::vector<std::string>> documents;
  for (const auto& window : windows) {
    auto known = documents.find(window.pid);
    if (known == documents.end())
      known = documents.emplace(window.pid, windows_.documentsOfPid(window.pid)).first;
    std::optional<std::string> document = DocumentShownBy(window, known->second);
    if (document && SameFile(*document, path))
      return window;
    if (TitleNamesFile(window.title, path))
      return window;
  }
  return std::nullopt;
}

std::optional<WindowInfo> WindowOperations::CopyWindowForFile(int pid, const std::string& path) {
  if (path.empty())
    return std::nullopt;
  if (pid > 0) {
    if (std::optional<std::vector<WindowInfo>> own = windows_.windowsOfPid(pid))
      if (std::optional<WindowInfo> found = firstShowing(*own, path))
        return found;
  }
  return firstShowing(windows_.normalWindows(), path);
}

void WindowOperations::ReassertWindowFrame(int pid, const std::string& path, bool check_size,
                                           const std::string& label, const Rect& frame) {
  std::optional<WindowInfo> window = CopyWindowForFile(pid, path);
  if (!window)
    return;
  const Rect& now = window->frame;
  double top = primaryTop();
  double now_y = TopLeftY(now, top);
  bool drifted = std::fabs(now.x - frame.x) > kDriftTolerance ||
                 std::fabs(now_y - TopLeftY(frame, top)) > kDriftTolerance;
  if (check_size)
    drifted = drifted || std::fabs(now.width - frame.width) > kDriftTolerance ||
              std::fabs(now.height - frame.height) > kDriftTolerance;
  if (!drifted)
    return;
  SetAXWindowFrame(window->id, frame);
  SparLog("%@: the window drifted to %.0f,%.0f %.0fx%.0f — put it back", label, now.x, now_y,
          now.width, now.height);
}

void WindowOperations::LogWindowTitles(int pid, const std::string& label) {
  // The window list of X11 cannot fail with an error number once there is
  // a display: a process either can be addressed (it exists, and there is a
  // window list to read) or it cannot. So the line that reports a failed
  // read with its error number has no counterpart here, and every failure
  // is "could not address".
  std::optional<std::vector<WindowInfo>> list = windows_.windowsOfPid(pid);
  if (!list) {
    SparLog("%@:   could not address pid %d", label, pid);
    return;
  }
  if (list->empty())
    return;
  SparLog("%@:   pid %d has %ld window(s)", label, pid, long(list->size()));
  std::vector<std::string> documents = windows_.documentsOfPid(pid);
  long index = 0;
  for (const auto& window : *list) {
    std::optional<std::string> title;
    if (!window.title.empty())
      title = LogSafeText(window.title, kLoggedTitleLength);
    std::optional<std::string> document = DocumentShownBy(window, documents);
    if (document)
      document = LogSafeText(*document, kLoggedTitleLength);
    SparLog("%@:   [%ld] title=%@ doc=%@", label, index++, title.value_or("(none)"),
            document.value_or("(none)"));
  }
}

} // namespace orvane
