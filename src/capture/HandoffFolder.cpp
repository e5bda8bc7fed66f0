#include "capture/HandoffFolder.h"

#include "base/BuildInfo.h"
#include "base/GObjectPtr.h"
#include "base/Paths.h"

#include <cstdlib>
#include <fcntl.h>
#include <glib/gstdio.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace orvane {

std::string HandoffFolder() {
  std::string folder = JoinPath(CacheFolder(), kApplicationId);
  g_mkdir_with_parents(folder.c_str(), 0700);
  return folder;
}

std::string HandoffFile(const std::string& name) {
  return JoinPath(HandoffFolder(), name);
}

std::optional<std::string> ReadHandoffOnce(const std::string& path, size_t max_bytes,
                                           double* modified) {
  int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
  std::optional<std::string> text;
  struct stat info;
  if (fd >= 0 && fstat(fd, &info) == 0 && S_ISREG(info.st_mode) &&
      size_t(info.st_size) <= max_bytes) {
    if (modified)
      *modified = double(info.st_mtim.tv_sec) + double(info.st_mtim.tv_nsec) / 1e9;
    std::string bytes;
    char buffer[65536];
    ssize_t got = 0;
    // Bounded even when the file grows while it is read.
    while (bytes.size() <= max_bytes && (got = read(fd, buffer, sizeof buffer)) > 0)
      bytes.append(buffer, size_t(got));
    if (got == 0 && bytes.size() <= max_bytes &&
        g_utf8_validate(bytes.data(), bytes.size(), nullptr))
      text = std::move(bytes);
  }
  if (fd >= 0)
    close(fd);
  g_unlink(path.c_str());
  return text;
}

std::optional<std::string> TakeHandoffFile(const std::string& path) {
  double modified = 0;
  std::optional<std::string> text = ReadHandoffOnce(path, kMaxHandoffBytes, &modified);
  double now_seconds = double(g_get_real_time()) / 1e6;
  if (!text || text->empty() || now_seconds - modified > kHandoffMaxAge)
    return std::nullopt; // nothing, or a stale hand-off from an earlier capture
  return text;
}

std::optional<Point> ParseScreenHint(const std::string& text) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (true) {
    size_t blank = text.find(' ', start);
    parts.push_back(
        text.substr(start, blank == std::string::npos ? std::string::npos : blank - start));
    if (blank == std::string::npos)
      break;
    start = blank + 1;
  }
  if (parts.size() != 2)
    return std::nullopt;
  // Lenient like a number read from text: what does not parse reads as 0.
  return Point{std::strtod(parts[0].c_str(), nullptr), std::strtod(parts[1].c_str(), nullptr)};
}

} // namespace orvane
