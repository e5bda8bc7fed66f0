#include "base/SparLog.h"

#include "base/Paths.h"
#include "base/Text.h"

#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <glib.h>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

namespace orvane {

namespace {

std::string ShortestNumber(double value) {
  // "%@" of a number prints its shortest form, as the log's rectangles do.
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%.15g", value);
  return buffer;
}

std::mutex& TestPathMutex() {
  static std::mutex mutex;
  return mutex;
}

std::string& TestPath() {
  static std::string path;
  return path;
}

} // namespace

std::string LogArg::describe() const {
  switch (kind_) {
  case Kind::Missing:
    return "(null)";
  case Kind::Text:
    return text_;
  case Kind::Signed:
    return std::to_string(signed_);
  case Kind::Unsigned:
    return std::to_string(unsigned_);
  case Kind::Real:
    return ShortestNumber(real_);
  }
  return "(null)";
}

long long LogArg::asSigned() const {
  switch (kind_) {
  case Kind::Signed:
    return signed_;
  case Kind::Unsigned:
    return static_cast<long long>(unsigned_);
  case Kind::Real:
    return static_cast<long long>(real_);
  default:
    return 0;
  }
}

unsigned long long LogArg::asUnsigned() const {
  switch (kind_) {
  case Kind::Signed:
    return static_cast<unsigned long long>(signed_);
  case Kind::Unsigned:
    return unsigned_;
  case Kind::Real:
    return static_cast<unsigned long long>(real_);
  default:
    return 0;
  }
}

double LogArg::asReal() const {
  switch (kind_) {
  case Kind::Signed:
    return static_cast<double>(signed_);
  case Kind::Unsigned:
    return static_cast<double>(unsigned_);
  case Kind::Real:
    return real_;
  default:
    return 0;
  }
}

std::string FormatLogMessage(std::string_view format, std::initializer_list<LogArg> args) {
  static const LogArg kMissing(nullptr);
  std::string out;
  out.reserve(format.size() + 32);
  auto next = args.begin();
  auto take = [&]() -> const LogArg& { return next != args.end() ? *next++ : kMissing; };

  for (size_t i = 0; i < format.size(); ++i) {
    char c = format[i];
    if (c != '%' || i + 1 >= format.size()) {
      out += c;
      continue;
    }
    // Collect flags, width and precision, then length modifiers.
    size_t j = i + 1;
    while (j < format.size() &&
           std::string_view("-+ #0123456789.").find(format[j]) != std::string_view::npos)
      ++j;
    std::string_view flags = format.substr(i + 1, j - i - 1);
    while (j < format.size() &&
           (format[j] == 'l' || format[j] == 'h' || format[j] == 'q' || format[j] == 'z'))
      ++j;
    if (j >= format.size()) {
      out.append(format.substr(i));
      break;
    }
    char conversion = format[j];
    std::string flag_text(flags);
    char buffer[128];
    switch (conversion) {
    case '%':
      out += '%';
      break;
    case '@':
    case 's': {
      // Text comes from anywhere (the bus, a page, /proc, a dropped file's
      // name): escaped here, once for every caller, so that nothing in it
      // can end the line or start one of its own choosing.
      const LogArg& arg = take();
      if (arg.kind() == LogArg::Kind::Text)
        out += LogEscapedText(arg.describe());
      else
        out += arg.describe();
      break;
    }
    case 'd':
    case 'i': {
      const LogArg& arg = take();
      std::snprintf(buffer, sizeof buffer, ("%" + flag_text + "lld").c_str(), arg.asSigned());
      out += buffer;
      break;
    }
    case 'u': {
      const LogArg& arg = take();
      std::snprintf(buffer, sizeof buffer, ("%" + flag_text + "llu").c_str(), arg.asUnsigned());
      out += buffer;
      break;
    }
    case 'x':
    case 'X': {
      const LogArg& arg = take();
      std::snprintf(buffer, sizeof buffer, ("%" + flag_text + "ll" + conversion).c_str(),
                    arg.asUnsigned());
      out += buffer;
      break;
    }
    case 'f':
    case 'g':
    case 'e': {
      const LogArg& arg = take();
      std::snprintf(buffer, sizeof buffer, ("%" + flag_text + conversion).c_str(), arg.asReal());
      out += buffer;
      break;
    }
    default:
      // Not a conversion we know: keep the text as written.
      out.append(format.substr(i, j - i + 1));
      break;
    }
    i = j;
  }
  return out;
}

const std::string& LogFilePath() {
  static std::once_flag once;
  static std::string path;
  std::call_once(once, [] { path = StateFolder() + "/orvane/Orvane.log"; });
  return path;
}

void SetLogFilePathForTesting(const std::string& path) {
  std::lock_guard<std::mutex> lock(TestPathMutex());
  TestPath() = path;
}

void WriteLogLine(std::string_view message) {
  std::string path;
  {
    std::lock_guard<std::mutex> lock(TestPathMutex());
    path = TestPath();
  }
  if (path.empty())
    path = LogFilePath();

  time_t now = time(nullptr);
  struct tm local;
  localtime_r(&now, &local);
  char stamp[16];
  strftime(stamp, sizeof stamp, "%H:%M:%S", &local);

  std::string line;
  line.reserve(message.size() + 12);
  line += stamp;
  line += "  ";
  line += message;
  line += '\n';

  int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0 && errno == ENOENT) {
    // A fresh account may have no state folder yet: make it and the log's
    // own folder, private as the XDG base-directory rules ask.
    size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0 &&
        g_mkdir_with_parents(path.substr(0, slash).c_str(), 0700) == 0)
      fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  }
  if (fd < 0)
    return;
  // One write keeps lines from different threads whole.
  ssize_t written = write(fd, line.data(), line.size());
  (void)written;
  close(fd);
}

} // namespace orvane
