#include "update/FolderMoves.h"

#include "base/GObjectPtr.h"
#include "base/Paths.h"
#include "base/Text.h"
#include "update/InstallManifest.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gio/gio.h>
#include <glib/gstdio.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace orvane {
namespace {

std::string ErrorText(const std::string& path, int error) {
  return path + ": " + g_strerror(error);
}

std::string CopyRegularFile(const std::string& from, const std::string& to, mode_t mode) {
  int in = open(from.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (in < 0)
    return ErrorText(from, errno);
  int out = open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (out < 0) {
    int error = errno;
    close(in);
    return ErrorText(to, error);
  }
  std::string problem;
  char buffer[64 * 1024];
  for (;;) {
    ssize_t got = read(in, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR)
      continue;
    if (got < 0) {
      problem = ErrorText(from, errno);
      break;
    }
    if (got == 0)
      break;
    for (ssize_t written = 0; written < got;) {
      ssize_t put = write(out, buffer + written, size_t(got - written));
      if (put < 0 && errno == EINTR)
        continue;
      if (put < 0) {
        problem = ErrorText(to, errno);
        break;
      }
      written += put;
    }
    if (!problem.empty())
      break;
  }
  // The permission bits are set last, so that a read-only file can still be
  // written while it is copied.
  if (problem.empty() && fchmod(out, mode & kInstalledModeBits) != 0)
    problem = ErrorText(to, errno);
  if (close(out) != 0 && problem.empty())
    problem = ErrorText(to, errno);
  close(in);
  return problem;
}

// Copies what `from` holds into the folder `to`, which exists, then gives
// `to` the permission bits `mode`.
std::string CopyEntries(const std::string& from, const std::string& to, mode_t mode) {
  GError* error = nullptr;
  GDir* dir = g_dir_open(from.c_str(), 0, &error);
  if (!dir) {
    std::string problem = from + ": " + (error ? error->message : "?");
    g_clear_error(&error);
    return problem;
  }
  std::string problem;
  while (const char* name = g_dir_read_name(dir)) {
    std::string source = JoinPath(from, name);
    std::string target = JoinPath(to, name);
    struct stat info;
    if (lstat(source.c_str(), &info) != 0) {
      problem = ErrorText(source, errno);
    } else if (S_ISDIR(info.st_mode)) {
      problem = g_mkdir(target.c_str(), 0700) == 0 ? CopyEntries(source, target, info.st_mode)
                                                   : ErrorText(target, errno);
    } else if (S_ISREG(info.st_mode)) {
      problem = CopyRegularFile(source, target, info.st_mode);
    } else if (S_ISLNK(info.st_mode)) {
      GCharPtr link(g_file_read_link(source.c_str(), nullptr));
      if (!link || symlink(link.get(), target.c_str()) != 0)
        problem = ErrorText(target, errno);
    } else {
      problem = source + ": neither a file, a folder nor a link";
    }
    if (!problem.empty())
      break;
  }
  g_dir_close(dir);
  if (problem.empty() && chmod(to.c_str(), mode & kInstalledModeBits) != 0)
    problem = ErrorText(to, errno);
  return problem;
}

// The trash folders a folder can land in: the home trash and the trash at
// the top of each folder above it (GLib picks the one on its file system).
std::vector<std::string> TrashFileFolders(const std::string& folder) {
  std::vector<std::string> folders = {JoinPath(DataFolder(), "Trash/files")};
  std::string uid = std::to_string(getuid());
  for (std::string above = ParentFolder(folder);; above = ParentFolder(above)) {
    folders.push_back(JoinPath(above, ".Trash-" + uid + "/files"));
    folders.push_back(JoinPath(above, ".Trash/" + uid + "/files"));
    if (above == "/" || above == ".")
      break;
  }
  return folders;
}

} // namespace

std::set<std::string> NamesIn(const std::string& folder) {
  std::set<std::string> names;
  if (GDir* dir = g_dir_open(folder.c_str(), 0, nullptr)) {
    while (const char* name = g_dir_read_name(dir))
      names.insert(name);
    g_dir_close(dir);
  }
  return names;
}

void RemoveTree(const std::string& path) {
  struct stat info;
  if (lstat(path.c_str(), &info) != 0)
    return;
  if (S_ISDIR(info.st_mode)) {
    // A folder without write permission cannot have its entries removed.
    if ((info.st_mode & S_IWUSR) == 0)
      chmod(path.c_str(), (info.st_mode & 07777) | S_IRWXU);
    if (GDir* dir = g_dir_open(path.c_str(), 0, nullptr)) {
      while (const char* name = g_dir_read_name(dir))
        RemoveTree(JoinPath(path, name));
      g_dir_close(dir);
    }
    g_rmdir(path.c_str());
  } else {
    g_unlink(path.c_str());
  }
}

std::string CopyFolder(const std::string& from, const std::string& to) {
  struct stat info;
  if (lstat(from.c_str(), &info) != 0)
    return ErrorText(from, errno);
  if (!S_ISDIR(info.st_mode))
    return from + ": not a folder";
  // The top folder is made here, so that only a folder this copy made is
  // removed after a failure, never one that was there before.
  if (g_mkdir(to.c_str(), 0700) != 0)
    return ErrorText(to, errno);
  std::string problem = CopyEntries(from, to, info.st_mode);
  if (!problem.empty())
    RemoveTree(to);
  return problem;
}

MovedAside MoveAside(const std::string& folder) {
  std::vector<std::string> trash_folders = TrashFileFolders(folder);
  std::vector<std::set<std::string>> before;
  for (const std::string& trash : trash_folders)
    before.push_back(NamesIn(trash));

  auto file = GObjectPtr<GFile>::adopt(g_file_new_for_path(folder.c_str()));
  GError* error = nullptr;
  if (g_file_trash(file.get(), nullptr, &error)) {
    std::vector<std::string> appeared;
    for (size_t i = 0; i < trash_folders.size(); ++i) {
      for (const std::string& name : NamesIn(trash_folders[i])) {
        if (!before[i].count(name))
          appeared.push_back(JoinPath(trash_folders[i], name));
      }
    }
    MovedAside moved;
    if (appeared.size() == 1)
      moved.location = appeared.front();
    return moved;
  }
  std::string trash_error = error && error->message ? error->message : "?";
  g_clear_error(&error);

  std::string beside = folder + ".old-" + NewUpperCaseUuid();
  if (g_rename(folder.c_str(), beside.c_str()) == 0)
    return {beside, ""};
  return {std::nullopt, trash_error};
}

void RemoveMovedAside(const std::string& location) {
  RemoveTree(location);
  std::string files = ParentFolder(location);
  if (g_str_has_suffix(files.c_str(), "/files"))
    g_unlink((ParentFolder(files) + "/info/" + FileName(location) + ".trashinfo").c_str());
}

std::string RenameFolder(const std::string& from, const std::string& to) {
  if (g_rename(from.c_str(), to.c_str()) == 0)
    return "";
  return g_strerror(errno);
}

Staged StageBeside(const std::string& candidate, const std::string& install_folder,
                   const std::string& copy_name) {
  std::string parent = ParentFolder(install_folder);
  struct stat from, to;
  if (lstat(candidate.c_str(), &from) != 0)
    return {"", ErrorText(candidate, errno), false};
  if (stat(parent.c_str(), &to) != 0)
    return {"", ErrorText(parent, errno), false};
  if (from.st_dev == to.st_dev)
    return {candidate, "", false};
  std::string copy = JoinPath(parent, copy_name);
  std::string problem = CopyFolder(candidate, copy);
  if (!problem.empty())
    return {"", problem, false};
  return {copy, "", true};
}

} // namespace orvane
