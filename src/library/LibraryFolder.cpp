#include "library/LibraryFolder.h"

#include "base/GObjectPtr.h"
#include "base/Paths.h"
#include "base/Settings.h"
#include "base/SparLog.h"

#include <deque>
#include <dirent.h>
#include <glib/gstdio.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

namespace orvane {

namespace {

// How far the search for a moved folder reaches, and how much it may read.
constexpr int kParentDepth = 2;
constexpr int kGrandparentDepth = 3;
constexpr int kHomeDepth = 4;
constexpr size_t kMaxFoldersVisited = 20000;

bool SameFolder(const struct stat& info, const FolderBookmark& bookmark) {
  return S_ISDIR(info.st_mode) && info.st_dev == bookmark.device && info.st_ino == bookmark.inode;
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
      struct stat info;
      if (lstat(child.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
        continue;
      if (SameFolder(info, bookmark)) {
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
  struct stat info;
  if (stat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
    return std::nullopt;
  return FolderBookmark{path, static_cast<unsigned long long>(info.st_dev),
                        static_cast<unsigned long long>(info.st_ino)};
}

std::string FolderBookmark::serialise() const {
  return nlohmann::json{{"path", path}, {"device", device}, {"inode", inode}}.dump();
}

std::optional<FolderBookmark> FolderBookmark::Parse(const std::string& text) {
  nlohmann::json json = nlohmann::json::parse(text, nullptr, false);
  if (!json.is_object() || !json["path"].is_string() || !json["device"].is_number_unsigned() ||
      !json["inode"].is_number_unsigned())
    return std::nullopt;
  return FolderBookmark{json["path"].get<std::string>(), json["device"].get<unsigned long long>(),
                        json["inode"].get<unsigned long long>()};
}

ResolvedBookmark ResolveBookmark(const FolderBookmark& bookmark, const std::string& home) {
  struct stat info;
  if (stat(bookmark.path.c_str(), &info) == 0 && SameFolder(info, bookmark))
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
