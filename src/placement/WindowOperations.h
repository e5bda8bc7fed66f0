// The five operations on other applications' windows that placement and
// tiling share: set a window's frame, count a process's standard windows,
// find the window that shows a file, put a drifted window back, and log a
// process's windows when one could not be found. Frames are in desktop
// coordinates; the log lines give positions in the top-left convention
// (y measured down from the primary screen's top), as the texts always have.
#pragma once

#include "desktop/Geometry.h"
#include "desktop/Screens.h"
#include "desktop/Windows.h"

#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

namespace orvane {

// A drift is a difference strictly greater than this, in x, y, width or
// height.
constexpr double kDriftTolerance = 2.0;

// The path made absolute and free of "." and ".." components.
std::string StandardizedPath(const std::string& path);

// At most this many of a process's documents are looked at in one search:
// a process that names thousands of files costs a bounded amount of work.
constexpr size_t kMaxDocumentsLooked = 8192;

// A process's documents, each file once: two names of one file on disk
// (the same device and inode: a link, a hard link, "." and "..") count as
// one, under the first name met; a name that cannot be looked at is told
// apart by its standardized path. Built in one pass, one stat per name, and
// kept for one search so that each window of the process reuses it.
class DocumentSet {
public:
  explicit DocumentSet(const std::vector<std::string>& candidates);

  const std::vector<std::string>& documents() const { return documents_; }
  // Whether the path names one of the documents (one stat).
  bool contains(const std::string& path) const;
  // How often the file system was asked, for tests of the work done.
  size_t statCalls() const { return stat_calls_; }

  // What identifies a file: its device and inode, else its standardized
  // path. `stat_calls` is counted up.
  static std::string IdentityOf(const std::string& path, size_t* stat_calls = nullptr);

private:
  std::vector<std::string> documents_;
  std::unordered_set<std::string> identities_;
  mutable size_t stat_calls_ = 0;
};

// The document a window shows, as the desktop tells it: of the PDFs its
// process names or holds open (`documents`) and the title itself when it is
// the absolute path of an existing file, the only one, else the one whose
// file name or name without extension the title begins with (the longest
// such name when several do).
std::optional<std::string> DocumentShownBy(const WindowInfo& window, const DocumentSet& documents);
std::optional<std::string> DocumentShownBy(const WindowInfo& window,
                                           const std::vector<std::string>& candidates);

// The title rule: the title begins with the file's name without extension.
bool TitleNamesFile(const std::string& title, const std::string& path);

// The top-left y of a desktop rectangle: how far its top edge lies below
// the primary screen's top.
double TopLeftY(const Rect& frame, double primary_top);

class WindowOperations {
public:
  WindowOperations(Windows& windows, const Screens& screens);

  // Places the window's outer frame (position, size, position); answers
  // whether the first position and the size were accepted.
  bool SetAXWindowFrame(unsigned long window, const Rect& frame);
  // The process's normal windows (dialogs, panels and menus do not count).
  long StandardWindowCount(int pid);
  // The window that shows the file: among the process's windows first, then
  // among every normal window (a viewer may hand the file to an instance
  // that already runs); pid 0 looks among every normal window only. Each
  // window is tried by its document, where the desktop tells one, then by
  // the title rule; the first match wins.
  std::optional<WindowInfo> CopyWindowForFile(int pid, const std::string& path);
  // Puts the window that shows the file back on the frame when it drifted
  // more than the tolerance (its position, and its size when asked), and
  // logs where it was found.
  void ReassertWindowFrame(int pid, const std::string& path, bool check_size,
                           const std::string& label, const Rect& frame);
  // Logs the process's windows, for a window that could not be found.
  void LogWindowTitles(int pid, const std::string& label);
  // Raises and focuses the window ("AXRaise"); answers whether it exists.
  bool Raise(unsigned long window);

  // The primary screen's top edge in desktop coordinates (0 without screens).
  double primaryTop() const;

private:
  std::optional<WindowInfo> firstShowing(const std::vector<WindowInfo>& windows,
                                         const std::string& path);

  Windows& windows_;
  const Screens& screens_;
};

} // namespace orvane
