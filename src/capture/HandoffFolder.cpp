#include "capture/HandoffFolder.h"

#include "base/BuildInfo.h"
#include "base/GObjectPtr.h"
#include "base/Paths.h"

#include <cstdlib>
#include <glib/gstdio.h>
#include <sys/stat.h>
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

std::optional<std::string> TakeHandoffFile(const std::string& path) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0)
    return std::nullopt;
  GCharPtr contents;
  gsize length = 0;
  bool read = g_file_get_contents(path.c_str(), contents.out(), &length, nullptr);
  g_unlink(path.c_str());
  double now_seconds = double(g_get_real_time()) / 1e6;
  double modified = double(info.st_mtim.tv_sec) + double(info.st_mtim.tv_nsec) / 1e9;
  if (now_seconds - modified > kHandoffMaxAge)
    return std::nullopt; // a stale hand-off from an earlier capture
  if (!read || length == 0)
    return std::nullopt;
  std::string text(contents.get(), length);
  if (!g_utf8_validate(text.data(), text.size(), nullptr))
    return std::nullopt;
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
