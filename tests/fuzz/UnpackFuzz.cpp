// Any bytes as a downloaded zip, unpacked with small limits into a fresh
// folder that has a neighbour: nothing appears beside the folder, the
// neighbour's file is neither changed nor linked to, every link left in the
// folder resolves inside it, only files, folders and links are made, and the
// files hold no more bytes than the limit allows.
//
// Every input starts from the same state: one parent folder, made once,
// that is empty before each input and emptied after it; the target folder
// and the neighbour are made anew inside it for each input.
#include "FuzzFiles.h"
#include "update/SelfUpdate.h"

#include "support/TempDir.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <glib.h>
#include <glib/gstdio.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr char kSecret[] = "the neighbour's own bytes\n";
constexpr orvane::UnpackLimits kLimits{/*max_bytes=*/2048, /*max_entries=*/32};

// Says which requirement failed before aborting, so that a crash report
// names it.
void Require(bool holds, int line = __builtin_LINE()) {
  if (holds)
    return;
  std::fprintf(stderr, "UnpackFuzz: line %d: requirement failed\n", line);
  std::abort();
}

// The names in an open folder, without "." and "..". The descriptor stays
// open and usable; its duplicate shares the reading position, so the
// listing starts from the top each time.
std::vector<std::string> NamesAt(int folder) {
  std::vector<std::string> names;
  int listing_fd = dup(folder);
  Require(listing_fd >= 0);
  DIR* listing = fdopendir(listing_fd);
  Require(listing != nullptr);
  rewinddir(listing);
  while (dirent* entry = readdir(listing)) {
    std::string name = entry->d_name;
    if (name != "." && name != "..")
      names.push_back(name);
  }
  closedir(listing);
  return names;
}

int OpenFolderAt(int folder, const std::string& name) {
  int fd = openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  Require(fd >= 0);
  return fd;
}

bool Inside(const std::string& root, const std::string& path) {
  return path == root || path.rfind(root + "/", 0) == 0;
}

// Where a link leads when what it names does not exist (yet): its target
// taken literally from the link's folder, resolving what does exist.
std::string LiteralDestination(const std::string& link_folder, const std::string& target) {
  std::string joined = target.front() == '/' ? target : link_folder + "/" + target;
  std::vector<std::string> parts;
  size_t start = 0;
  while (start <= joined.size()) {
    size_t slash = joined.find('/', start);
    if (slash == std::string::npos)
      slash = joined.size();
    std::string part = joined.substr(start, slash - start);
    if (part == "..") {
      if (!parts.empty())
        parts.pop_back();
    } else if (!part.empty() && part != ".") {
      parts.push_back(part);
    }
    start = slash + 1;
  }
  std::string path;
  for (const std::string& part : parts)
    path += "/" + part;
  return path.empty() ? "/" : path;
}

// One pass over what the unpacking left, through folder descriptors (no
// path is looked up again for each entry): only files, folders and links;
// an accepted archive's folders are 0755 and its files have no bit outside
// 0755 (no write for others, no set-id or sticky); the files' bytes are
// summed; every folder is opened up (archives may make folders nobody can
// enter or write) and every link noted, to be resolved once the whole tree
// can be entered.
struct Walk {
  std::string root;
  bool accepted = false;
  uint64_t file_bytes = 0;
  struct Link {
    std::string folder;
    std::string name;
    std::string target;
  };
  std::vector<Link> links;

