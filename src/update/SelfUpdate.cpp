#include "update/SelfUpdate.h"

#include "base/BuildInfo.h"
#include "base/GObjectPtr.h"
#include "base/Paths.h"
#include "base/SparLog.h"
#include "base/Text.h"
#include "library/HttpTransfer.h"
#include "update/FolderMoves.h"
#include "update/InstallManifest.h"
#include "update/Libarchive.h"
#include "update/Libsodium.h"
#include "update/OldCopyServers.h"
#include "update/ReleaseVersion.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <gio/gio.h>
#include <glib/gstdio.h>
#include <set>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <vector>

namespace orvane {
namespace {

bool IsDirectoryNoLink(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}
bool IsRegularNoLink(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

std::string ReadSmallFile(const std::string& folder, const std::string& path) {
  return ReadFileInside(folder, path, kManifestSizeLimit).value_or("");
}

std::string Trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' '))
    text.pop_back();
  return text;
}

struct UnpackOutcome {
  bool unpacked = false;
  std::optional<std::string> candidate;
};

// Why a candidate may not replace the running app: `message` for the page
// (empty when it may), `detail` for the log.
struct RequirementCheck {
  std::string message;
  std::string detail;
};

// The running copy's signature: why it is not valid (empty when it is) and
// the version its MANIFEST names.
struct OwnSignature {
  std::string problem;
  std::string version;
};

OwnSignature ReadOwnSignature(const std::string& install_folder) {
  std::string manifest = ReadSmallFile(install_folder, kManifestPath);
  std::string signature = Trimmed(ReadSmallFile(install_folder, kManifestSignaturePath));
  std::string key = Trimmed(ReadSmallFile(install_folder, kUpdateKeyPath));
  if (manifest.empty() || signature.empty() || key.empty())
    return {"no MANIFEST, signature or key", ""};
  // Without libsodium no signature can be checked, this copy's own first
  // (the log says why, once): the update stops here, as for a bad one.
  if (!OpenLibsodium())
    return {"signatures cannot be checked: " + LibsodiumProblem(), ""};
  if (!SignatureVerifies(manifest, signature, key))
    return {"the MANIFEST does not verify under its own key", ""};
  ParsedManifest parsed = ParseManifest(manifest);
  if (!parsed.manifest || parsed.manifest->app_id != kApplicationId)
    return {"the MANIFEST names another application", ""};
  return {"", parsed.manifest->version};
}

RequirementCheck CheckRequirement(const std::string& bundle, const std::string& candidate) {
  OwnSignature own = ReadOwnSignature(bundle);
  if (!own.problem.empty())
    return {"could not read this app's own signature", ""};
  if (!IsDirectoryNoLink(candidate))
    return {"the downloaded app is not readable", ""};
  std::string key = Trimmed(ReadSmallFile(bundle, kUpdateKeyPath));
  FolderCheck check = CheckInstallFolder(candidate, key, kApplicationId);
  if (!check.ok())
    return {"the downloaded app is not signed like this one (code " +
                std::to_string(static_cast<int>(check.code)) + ")",
            check.message};
  // A correctly signed older release would bring back what a newer one
  // fixed; the same release may be installed again as a repair.
  if (CompareReleaseVersions(check.version, own.version) < 0)
    return {"the download is older than this app (" + ShownVersion(check.version) + " < " +
                ShownVersion(own.version) + ")",
            ""};
  return {};
}

