// Any text as a MANIFEST. What the parser accepts is the one text the writer
// would write for it, with safe paths, 64-digit hashes and permission modes.
// Signed with a key the check trusts, it reaches the check of a real folder,
// which must give exactly the code a plain comparison with the folder's
// files gives, never pass a folder with a link that climbs out, never pass a
// signature made by another key, and never open anything beside the folder
// nor anything for writing.
//
// Every input starts from the same state: the folders are made once, the
// MANIFEST and its signature are rewritten whole for each input (a write
// that fails is a failure, never a check of the previous input's MANIFEST),
// and any change to a folder while it is checked is a failure of that input.
// What the check opens is seen inside this process only (the open calls are
// wrapped at link time, see CMakeLists.txt), so another process that lists
// or walks the temporary folder cannot change a verdict.
#include "FuzzFiles.h"
#include "update/InstallManifest.h"

#include "support/TempDir.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <optional>
#include <set>
#include <string>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

using orvane::CheckInstallFolder;
using orvane::EntryKind;
using orvane::FolderCheckCode;
using orvane::ManifestEntry;

namespace {

constexpr char kAppId[] = "com.tarnwick.orvane";

// Says which property failed before aborting, so that a crash report names it.
[[noreturn]] void Fail(const char* what, int line) {
  std::fprintf(stderr, "ManifestFuzz: line %d: requirement failed: %s\n", line, what);
  std::abort();
}
#define REQUIRE(condition)                                                                         \
  do {                                                                                             \
    if (!(condition))                                                                              \
      Fail(#condition, __LINE__);                                                                  \
  } while (false)

// ---- what the code under test opens

using Inode = std::pair<dev_t, ino_t>;

// While `on`, every open the code makes is looked at: what it opens must be
// one of `inside` (the folders and files of the folder checked) and be
// opened for reading only. Anything else is kept in `strays` for the input
// to fail on.
struct OpenLog {
  bool on = false;
  const std::set<Inode>* inside = nullptr;
  std::vector<std::string> strays;
};

OpenLog& TheOpenLog() {
  static OpenLog log;
  return log;
}

void Track(int fd, int flags) {
  OpenLog& log = TheOpenLog();
  if (!log.on || fd < 0)
    return;
  struct stat info;
  bool inside = fstat(fd, &info) == 0 && log.inside->count({info.st_dev, info.st_ino}) > 0;
  bool writes = (flags & O_ACCMODE) != O_RDONLY || (flags & (O_CREAT | O_TRUNC)) != 0;
  if (inside && !writes)
    return;
  char proc[64];
  std::snprintf(proc, sizeof proc, "/proc/self/fd/%d", fd);
  char where[PATH_MAX + 1];
  ssize_t length = readlink(proc, where, PATH_MAX);
  std::string path = length > 0 ? std::string(where, size_t(length)) : std::string("?");
  log.strays.push_back(path + (writes ? " (for writing)" : ""));
}

mode_t ModeArgument(int flags, va_list args) {
  return (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE ? mode_t(va_arg(args, int)) : 0;
}

// ---- the folders

int WriteFile(const std::string& path, const std::string& text, mode_t mode) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0)
    return -1;
  size_t done = 0;
  while (done < text.size()) {
    ssize_t put = write(fd, text.data() + done, text.size() - done);
    if (put < 0 && errno == EINTR)
      continue;
    if (put <= 0)
      break;
    done += size_t(put);
  }
  return close(fd) == 0 && done == text.size() ? 0 : -1;
}

void WriteWithMode(const std::string& path, const std::string& text, mode_t mode) {
  gchar* folder = g_path_get_dirname(path.c_str());
  REQUIRE(g_mkdir_with_parents(folder, 0755) == 0);
  g_free(folder);
  REQUIRE(WriteFile(path, text, mode) == 0);
  REQUIRE(chmod(path.c_str(), mode) == 0);
}

void Link(const std::string& target, const std::string& path) {
  REQUIRE(symlink(target.c_str(), path.c_str()) == 0);
}

// The same small install folder every time, so that a MANIFEST that lists
// it exactly (one of the seeds) passes the check.
void MakeInstallFolder(const std::string& folder) {
  WriteWithMode(folder + "/bin/orvane", "#!/bin/sh\necho orvane\n", 0755);
  WriteWithMode(folder + "/share/orvane/site/index.html", "<p>hello</p>\n", 0644);
  WriteWithMode(folder + "/share/orvane/empty", "", 0600);
  Link("orvane", folder + "/bin/orvane-link");
  Link("../share/orvane/site", folder + "/bin/site");
  Link("nowhere", folder + "/share/orvane/dangling");
}

std::string Resolved(const std::string& path) {
  char* real = realpath(path.c_str(), nullptr);
  REQUIRE(real != nullptr);
  std::string resolved = real;
  free(real);
  return resolved;
}

// The folders and files of `path` (links not followed), and an inotify
// watch on each of its folders for every kind of change.
void Survey(const std::string& path, std::set<Inode>& inodes, int watch) {
  struct stat info;
  REQUIRE(lstat(path.c_str(), &info) == 0);
  if (S_ISLNK(info.st_mode))
    return;
  inodes.insert({info.st_dev, info.st_ino});
  if (!S_ISDIR(info.st_mode))
    return;
  REQUIRE(inotify_add_watch(watch, path.c_str(),
                            IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_CREATE | IN_DELETE |
                                IN_DELETE_SELF | IN_MOVE | IN_MOVE_SELF | IN_DONT_FOLLOW) >= 0);
  GDir* dir = g_dir_open(path.c_str(), 0, nullptr);
  REQUIRE(dir != nullptr);
  while (const char* name = g_dir_read_name(dir))
    Survey(path + "/" + name, inodes, watch);
  g_dir_close(dir);
}

// Whether anything in the watched folders changed since the last call.
bool Changed(int watch) {
  alignas(inotify_event) char events[8192];
  bool changed = false;
  while (read(watch, events, sizeof events) > 0)
    changed = true;
  return changed;
}

struct Fixture {
  orvane::TempDir parent;
  std::string clean;
  // The same files plus a chain of links that each look inside but climb
  // out together: "up" is the folder itself, "out" goes up from there.
  std::string climbing;
  std::string outside;
  orvane::KeyPair key;
  orvane::KeyPair other_key;
  std::vector<ManifestEntry> clean_files;
  std::vector<ManifestEntry> climbing_files;
  std::set<Inode> clean_inodes;
  std::set<Inode> climbing_inodes;
  int clean_watch = -1;
  int climbing_watch = -1;

