#include "library/LibraryFolder.h"

#include "base/GObjectPtr.h"
#include "base/Paths.h"
#include "base/Settings.h"
#include "base/SparLog.h"

#include <deque>
#include <dirent.h>
#include <fcntl.h>
#include <glib/gstdio.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace orvane {

namespace {

// How far the search for a moved folder reaches, and how much it may read.
constexpr int kParentDepth = 2;
constexpr int kGrandparentDepth = 3;
constexpr int kHomeDepth = 4;
constexpr size_t kMaxFoldersVisited = 20000;

// What tells one folder from another: where it lives, its inode, and when
// it was made (where the file system records that).
struct FolderIdentity {
  unsigned long long device = 0;
  unsigned long long inode = 0;
  long long birth_seconds = 0;
  unsigned birth_nanoseconds = 0;
};

// The identity of the folder at path; nullopt when it is no folder. Links
// are followed only when asked.
std::optional<FolderIdentity> IdentifyFolder(const std::string& path, bool follow_link) {
  struct statx info;
  if (statx(AT_FDCWD, path.c_str(), follow_link ? 0 : AT_SYMLINK_NOFOLLOW,
            STATX_TYPE | STATX_INO | STATX_BTIME, &info) != 0 ||
      !S_ISDIR(info.stx_mode))
    return std::nullopt;
  FolderIdentity identity;
  identity.device = makedev(info.stx_dev_major, info.stx_dev_minor);
  identity.inode = info.stx_ino;
  if (info.stx_mask & STATX_BTIME) {
    identity.birth_seconds = info.stx_btime.tv_sec;
    identity.birth_nanoseconds = info.stx_btime.tv_nsec;
  }
  return identity;
}

bool SameFolder(const FolderIdentity& found, const FolderBookmark& bookmark) {
  if (found.device != bookmark.device || found.inode != bookmark.inode)
    return false;
  // A bookmark from before births were recorded, or a file system that
  // keeps none, has only the inode to go by.
  bool births_known = found.birth_seconds != 0 && bookmark.birth_seconds != 0;
  return !births_known || (found.birth_seconds == bookmark.birth_seconds &&
                           found.birth_nanoseconds == bookmark.birth_nanoseconds);
}

std::string Parent(const std::string& path) {
  GCharPtr parent(g_path_get_dirname(path.c_str()));
  return parent.str();
}

// Breadth-first search below root for the bookmarked folder, not following
// symbolic links, reading at most `budget` folders.
std::optional<std::string> FindFolder(const std::string& root, int depth,
                                      const FolderBookmark& bookmark, size_t& budget) {
  std::deque<std::pair<std::string, int>> queue{{root, 0}};
  while (!queue.empty() && budget > 0) {
    auto [folder, level] = queue.front();
    queue.pop_front();
    --budget;
    DIR* dir = opendir(folder.c_str());
    if (!dir)
      continue;
    while (struct dirent* entry = readdir(dir)) {
      std::string name = entry->d_name;
      if (name == "." || name == "..")
        continue;
      std::string child = JoinPath(folder, name);
      std::optional<FolderIdentity> found = IdentifyFolder(child, false);
      if (!found)
        continue;
      if (SameFolder(*found, bookmark)) {
        closedir(dir);
        return child;
      }
      if (level + 1 < depth)
        queue.emplace_back(child, level + 1);
    }
    closedir(dir);
  }
  return std::nullopt;
}

} // namespace

std::optional<FolderBookmark> FolderBookmark::For(const std::string& path) {
  std::optional<FolderIdentity> identity = IdentifyFolder(path, true);
  if (!identity)
    return std::nullopt;
  return FolderBookmark{path, identity->device, identity->inode, identity->birth_seconds,
                        identity->birth_nanoseconds};
}

std::string FolderBookmark::serialise() const {
  nlohmann::json json = {{"path", path}, {"device", device}, {"inode", inode}};
  if (birth_seconds != 0) {
    json["birth"] = birth_seconds;
    json["birth_ns"] = birth_nanoseconds;
  }
  return json.dump();
}

std::optional<FolderBookmark> FolderBookmark::Parse(const std::string& text) {
  nlohmann::json json = nlohmann::json::parse(text, nullptr, false);
  if (!json.is_object() || !json["path"].is_string() || !json["device"].is_number_unsigned() ||
      !json["inode"].is_number_unsigned())
    return std::nullopt;
  FolderBookmark bookmark{json["path"].get<std::string>(), json["device"].get<unsigned long long>(),
                          json["inode"].get<unsigned long long>()};
  // Recorded births are optional: bookmarks made before them have none.
  auto birth = json.find("birth");
  auto birth_ns = json.find("birth_ns");
  if (birth != json.end() && birth->is_number_integer() && birth_ns != json.end() &&
      birth_ns->is_number_unsigned() && birth_ns->get<unsigned long long>() < 1000000000ull) {
    bookmark.birth_seconds = birth->get<long long>();
    bookmark.birth_nanoseconds = birth_ns->get<unsigned>();
  }
  return bookmark;
}

ResolvedBookmark ResolveBookmark(const FolderBookmark& bookmark, const std::string& home) {
  std::optional<FolderIdentity> at_path = IdentifyFolder(bookmark.path, true);
  if (at_path && SameFolder(*at_path, bookmark))
    return {BookmarkResolution::Resolved, bookmark.path};

  size_t budget = kMaxFoldersVisited;
  std::string parent = Parent(bookmark.path);
  std::string grandparent = Parent(parent);
  for (auto [root, depth] :
       {std::pair{parent, kParentDepth}, std::pair{grandparent, kGrandparentDepth},
        std::pair{home, kHomeDepth}}) {
    if (auto found = FindFolder(root, depth, bookmark, budget))
      return {BookmarkResolution::ResolvedStale, *found};
  }
  return {BookmarkResolution::Unresolvable, ""};
}

std::string DefaultLibraryFolder() {
  return JoinPath(DocumentsFolder(), "Orvane");
}

bool StoreLibraryFolderBookmark(const std::string& path) {
  auto bookmark = FolderBookmark::For(path);
  if (!bookmark)
    return false;
  Settings::standard().setString(kLibraryBookmarkKey, bookmark->serialise());
  return true;
}

std::string LibraryFolder() {
  std::string stored = Settings::standard().stringForKey(kLibraryBookmarkKey).value_or("");
  std::string folder;
  if (!stored.empty()) {
    auto bookmark = FolderBookmark::Parse(stored);
    ResolvedBookmark resolved =
        bookmark ? ResolveBookmark(*bookmark, HomeFolder()) : ResolvedBookmark{};
    if (resolved.outcome == BookmarkResolution::Resolved)
      return resolved.path;
    if (resolved.outcome == BookmarkResolution::ResolvedStale)
      folder = resolved.path;
    else
      SparLog("folder: bookmark did not resolve — back to the default");
  }
  if (folder.empty()) {
    folder = DefaultLibraryFolder();
    g_mkdir_with_parents(folder.c_str(), 0755);
  }
  StoreLibraryFolderBookmark(folder);
  return folder;
}

} // namespace orvane
