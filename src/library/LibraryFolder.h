// The folder that holds the library's PDFs, one subfolder per account. It
// is remembered as a bookmark (path, device and inode), not as a bare path,
// so that when the user moves or renames the folder Orvane follows it.
#pragma once

#include <optional>
#include <string>

namespace orvane {

inline constexpr char kLibraryBookmarkKey[] = "LibraryFolderBookmark";

// A persistent reference to a folder that survives a move.
struct FolderBookmark {
  std::string path;
  unsigned long long device = 0;
  unsigned long long inode = 0;
  // When the folder was made, where the file system records it (0 when it
  // does not). A deleted folder's inode number is soon given to a new file;
  // the birth time tells the newcomer apart.
  long long birth_seconds = 0;
  unsigned birth_nanoseconds = 0;

  // nullopt when the folder cannot be read.
  static std::optional<FolderBookmark> For(const std::string& path);
  std::string serialise() const;
  static std::optional<FolderBookmark> Parse(const std::string& text);
};

enum class BookmarkResolution { Resolved, ResolvedStale, Unresolvable };

struct ResolvedBookmark {
  BookmarkResolution outcome = BookmarkResolution::Unresolvable;
  std::string path; // the folder's current path when resolved
};

// Same path and inode: resolved. Else the inode found again near where it
// was (its old parent, that folder's parent, the home folder a few levels
// down): resolved but stale. Else unresolvable.
ResolvedBookmark ResolveBookmark(const FolderBookmark& bookmark, const std::string& home);

// The default library folder: "Orvane" in the user's documents folder.
std::string DefaultLibraryFolder();

// The library folder, resolved afresh at every use (no caching): the stored
// bookmark, re-saved when stale; else the default folder, created, and
// remembered by a bookmark of its own.
std::string LibraryFolder();

// Remembers a folder the user chose; false when it cannot be bookmarked.
bool StoreLibraryFolderBookmark(const std::string& path);

} // namespace orvane