  Fixture() {
    std::string top = Resolved(parent.path());
    clean = top + "/Orvane";
    climbing = top + "/Climbing";
    outside = top + "/outside";
    MakeInstallFolder(clean);
    MakeInstallFolder(climbing);
    Link("share/..", climbing + "/up");
    Link("up/../outside", climbing + "/out");
    WriteWithMode(outside + "/secret", "not for the check\n", 0644);
    WriteWithMode(outside + "/share/orvane/MANIFEST", "app-id x\nversion 1\nbuild 1\n", 0644);
    std::optional<orvane::KeyPair> made = orvane::GenerateKeyPair();
    std::optional<orvane::KeyPair> other = orvane::GenerateKeyPair();
    REQUIRE(made && other);
    key = *made;
    other_key = *other;
    orvane::FolderScan scan = orvane::ScanInstallFolder(clean);
    REQUIRE(scan.error.empty() && scan.entries.size() == 6);
    clean_files = scan.entries;
    scan = orvane::ScanInstallFolder(climbing);
    REQUIRE(scan.error.empty() && scan.entries.size() == 8);
    climbing_files = scan.entries;
    // The MANIFEST and its signature are rewritten in place for each input.
    for (const std::string& folder : {clean, climbing}) {
      WriteWithMode(folder + "/" + orvane::kManifestPath, "", 0644);
      WriteWithMode(folder + "/" + orvane::kManifestSignaturePath, "", 0644);
    }
    clean_watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    climbing_watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    REQUIRE(clean_watch >= 0 && climbing_watch >= 0);
    Survey(clean, clean_inodes, clean_watch);
    Survey(climbing, climbing_inodes, climbing_watch);
  }
};

Fixture& TheFixture() {
  static Fixture fixture;
  return fixture;
}

// The code of the check, worked out by comparing the lists as sets:
// something listed is missing, else something differs, else something is
// not listed.
FolderCheckCode ExpectedCode(const std::vector<ManifestEntry>& listed,
                             const std::vector<ManifestEntry>& on_disk) {
  auto find = [](const std::vector<ManifestEntry>& in, const std::string& path) {
    return std::find_if(in.begin(), in.end(),
                        [&path](const ManifestEntry& entry) { return entry.path == path; });
  };
  for (const ManifestEntry& entry : listed)
    if (find(on_disk, entry.path) == on_disk.end())
      return FolderCheckCode::kListedFileMissing;
  for (const ManifestEntry& entry : listed)
    if (!(*find(on_disk, entry.path) == entry))
      return FolderCheckCode::kFileDiffers;
  if (listed.size() != on_disk.size())
    return FolderCheckCode::kUnlistedFile;
  return FolderCheckCode::kValid;
}

void CheckParsed(const std::string& text, const orvane::Manifest& manifest) {
  REQUIRE(!manifest.app_id.empty() && !manifest.version.empty() && !manifest.build.empty());
  for (size_t i = 0; i < manifest.entries.size(); ++i) {
    const ManifestEntry& entry = manifest.entries[i];
    REQUIRE(orvane::IsSafeRelativePath(entry.path));
    REQUIRE(entry.path != orvane::kManifestPath && entry.path != orvane::kManifestSignaturePath);
    REQUIRE(i == 0 || manifest.entries[i - 1].path < entry.path);
    if (entry.kind == EntryKind::kLink) {
      REQUIRE(!entry.link_target.empty() && entry.link_target.size() <= 4096);
      REQUIRE(entry.sha256_hex.empty() && entry.mode == 0);
    } else {
      REQUIRE(entry.kind == EntryKind::kFile && entry.link_target.empty());
      REQUIRE(entry.mode <= 07777 && entry.sha256_hex.size() == 64);
      REQUIRE(std::all_of(entry.sha256_hex.begin(), entry.sha256_hex.end(),
                          [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); }));
    }
  }
  // One text per manifest: the writer gives back the very text read (which
  // therefore reads as this same manifest again).
  REQUIRE(orvane::ManifestText(manifest) == text);
}