  void visit(int folder_fd, const std::string& folder) {
    for (const std::string& name : NamesAt(folder_fd)) {
      struct stat info;
      Require(fstatat(folder_fd, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0);
      mode_t mode = info.st_mode & 07777;
      if (S_ISDIR(info.st_mode)) {
        if (accepted)
          Require(mode == 0755);
        fchmodat(folder_fd, name.c_str(), 0700, 0);
        int child = OpenFolderAt(folder_fd, name);
        visit(child, folder + "/" + name);
        close(child);
      } else if (S_ISREG(info.st_mode)) {
        if (accepted)
          Require((mode & ~mode_t(0755)) == 0);
        file_bytes += uint64_t(info.st_size);
      } else {
        Require(S_ISLNK(info.st_mode));
        char target[PATH_MAX + 1];
        ssize_t length = readlinkat(folder_fd, name.c_str(), target, PATH_MAX);
        Require(length > 0);
        target[length] = '\0';
        links.push_back({folder, name, target});
      }
    }
  }

  // Every link resolves inside the root: what it names when that exists,
  // else its target taken literally.
  void requireLinksInside() const {
    for (const Link& link : links) {
      std::string path = link.folder + "/" + link.name;
      char* resolved = realpath(path.c_str(), nullptr);
      std::string destination =
          resolved ? std::string(resolved) : LiteralDestination(link.folder, link.target);
      free(resolved);
      Require(Inside(root, destination));
    }
  }
};

// Empties an opened-up folder: children first, through descriptors.
void RemoveContents(int folder_fd) {
  for (const std::string& name : NamesAt(folder_fd)) {
    struct stat info;
    Require(fstatat(folder_fd, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0);
    if (S_ISDIR(info.st_mode)) {
      int child = OpenFolderAt(folder_fd, name);
      RemoveContents(child);
      close(child);
      Require(unlinkat(folder_fd, name.c_str(), AT_REMOVEDIR) == 0);
    } else {
      Require(unlinkat(folder_fd, name.c_str(), 0) == 0);
    }
  }
}

void WriteBytes(const std::string& path, const void* bytes, size_t size) {
  const char* data = static_cast<const char*>(bytes);
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  Require(fd >= 0);
  size_t done = 0;
  while (done < size) {
    ssize_t put = write(fd, data + done, size - done);
    Require(put > 0 || (put < 0 && errno == EINTR));
    if (put > 0)
      done += size_t(put);
  }
  Require(close(fd) == 0);
}

struct Fixture {
  orvane::TempDir work;
  std::string archive = work.file("download.zip");
  // The folder the target folder and its neighbour are made in, resolved
  // (no link on the way), so that what the links resolve to compares as
  // text. Its own temporary folder, so that its path is short: the unpacking
  // walks every folder of the path for each entry.
  orvane::TempDir made;
  std::string parent;

  Fixture() {
    char* real_parent = realpath(made.path().c_str(), nullptr);
    Require(real_parent != nullptr);
    parent = real_parent;
    free(real_parent);
    // Entry times are local times: with no zone given, each one reads
    // /etc/localtime again.
    if (!g_getenv("TZ"))
      g_setenv("TZ", "UTC", FALSE);
  }
};

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  orvane::PreferMemoryForTemporaryFiles();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Fixture fixture;
  WriteBytes(fixture.archive, data, size);

  // The parent as every input finds it: empty. In it, a fresh target folder
  // and a neighbour with a file.
  const std::string& parent = fixture.parent;
  Require(orvane::NamesIn(parent).empty());
  const std::string target = parent + "/unpacked";
  const std::string neighbour = parent + "/neighbour";
  Require(g_mkdir(target.c_str(), 0700) == 0 && g_mkdir(neighbour.c_str(), 0700) == 0);
  WriteBytes(neighbour + "/secret", kSecret, sizeof kSecret - 1);

  // A refusal and an unreadable archive both leave a safe folder; an
  // accepted one also has only the modes that are ever installed.
  bool unpacked = orvane::UnpackArchive(fixture.archive, target, kLimits);

  Require(orvane::NamesIn(parent) == std::set<std::string>{"neighbour", "unpacked"});
  Require(orvane::NamesIn(neighbour) == std::set<std::string>{"secret"});
  struct stat secret;
  Require(lstat((neighbour + "/secret").c_str(), &secret) == 0);
  Require(S_ISREG(secret.st_mode) && secret.st_nlink == 1);
  Require(orvane::TempDir::Read(neighbour + "/secret") == kSecret);
  struct stat target_info;
  Require(lstat(target.c_str(), &target_info) == 0 && S_ISDIR(target_info.st_mode));

  chmod(target.c_str(), 0700);
  int target_fd = open(target.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  Require(target_fd >= 0);
  Walk walk;
  walk.root = target;
  walk.accepted = unpacked;
  walk.visit(target_fd, target);
  walk.requireLinksInside();
  Require(walk.file_bytes <= kLimits.max_bytes);

  RemoveContents(target_fd);
  close(target_fd);
  Require(g_rmdir(target.c_str()) == 0);
  Require(g_unlink((neighbour + "/secret").c_str()) == 0 && g_rmdir(neighbour.c_str()) == 0);
  Require(orvane::NamesIn(parent).empty());
  return 0;
}
