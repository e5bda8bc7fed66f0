#include "library/PdfFiles.h"

#include "base/GObjectPtr.h"

#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orvane {

double MTime(const std::string& path) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0)
    return 0;
  return double(info.st_mtim.tv_sec) + double(info.st_mtim.tv_nsec) / 1e9;
}

int64_t FileSize(const std::string& path) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0)
    return 0;
  return int64_t(info.st_size);
}

bool FileExists(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0;
}

bool CompletePdf(const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    return false;
  char head[5] = {};
  ssize_t head_read = pread(fd, head, sizeof head, 0);
  off_t length = lseek(fd, 0, SEEK_END);
  if (length <= 31) {
    close(fd);
    return false;
  }
  off_t start = length < 2048 ? 0 : length - 2048;
  std::string tail(size_t(length - start), '\0');
  ssize_t tail_read = pread(fd, tail.data(), tail.size(), start);
  close(fd);
  if (head_read != 5 || std::memcmp(head, "%PDF-", 5) != 0 || tail_read <= 0)
    return false;
  tail.resize(size_t(tail_read));
  return tail.find("%%EOF") != std::string::npos;
}

std::string FileName(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string LowerExtension(const std::string& path) {
  std::string name = FileName(path);
  size_t dot = name.rfind('.');
  // A leading dot alone marks a hidden file, not an extension.
  if (dot == std::string::npos || dot == 0)
    return "";
  std::string extension = name.substr(dot + 1);
  for (char& c : extension)
    if (c >= 'A' && c <= 'Z')
      c = char(c - 'A' + 'a');
  return extension;
}

bool WriteFileAtomically(const std::string& path, const std::string& bytes) {
  // g_file_set_contents writes a temporary file in the same folder, syncs
  // it and renames it over the target.
  return g_file_set_contents(path.c_str(), bytes.data(), gssize(bytes.size()), nullptr);
}

void SetMTime(const std::string& path, double seconds) {
  struct timespec times[2];
  double whole = std::floor(seconds);
  times[0].tv_sec = time_t(whole);
  times[0].tv_nsec = long(std::lround((seconds - whole) * 1e9));
  if (times[0].tv_nsec >= 1000000000L) {
    times[0].tv_sec += 1;
    times[0].tv_nsec -= 1000000000L;
  }
  times[1] = times[0];
  utimensat(AT_FDCWD, path.c_str(), times, 0);
}

} // namespace orvane
