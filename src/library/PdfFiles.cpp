#include "library/PdfFiles.h"

#include "base/GObjectPtr.h"

#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <glib/gstdio.h>
#include <optional>
#include <unistd.h>

namespace orvane {

namespace {

bool LibraryFileInfo(const std::string& path, struct stat& info) {
  return lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

// Both times of a file set to `seconds`; nullopt for a time that time_t
// cannot hold.
std::optional<std::array<struct timespec, 2>> FileTimes(double seconds) {
  // Beyond about 292 billion years either way (and for NaN) the conversion
  // to time_t is undefined.
  if (!(seconds > -9.2e18 && seconds < 9.2e18))
    return std::nullopt;
  struct timespec time;
  double whole = std::floor(seconds);
  time.tv_sec = time_t(whole);
  time.tv_nsec = long(std::lround((seconds - whole) * 1e9));
  if (time.tv_nsec >= 1000000000L) {
    time.tv_sec += 1;
    time.tv_nsec -= 1000000000L;
  }
  return std::array<struct timespec, 2>{time, time};
}

bool WriteAll(int fd, const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t written = write(fd, bytes.data() + done, bytes.size() - done);
    if (written < 0 && errno == EINTR)
      continue;
    if (written <= 0)
      return false;
    done += size_t(written);
  }
  return true;
}

} // namespace

double ModificationTime(const struct stat& info) {
  return double(info.st_mtim.tv_sec) + double(info.st_mtim.tv_nsec) / 1e9;
}

double MTime(const std::string& path) {
  struct stat info;
  return LibraryFileInfo(path, info) ? ModificationTime(info) : 0;
}

int64_t FileSize(const std::string& path) {
  struct stat info;
  return LibraryFileInfo(path, info) ? int64_t(info.st_size) : 0;
}

bool FileExists(const std::string& path) {
  struct stat info;
  return LibraryFileInfo(path, info);
}

int OpenLibraryFile(const std::string& path, struct stat& info) {
  // O_NONBLOCK: opening a FIFO for reading would otherwise wait for a writer.
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
  if (fd < 0)
    return -1;
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    close(fd);
    return -1;
  }
  return fd;
}

bool CompletePdf(const std::string& path) {
  struct stat info;
  int fd = OpenLibraryFile(path, info);
  if (fd < 0)
    return false;
  char head[5] = {};
  ssize_t head_read = pread(fd, head, sizeof head, 0);
  off_t length = info.st_size;
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

bool WriteFileAtomically(const std::string& path, const std::string& bytes, double mtime) {
  // mkstemp creates the temporary file exclusively: it never opens an
  // existing name, so never a link planted there.
  std::string temp = path + kAtomicWriteSuffix;
  int fd = g_mkstemp_full(temp.data(), O_WRONLY | O_CLOEXEC, 0644);
  if (fd < 0)
    return false;
  // Replacing a file, its successor's bytes must be on disk before the
  // rename, or a crash could leave an empty file where a good one was.
  struct stat old;
  bool replacing = lstat(path.c_str(), &old) == 0;
  // The stamp goes on last: writing would move it again.
  auto times = FileTimes(mtime);
  bool ok = WriteAll(fd, bytes) && (!replacing || fsync(fd) == 0);
  if (ok && times)
    futimens(fd, times->data());
  ok = close(fd) == 0 && ok;
  // rename replaces the name itself: a link there is replaced, not followed.
  if (ok && rename(temp.c_str(), path.c_str()) == 0)
    return true;
  g_unlink(temp.c_str());
  return false;
}

void SetMTime(const std::string& path, double seconds) {
  if (auto times = FileTimes(seconds))
    utimensat(AT_FDCWD, path.c_str(), times->data(), AT_SYMLINK_NOFOLLOW);
}

} // namespace orvane