// Gives every folder below `root` (not `root` itself) the mode 0755,
// whatever the archive or the umask made of it; never follows a link. Each
// folder is set from its parent before it is opened, so one the archive made
// unreadable opens too. False when any folder could not be set or listed:
// folder modes are not signed, so an unset one must not be installed.
bool SetFolderModesBelow(const std::string& root) {
  int top = open(root.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (top < 0)
    return false;
  bool all_set = true;
  std::vector<std::string> pending = {""};
  while (!pending.empty()) {
    std::string relative = std::move(pending.back());
    pending.pop_back();
    int dir = relative.empty()
                  ? dup(top)
                  : openat(top, relative.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    DIR* listing = dir < 0 ? nullptr : fdopendir(dir);
    if (!listing) {
      if (dir >= 0)
        close(dir);
      all_set = false;
      continue;
    }
    errno = 0;
    while (dirent* item = readdir(listing)) {
      std::string name = item->d_name;
      if (name != "." && name != "..") {
        struct stat info;
        if (fstatat(dirfd(listing), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
          all_set = false;
        } else if (S_ISDIR(info.st_mode)) {
          // Not a link (looked at without following), in a folder only we
          // can write to: the mode lands on that folder.
          if (fchmodat(dirfd(listing), name.c_str(), kInstalledModeBits, 0) != 0)
            all_set = false;
          pending.push_back(relative.empty() ? name : relative + "/" + name);
        }
      }
      errno = 0;
    }
    if (errno != 0)
      all_set = false;
    closedir(listing);
  }
  close(top);
  return all_set;
}

// Runs `work` on a worker thread, then `then` with its result on the main
// loop, unless the owner (`alive`) is gone by then.
template <typename Result>
void RunOffMainThread(std::weak_ptr<bool> alive, std::function<Result()> work,
                      std::function<void(Result&)> then) {
  struct Job {
    std::function<Result()> work;
    std::function<void(Result&)> then;
    std::weak_ptr<bool> alive;
    Result result{};
  };
  auto* job = new Job{std::move(work), std::move(then), std::move(alive)};
  GTask* task = g_task_new(
      nullptr, nullptr,
      [](GObject*, GAsyncResult* result, gpointer) {
        auto* job = static_cast<Job*>(g_task_get_task_data(G_TASK(result)));
        if (!job->alive.expired())
          job->then(job->result);
      },
      nullptr);
  g_task_set_task_data(task, job, [](gpointer data) { delete static_cast<Job*>(data); });
  g_task_run_in_thread(task, [](GTask* task, gpointer, gpointer data, GCancellable*) {
    auto* job = static_cast<Job*>(data);
    job->result = job->work();
    g_task_return_boolean(task, TRUE);
  });
  g_object_unref(task);
}

} // namespace

bool UnpackArchive(const std::string& archive_path, const std::string& folder,
                   UnpackLimits limits) {
  // Without the library nothing is unpacked: a refusal, which the update
  // reports as an archive it could not unpack (the log says why, once).
  const Libarchive* la = OpenLibarchive();
  if (!la)
    return false;
  struct archive* reader = la->read_new();
  la->read_support_format_zip(reader);
  struct archive* writer = la->write_disk_new();
  // Every entry's own name is checked to be a safe relative path below and
  // then joined to the (symlink-free) work folder, so the written path is
  // absolute on purpose; libarchive still refuses ".." and links on the way.
  la->write_disk_set_options(writer, ARCHIVE_EXTRACT_TIME | ARCHIVE_EXTRACT_PERM |
                                         ARCHIVE_EXTRACT_SECURE_SYMLINKS |
                                         ARCHIVE_EXTRACT_SECURE_NODOTDOT);
  char* resolved = realpath(folder.c_str(), nullptr);
  const std::string root = resolved ? resolved : folder;
  free(resolved);
  bool refused = false;
  uint64_t unpacked_bytes = 0;
  size_t entries = 0;
  std::set<std::string> link_paths;
  if (la->read_open_filename(reader, archive_path.c_str(), 64 * 1024) == ARCHIVE_OK) {
    struct archive_entry* entry = nullptr;
    while (!refused && la->read_next_header(reader, &entry) == ARCHIVE_OK) {
      if (++entries > limits.max_entries) {
        refused = true;
        break;
      }
      const char* name = la->entry_pathname(entry);
      std::string path = name ? name : "";
      while (!path.empty() && path.back() == '/')
        path.pop_back();
      mode_t type = la->entry_filetype(entry);
      const char* hardlink = la->entry_hardlink(entry);
      const char* symlink = la->entry_symlink(entry);
      if (path.empty() || !IsSafeRelativePath(path) ||
          (hardlink && !IsSafeRelativePath(hardlink)) ||
          (type == AE_IFLNK && (!symlink || !LinkStaysInsideByName(path, symlink))) ||
          (type != AE_IFREG && type != AE_IFDIR && type != AE_IFLNK)) {
        refused = true;
        break;
      }
      // The writer makes a file as long as its entry says even when fewer
      // bytes follow, so the declared size counts against the bound too.
      uint64_t declared = la->entry_size_is_set(entry) && la->entry_size(entry) > 0
                              ? uint64_t(la->entry_size(entry))
                              : 0;
      if (declared > limits.max_bytes - unpacked_bytes) {
        refused = true;
        break;
      }
      if (type == AE_IFLNK)
        link_paths.insert(path);
      // The archive's modes give nothing away: folders are ours to make
      // 0755, and a file never gets a bit of group or others write or a
      // set-id bit from it.
      if (type == AE_IFDIR)
        la->entry_set_perm(entry, kInstalledModeBits);
      else if (type == AE_IFREG)
        la->entry_set_perm(entry, la->entry_perm(entry) & kInstalledModeBits);
      la->entry_set_pathname(entry, JoinPath(root, path).c_str());
      if (hardlink)
        la->entry_set_hardlink(entry, JoinPath(root, hardlink).c_str());
      if (la->write_header(writer, entry) < ARCHIVE_WARN) {
        // libarchive's own guards (a link on the way, say) refuse it too.
        refused = true;
        break;
      }
      const void* block = nullptr;
      size_t size = 0;
      la_int64_t offset = 0;
      int status;
      uint64_t entry_bytes = 0;
      while ((status = la->read_data_block(reader, &block, &size, &offset)) == ARCHIVE_OK) {
        entry_bytes += size;
        if (entry_bytes > limits.max_bytes - unpacked_bytes) {
          refused = true;
          break;
        }
        if (la->write_data_block(writer, block, size, offset) < ARCHIVE_WARN)
          break;
      }
      la->write_finish_entry(writer);
      unpacked_bytes += std::max(entry_bytes, declared);
      if (refused || status < ARCHIVE_WARN)
        break; // damaged: what is unpacked stays
    }
  }
  la->read_free(reader);
  la->write_free(writer);
  // Links that each stay inside can climb out together ("a" -> ".",
  // "b" -> "a/.."): once everything is unpacked, each link still on disk
  // must resolve inside, or it is removed and the archive refused.
  for (const std::string& path : link_paths) {
    std::string full = JoinPath(root, path);
    GCharPtr target(g_file_read_link(full.c_str(), nullptr));
    if (target && LinkLeadsOutside(root, {path, EntryKind::kLink, "", 0, target.get()})) {
      g_unlink(full.c_str());
      refused = true;
    }
  }
  // Folders that no entry named (made on the way to a file) got the umask's
  // mode, and the writer may have set others' modes late: all become 0755.
  if (!SetFolderModesBelow(root))
    refused = true;
  return !refused;
}

std::optional<std::string> FindCandidate(const std::string& folder) {
  std::optional<std::string> candidate;
  for (const std::string& name : NamesIn(folder)) { // sorted by name
    std::string path = JoinPath(folder, name);
    if (IsDirectoryNoLink(path) && IsRegularNoLink(JoinPath(path, "bin/orvane")) &&
        IsRegularNoLink(JoinPath(path, kManifestPath)))
      candidate = path;
  }
  return candidate;
}

bool IsTranslocated(const std::string& install_folder) {
  if (install_folder.rfind("/tmp/.mount_", 0) == 0)
    return true;
  struct statvfs info;
  return statvfs(install_folder.c_str(), &info) == 0 && (info.f_flag & ST_RDONLY);
}

std::string OwnSignatureProblem(const std::string& install_folder) {
  return ReadOwnSignature(install_folder).problem;
}

std::vector<std::string> RelaunchArguments(const std::string& executable, double delay_seconds) {
  char seconds[G_ASCII_DTOSTR_BUF_SIZE];
  g_ascii_formatd(seconds, sizeof seconds, "%g", delay_seconds);
  // The path is the shell's $0: an argument, never part of the command
  // text, so no character of it is ever read by the shell.
  return {"/bin/sh", "-c", std::string("sleep ") + seconds + "; exec \"$0\"", executable};
}

namespace {
// 0 when this call made the folder at `path` for us alone, else the errno.
int MakeOwnFolder(const std::string& path, std::string& error) {
  // mkdir never follows a link in the last place and fails on anything
  // that is there: success means this call made the folder.
  if (mkdir(path.c_str(), 0700) != 0) {
    int failure = errno;
    error = path + ": " + g_strerror(failure);
    return failure;
  }
  int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  struct stat info;
  bool ours = fd >= 0 && fstat(fd, &info) == 0 && info.st_uid == geteuid() &&
              fchmod(fd, 0700) == 0; // whatever the umask left
  if (fd >= 0)
    close(fd);
  if (!ours) {
    error = path + ": not a folder of our own";
    return EPERM;
  }
  return 0;
}
} // namespace

bool MakeFolderOfOurOwn(const std::string& path, std::string& error) {
  return MakeOwnFolder(path, error) == 0;
}

std::string MakePrivateFolder(const std::string& parent, const std::string& prefix,
                              std::string* error) {
  std::string why;
  // A fresh UUID is never there already unless someone put it there; a few
  // more tries get past that, then it is no use.
  for (int attempt = 0; attempt < 8; ++attempt) {
    std::string path = JoinPath(parent, prefix + NewUpperCaseUuid());
    int failure = MakeOwnFolder(path, why);
    if (failure == 0)
      return path;
    if (failure != EEXIST)
      break;
  }
  if (error)
    *error = why;
  return "";
}

SelfUpdate::SelfUpdate(SelfUpdateSeams seams) : seams_(std::move(seams)) {
  if (!seams_.move_into_place)
    seams_.move_into_place = RenameFolder;
}

SelfUpdate::~SelfUpdate() {
  *alive_ = false;
}

void SelfUpdate::updateProgress(const std::string& stage) {
  SparLog("update: %@", stage);
  seams_.send_event({{"type", "updateProgress"}, {"stage", stage}});
}

void SelfUpdate::updateFailed(const std::string& message) {
  SparLog("update failed: %@", message);
  seams_.send_event({{"type", "updateDone"}, {"ok", false}, {"error", message}});
}

void SelfUpdate::updateFrom(const std::string& address) {
  GUri* uri = g_uri_parse(address.c_str(), G_URI_FLAGS_NONE, nullptr);
  if (!uri) {
    updateFailed("no download address");
    return;
  }
  g_uri_unref(uri);
  const std::string& bundle = seams_.install_folder;
  if (IsTranslocated(bundle)) {
    updateFailed(kAppTranslocatedMessage);
    return;
  }
  if (access(ParentFolder(bundle).c_str(), W_OK) != 0) {
    updateFailed(kFolderNotWritableMessage);
    return;
  }
  updateProgress("downloading");

  // The work folder is made first, fresh and ours alone, and the download
  // goes inside it: nothing in the shared temporary folder names it before
  // it exists, and nobody else can put anything into it.
  std::string folder_error;
  std::string work_folder = MakePrivateFolder(seams_.temp_folder, "orvane-update-", &folder_error);
  if (work_folder.empty()) {
    updateFailed("could not make a work folder for the update: " + folder_error);
    return;
  }
  last_work_folder_ = work_folder;
  std::string archive = JoinPath(work_folder, "app.zip");
  std::weak_ptr<bool> alive = alive_;
  DownloadToFile(
      address, archive,
      [this, alive, archive, work_folder](TransferResult result) {
        if (alive.expired()) {
          RemoveTree(work_folder);
          return;
        }
        std::optional<std::string> error = result.error;
        if (!error && result.cut_short)
          error = "the download ended before its declared length";
        downloaded(archive, work_folder, error, result.status);
      },
      kDownloadIdleTimeout, DownloadFile::kCreateNew);
}

void SelfUpdate::downloaded(const std::string& archive, const std::string& work_folder,
                            std::optional<std::string> error, long status) {
  if (error || status != 200) {
    // The work folder held only the partial download.
    RemoveTree(work_folder);
    updateFailed(error ? *error : "download failed (HTTP " + std::to_string(status) + ")");
    return;
  }
  updateProgress("unpacking");

  RunOffMainThread<UnpackOutcome>(
      alive_,
      [archive, work_folder] {
        UnpackOutcome outcome;
        outcome.unpacked = UnpackArchive(archive, work_folder);
        if (outcome.unpacked)
          outcome.candidate = FindCandidate(work_folder);
        return outcome;
      },
      [this, work_folder](UnpackOutcome& outcome) {
        unpacked(outcome.candidate, outcome.unpacked, work_folder);
      });
}

void SelfUpdate::unpacked(std::optional<std::string> candidate, bool unpacked,
                          const std::string& work_folder) {
  if (!unpacked) {
    updateFailed("could not unpack the download");
    return;
  }
  if (!candidate) {
    updateFailed("the download held no app");
    return;
  }
  updateProgress("checking signature");
  std::string bundle = seams_.install_folder;
  // Hashing every file of the candidate takes a while; the window stays live.
  RunOffMainThread<RequirementCheck>(
      alive_, [bundle, candidate = *candidate] { return CheckRequirement(bundle, candidate); },
      [this, candidate = *candidate, work_folder](RequirementCheck& check) {
        if (!check.detail.empty())
          SparLog("update: %@", check.detail);
        if (!check.message.empty()) {
          updateFailed(check.message);
          return;
        }
        install(candidate, work_folder);
      });
}

void SelfUpdate::install(const std::string& candidate, const std::string& work_folder) {
  updateProgress("installing");
  std::string bundle = seams_.install_folder;
  GCharPtr name(g_path_get_basename(bundle.c_str()));
  std::string copy_name = std::string(name.get()) + ".new-" + NewUpperCaseUuid();
  // Staging copies the new app beside the old one when the work folder is on
  // another file system, before the old app is touched: a copy that fails
  // (a full disk, say) leaves the running app as it was.
  RunOffMainThread<Staged>(
      alive_, [candidate, bundle, copy_name] { return StageBeside(candidate, bundle, copy_name); },
      [this, work_folder](Staged& staged) { swap(staged, work_folder); });
}

void SelfUpdate::swap(const Staged& staged, const std::string& work_folder) {
  if (staged.folder.empty()) {
    updateFailed("could not install the new app: " + staged.error);
    return;
  }
  const std::string& bundle = seams_.install_folder;
  // Found while the old copy is still where it ran from.
  std::vector<pid_t> site_servers = SiteServersOf(bundle);
  MovedAside aside = MoveAside(bundle);
  if (!aside.error.empty()) {
    if (staged.copied)
      RemoveTree(staged.folder);
    updateFailed("could not move the old app aside: " + aside.error);
    return;
  }
  std::string move_error = seams_.move_into_place(staged.folder, bundle);
  if (!move_error.empty()) {
    if (aside.location)
      g_rename(aside.location->c_str(), bundle.c_str());
    if (staged.copied)
      RemoveTree(staged.folder);
    updateFailed("could not install the new app: " + move_error);
    return;
  }
  if (aside.location)
    RemoveMovedAside(*aside.location);
  RemoveTree(work_folder);
  seams_.send_event({{"type", "updateDone"}, {"ok", true}});
  SparLog("update: installed, relaunching");
  EndSiteServers(site_servers);

  std::vector<std::string> relaunch =
      RelaunchArguments(JoinPath(bundle, "bin/orvane"), seams_.relaunch_delay);
  std::vector<char*> argv;
  for (std::string& argument : relaunch)
    argv.push_back(argument.data());
  argv.push_back(nullptr);
  // A failure to start the shell is ignored: the quit happens anyway.
  g_spawn_async(nullptr, argv.data(), nullptr, G_SPAWN_DEFAULT, nullptr, nullptr, nullptr, nullptr);
  std::weak_ptr<bool> alive = alive_;
  seams_.scheduler.after(seams_.quit_delay, [this, alive] {
    if (!alive.expired())
      seams_.quit();
  });
}

} // namespace orvane
