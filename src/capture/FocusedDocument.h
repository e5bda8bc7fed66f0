// The document the focused window shows. X11 has no document attribute, so
// it is read from what the desktop does tell: the window's process and its
// title.
#pragma once

#include <optional>
#include <string>

namespace orvane {

// Where the facts about processes and recent files are read.
struct DocumentSources {
  std::string proc_root = "/proc";
  // The desktop's list of recently used files.
  std::string recently_used_xbel;
  // The library account folder, when there is one.
  std::optional<std::string> library_folder;
};

// $XDG_DATA_HOME/recently-used.xbel (default ~/.local/share).
std::string RecentlyUsedXbelPath();

// The candidates are the existing PDF files (".pdf" in any case) that the
// process names on its command line (paths or file:// addresses) or holds
// open, and the title itself when it is the absolute path of an existing
// file. One candidate is the answer; of several, the one whose file name or
// name without extension the title begins with. With none from the process,
// the PDFs of the library folder and of the recently used files are matched
// against the title the same way. Otherwise nothing.
std::optional<std::string> FocusedDocumentPath(int pid, const std::string& title,
                                               const DocumentSources& sources);

} // namespace orvane
