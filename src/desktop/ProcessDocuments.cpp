#include "desktop/ProcessDocuments.h"

#include "base/GObjectPtr.h"
#include "base/Paths.h"

#include <dirent.h>
#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <optional>
#include <set>
#include <utility>

namespace orvane {

namespace {

// Bounds that keep a strange process from costing much.
constexpr size_t kMaxCommandLineBytes = 1 << 22;
constexpr size_t kMaxArguments = 4096;
constexpr size_t kMaxOpenFiles = 65536;

// A /proc file, read without waiting on anything that is not a plain file.
std::string ReadBounded(const std::string& path, size_t max_bytes) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0)
    return "";
  std::string text;
  struct stat info;
  if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
    char buffer[65536];
    while (text.size() < max_bytes) {
      ssize_t got = read(fd, buffer, sizeof buffer);
      if (got <= 0)
        break;
      text.append(buffer, std::min(size_t(got), max_bytes - text.size()));
    }
  }
  close(fd);
  return text;
}

std::optional<std::string> ReadLink(const std::string& path) {
  char target[PATH_MAX];
  ssize_t length = readlink(path.c_str(), target, sizeof target);
  if (length <= 0 || size_t(length) >= sizeof target)
    return std::nullopt;
  return std::string(target, size_t(length));
}

// An argument as a file path: a file:// address decoded, a relative path
// taken from the process's working folder (nothing when that is unknown).
std::optional<std::string> ArgumentPath(const std::string& argument,
                                        const std::optional<std::string>& folder) {
  if (g_ascii_strncasecmp(argument.c_str(), "file:", 5) == 0) {
    GCharPtr path(g_filename_from_uri(argument.c_str(), nullptr, nullptr));
    if (!path)
      return std::nullopt;
    return path.str();
  }
  if (argument.empty() || argument[0] == '-')
    return std::nullopt;
  if (argument[0] == '/')
    return argument;
  if (!folder)
    return std::nullopt;
  return JoinPath(*folder, argument);
}

class ExistingPdfs {
public:
  // Adds the path when it names an existing regular PDF file not yet listed.
  void add(const std::string& path) {
    struct stat info;
    if (path.empty() || !HasPdfExtension(path) || stat(path.c_str(), &info) != 0 ||
        !S_ISREG(info.st_mode))
      return;
    if (seen_.insert({info.st_dev, info.st_ino}).second)
      list_.push_back(path);
  }
  std::vector<std::string> take() { return std::move(list_); }

private:
  std::vector<std::string> list_;
  std::set<std::pair<dev_t, ino_t>> seen_;
};

void AddCommandLinePdfs(int pid, const std::string& proc_root, ExistingPdfs& pdfs) {
  // Read once for every relative argument.
  std::optional<std::string> folder = ProcessWorkingFolder(pid, proc_root);
  for (const std::string& argument : ProcessArguments(pid, proc_root))
    if (std::optional<std::string> path = ArgumentPath(argument, folder))
      pdfs.add(*path);
}

// Calls `visit` with the target of each of the process's open files, at
// most `limit` entries of /proc/PID/fd, until it returns false.
template <typename Visit>
void ForEachOpenFileTarget(const std::string& process, size_t limit, Visit visit) {
  std::string folder = process + "/fd";
  DIR* dir = opendir(folder.c_str());
  if (!dir)
    return;
  size_t entries = 0;
  while (struct dirent* entry = readdir(dir)) {
    if (++entries > limit)
      break;
    if (entry->d_name[0] == '.')
      continue;
    std::optional<std::string> target = ReadLink(folder + "/" + entry->d_name);
    if (target && !visit(*target))
      break;
  }
  closedir(dir);
}

void AddOpenPdfs(const std::string& process, ExistingPdfs& pdfs) {
  ForEachOpenFileTarget(process, kMaxOpenFiles, [&pdfs](const std::string& target) {
    if (!target.empty() && target[0] == '/')
      pdfs.add(target);
    return true;
  });
}

} // namespace

std::vector<std::string> ProcessArguments(int pid, const std::string& proc_root) {
  std::string process = JoinPath(proc_root, std::to_string(pid));
  std::string command_line = ReadBounded(process + "/cmdline", kMaxCommandLineBytes);
  std::vector<std::string> arguments;
  size_t start = 0;
  while (start < command_line.size() && arguments.size() < kMaxArguments) {
    size_t end = command_line.find('\0', start);
    if (end == std::string::npos)
      end = command_line.size();
    arguments.push_back(command_line.substr(start, end - start));
    start = end + 1;
  }
  return arguments;
}

std::optional<std::string> ProcessWorkingFolder(int pid, const std::string& proc_root) {
  std::optional<std::string> folder = ReadLink(JoinPath(proc_root, std::to_string(pid)) + "/cwd");
  if (folder && (*folder)[0] != '/')
    return std::nullopt;
  return folder;
}

bool HasPdfExtension(const std::string& path) {
  return path.size() >= 4 && g_ascii_strcasecmp(path.c_str() + path.size() - 4, ".pdf") == 0;
}

std::vector<std::string> PdfFilesOfProcess(int pid, const std::string& proc_root) {
  ExistingPdfs pdfs;
  if (pid <= 0)
    return pdfs.take();
  std::string process = JoinPath(proc_root, std::to_string(pid));
  AddCommandLinePdfs(pid, proc_root, pdfs);
  AddOpenPdfs(process, pdfs);
  return pdfs.take();
}

bool HoldsPseudoTerminalMaster(int pid, const std::string& proc_root) {
  if (pid <= 0)
    return false;
  bool found = false;
  ForEachOpenFileTarget(JoinPath(proc_root, std::to_string(pid)), kMaxPseudoTerminalScan,
                        [&found](const std::string& target) {
                          found = target == "/dev/ptmx" || target == "/dev/pts/ptmx";
                          return !found;
                        });
  return found;
}

} // namespace orvane