// The check of `folder` under `key`, with every open it makes looked at.
orvane::FolderCheck WatchedCheck(const std::string& folder, const std::set<Inode>& inside,
                                 const std::string& key) {
  OpenLog& log = TheOpenLog();
  log.inside = &inside;
  log.strays.clear();
  log.on = true;
  orvane::FolderCheck check = CheckInstallFolder(folder, key, kAppId);
  log.on = false;
  for (const std::string& stray : log.strays)
    std::fprintf(stderr, "ManifestFuzz: the check of %s opened %s\n", folder.c_str(),
                 stray.c_str());
  REQUIRE(log.strays.empty());
  return check;
}

void CheckFolder(const Fixture& fixture, const std::string& folder, const std::string& text,
                 const std::string& signature, const orvane::ParsedManifest& parsed,
                 bool with_other_key) {
  const bool climbing = folder == fixture.climbing;
  const std::vector<ManifestEntry>& on_disk =
      climbing ? fixture.climbing_files : fixture.clean_files;
  const std::set<Inode>& inside = climbing ? fixture.climbing_inodes : fixture.clean_inodes;
  const int watch = climbing ? fixture.climbing_watch : fixture.clean_watch;
  // Nothing else changed the folder since the last input was checked.
  REQUIRE(!Changed(watch));
  REQUIRE(WriteFile(folder + "/" + orvane::kManifestPath, text, 0644) == 0);
  REQUIRE(WriteFile(folder + "/" + orvane::kManifestSignaturePath, signature + "\n", 0644) == 0);
  Changed(watch); // those two writes

  orvane::FolderCheck check = WatchedCheck(folder, inside, fixture.key.public_key);
  REQUIRE(check.ok() == check.message.empty());
  if (!parsed.manifest) {
    REQUIRE(check.code == FolderCheckCode::kSignatureDoesNotVerify);
  } else if (parsed.manifest->app_id != kAppId) {
    REQUIRE(check.code == FolderCheckCode::kOtherAppId);
  } else if (climbing) {
    REQUIRE(check.code == FolderCheckCode::kLinkOutside);
  } else {
    REQUIRE(check.code == ExpectedCode(parsed.manifest->entries, on_disk));
    REQUIRE(check.ok() == (parsed.manifest->entries == on_disk));
  }

  // Signed by anyone else, nothing passes, whatever it says.
  if (with_other_key)
    REQUIRE(WatchedCheck(folder, inside, fixture.other_key.public_key).code ==
            FolderCheckCode::kSignatureDoesNotVerify);

  // The check only reads: nothing in the folder changed while it ran.
  REQUIRE(!Changed(watch));
}

} // namespace

