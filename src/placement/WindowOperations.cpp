#include "placement/WindowOperations.h"

#include "base/Paths.h"
#include "base/SparLog.h"
#include "base/Text.h"

#include <cmath>
#include <filesystem>
#include <map>
#include <sys/stat.h>
#include <system_error>

namespace orvane {

namespace {
namespace fs = std::filesystem;

// Titles come from other programs: a huge one is cut short in the log
// (which escapes what could break its line).
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

std::string DocumentSet::IdentityOf(const std::string& path, size_t* stat_calls) {
  if (stat_calls)
    ++*stat_calls;
  struct stat info;
  if (!path.empty() && path.find('\0') == std::string::npos && stat(path.c_str(), &info) == 0)
    return "i" + std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino);
  return "p" + StandardizedPath(path);
}

DocumentSet::DocumentSet(const std::vector<std::string>& candidates) {
  size_t looked = 0;
  for (const auto& candidate : candidates) {
    if (++looked > kMaxDocumentsLooked)
      break;
    if (identities_.insert(IdentityOf(candidate, &stat_calls_)).second)
      documents_.push_back(candidate);
  }
}

bool DocumentSet::contains(const std::string& path) const {
  return identities_.count(IdentityOf(path, &stat_calls_)) > 0;
}

std::optional<std::string> DocumentShownBy(const WindowInfo& window, const DocumentSet& documents) {
  const std::vector<std::string>& known = documents.documents();
  // The title itself, when it is the path of a file the process does not
  // already name.
  std::optional<std::string> titled;
  if (IsExistingAbsoluteFile(window.title) && !documents.contains(window.title))
    titled = window.title;
  size_t count = known.size() + (titled ? 1 : 0);
  if (count == 1)
    return titled ? *titled : known.front();
  // How much of the title the file's name, or its name without extension,
  // covers; the longest wins ("paper-12.pdf" over "paper-1.pdf"), the
  // earlier on a tie.
  auto named = [&](const std::string& candidate) -> size_t {
    std::string name = FileName(candidate);
    if (BeginsWith(window.title, name))
      return name.size();
    std::string stem = NameWithoutExtension(candidate);
    return BeginsWith(window.title, stem) ? stem.size() : 0;
  };
  std::optional<std::string> best;
  size_t best_length = 0;
  auto consider = [&](const std::string& candidate) {
    size_t length = named(candidate);
    if (length > best_length) {
      best = candidate;
      best_length = length;
    }
  };
  for (const auto& candidate : known)
    consider(candidate);
  if (titled)
    consider(*titled);
  return best;
}

std::optional<std::string> DocumentShownBy(const WindowInfo& window,
                                           const std::vector<std::string>& candidates) {
  return DocumentShownBy(window, DocumentSet(candidates));
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
  // What each process tells of its documents, read and sorted out once per
  // search; the file asked for is looked at once.
  std::map<int, DocumentSet> documents;
  std::string target = DocumentSet::IdentityOf(path);
  for (const auto& window : windows) {
    auto known = documents.find(window.pid);
    if (known == documents.end())
      known = documents.emplace(window.pid, DocumentSet(windows_.documentsOfPid(window.pid))).first;
    // A window whose document is known shows that file and no other; the
    // title rule only decides for a window whose document is not known.
    if (std::optional<std::string> document = DocumentShownBy(window, known->second)) {
      if (DocumentSet::IdentityOf(*document) == target)
        return window;
      continue;
    }
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
  DocumentSet documents(windows_.documentsOfPid(pid));
  long index = 0;
  for (const auto& window : *list) {
    std::optional<std::string> title;
    if (!window.title.empty())
      title = ShortenedText(window.title, kLoggedTitleLength);
    std::optional<std::string> document = DocumentShownBy(window, documents);
    if (document)
      document = ShortenedText(*document, kLoggedTitleLength);
    SparLog("%@:   [%ld] title=%@ doc=%@", label, index++, title.value_or("(none)"),
            document.value_or("(none)"));
  }
}

} // namespace orvane
