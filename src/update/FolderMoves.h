// Moving whole folders during an update: the new app is staged beside the
// install folder before the old one is touched, so that the swap itself is
// two renames on one file system.
#pragma once

#include <optional>
#include <set>
#include <string>

namespace orvane {

// The names in a folder, sorted; none when it cannot be read.
std::set<std::string> NamesIn(const std::string& folder);

// Removes a file or a folder with everything in it, never following links.
void RemoveTree(const std::string& path);

// Copies a folder to `to` (which must not exist): folders, regular files
// with their permission bits, and links as links. The copy keeps only the
// bits of kInstalledModeBits: it is never writable by the group or others
// and has no set-id bit, whatever the source had. Anything else (a device,
// a socket) is refused. Empty or why not; a partial copy is removed.
std::string CopyFolder(const std::string& from, const std::string& to);

struct MovedAside {
  std::optional<std::string> location; // where the old folder is now, when known
  std::string error;                   // empty when it was moved
};
// Moves a folder to the trash, learning where it landed by what appeared
// there; where the trash cannot take it, renames it beside itself.
MovedAside MoveAside(const std::string& folder);
// Deletes for good what MoveAside moved, with the trash's record of it.
void RemoveMovedAside(const std::string& location);

// Renames a folder on the same file system; empty or the error's text.
std::string RenameFolder(const std::string& from, const std::string& to);

// Where the new app waits to be renamed into `install_folder`'s place: the
// candidate itself when it lies on the same file system as the install
// folder's parent, else a copy beside the install folder.
struct Staged {
  std::string folder;  // empty when staging failed
  std::string error;   // why it failed
  bool copied = false; // the folder is a copy that is ours to remove
};
Staged StageBeside(const std::string& candidate, const std::string& install_folder,
                   const std::string& copy_name);

} // namespace orvane
