#include "web/ServerFailurePage.h"

#include "base/Text.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orvane {

std::string ServerLogTail(const std::string& path, size_t max_bytes, size_t max_lines) {
  // Only a regular file of ours is read (never a FIFO or a device someone
  // put in its place, nor a file another account made first in a shared
  // folder, whose text the page would present as our server's), and never
  // more than the bound, however large it is.
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0)
    return std::string();
  struct stat info = {};
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_uid != geteuid()) {
    close(fd);
    return std::string();
  }
  off_t size = info.st_size;
  off_t start = size > off_t(max_bytes) ? size - off_t(max_bytes) : 0;
  std::string bytes(size_t(size - start), '\0');
  size_t got = 0;
  while (got < bytes.size()) {
    ssize_t n = pread(fd, bytes.data() + got, bytes.size() - got, start + off_t(got));
    if (n <= 0)
      break;
    got += size_t(n);
  }
  close(fd);
  bytes.resize(got);

  // A start in the middle of the file is most likely in the middle of a line.
  if (start > 0) {
    size_t newline = bytes.find('\n');
    bytes.erase(0, newline == std::string::npos ? bytes.size() : newline + 1);
  }
  // No NUL reaches the page; other control characters are shown as they are
  // by the escaping below.
  std::replace(bytes.begin(), bytes.end(), '\0', ' ');
  while (!bytes.empty() && bytes.back() == '\n')
    bytes.pop_back();

  // The last lines: back from the end, one newline per line.
  size_t begin = bytes.size();
  for (size_t lines = 0; begin > 0 && lines < max_lines; ++lines) {
    size_t newline = bytes.rfind('\n', begin - 1);
    begin = newline == std::string::npos ? 0 : newline;
  }
  if (begin > 0 || (begin == 0 && !bytes.empty() && bytes[0] == '\n'))
    ++begin; // past the newline before the first line kept
  return ValidUtf8(std::string_view(bytes).substr(std::min(begin, bytes.size())));
}

std::string HtmlEscaped(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
    case '&':
      out += "&amp;";
      break;
    case '<':
      out += "&lt;";
      break;
    case '>':
      out += "&gt;";
      break;
    case '"':
      out += "&quot;";
      break;
    case '\'':
      out += "&#39;";
      break;
    default:
      out += c;
    }
  }
  return out;
}

std::string ServerFailurePage(const std::string& site_address, const std::string& log_path,
                              const std::string& log_tail) {
  std::string site = HtmlEscaped(ValidUtf8(site_address));
  std::string log = HtmlEscaped(ValidUtf8(log_path));
  std::string tail = log_tail.empty() ? std::string("(the log is empty or cannot be read)")
                                      : HtmlEscaped(ValidUtf8(log_tail));
  return "<!DOCTYPE html>\n"
         "<html><head><meta charset=\"utf-8\">\n"
         "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; "
         "style-src 'unsafe-inline'\">\n"
         "<title>Orvane: the library site did not start</title>\n"
         "<style>\n"
         "body{margin:0;font:15px sans-serif;color:#1d1d1f;background:#fbf4f2}\n"
         "header{background:#b3261e;color:#fff;padding:18px 28px}\n"
         "h1{margin:0;font-size:20px}\n"
         "main{padding:8px 28px 28px}\n"
         "pre{background:#fff;border:1px solid #e0c9c4;padding:12px;white-space:pre-wrap;"
         "overflow-wrap:anywhere;font:13px monospace}\n"
         "</style></head>\n"
         "<body><header><h1 id=\"orvane-server-failure\">The library site did not start</h1>"
         "</header>\n<main>\n"
         "<p>Orvane started the site's development server, but nothing answered at <code>" +
         site + "</code>. The server's last lines (from <code>" + log +
         "</code>) usually say what is missing, such as a Python package:</p>\n"
         "<pre id=\"server-log\">" +
         tail +
         "</pre>\n"
         "<p>Install what is missing and open the library again (Ctrl+L).</p>\n"
         "</main></body></html>\n";
}

} // namespace orvane