// The open calls of everything linked into this program, seen by Track.
extern "C" {
int __real_open(const char* path, int flags, ...);
int __real_open64(const char* path, int flags, ...);
int __real_openat(int dir, const char* path, int flags, ...);
int __real_openat64(int dir, const char* path, int flags, ...);

int __wrap_open(const char* path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  mode_t mode = ModeArgument(flags, args);
  va_end(args);
  int fd = __real_open(path, flags, mode);
  Track(fd, flags);
  return fd;
}
int __wrap_open64(const char* path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  mode_t mode = ModeArgument(flags, args);
  va_end(args);
  int fd = __real_open64(path, flags, mode);
  Track(fd, flags);
  return fd;
}
int __wrap_openat(int dir, const char* path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  mode_t mode = ModeArgument(flags, args);
  va_end(args);
  int fd = __real_openat(dir, path, flags, mode);
  Track(fd, flags);
  return fd;
}
int __wrap_openat64(int dir, const char* path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  mode_t mode = ModeArgument(flags, args);
  va_end(args);
  int fd = __real_openat64(dir, path, flags, mode);
  Track(fd, flags);
  return fd;
}
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  orvane::PreferMemoryForTemporaryFiles();
  TheFixture();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fixture& fixture = TheFixture();
  std::string text(reinterpret_cast<const char*>(data), size);

  orvane::ParsedManifest parsed = orvane::ParseManifest(text);
  REQUIRE(parsed.manifest.has_value() == parsed.error.empty());
  if (parsed.manifest)
    CheckParsed(text, *parsed.manifest);

  std::optional<std::string> signature = orvane::SignText(text, fixture.key.secret_key);
  REQUIRE(signature.has_value());
  // Under another key nothing passes; that matters for what could pass, a
  // MANIFEST that reads (any other fails on its text under any key).
  CheckFolder(fixture, fixture.clean, text, *signature, parsed,
              /*with_other_key=*/parsed.manifest.has_value());
  // Only a MANIFEST of this app gets the check past the MANIFEST itself to
  // the folder's files; for any other the climbing folder gives the code the
  // clean one gave, by the same steps.
  if (parsed.manifest && parsed.manifest->app_id == kAppId)
    CheckFolder(fixture, fixture.climbing, text, *signature, parsed, /*with_other_key=*/false);
  return 0;
}
