#include "library/HttpTransfer.h"

#include "base/GObjectPtr.h"
#include "base/MainThread.h"

#include <cstdlib>
#include <fcntl.h>
#include <libsoup/soup.h>
#include <map>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace orvane {

namespace {

constexpr size_t kBufferSize = 1024 * 1024;

GObjectPtr<SoupSession> NewSession(unsigned idle_timeout_seconds) {
  // One session per transfer thread: libsoup sessions are used from the
  // thread that made them. Its time-out bounds each wait on the socket, so
  // it ends a transfer that goes that long without a byte.
  return GObjectPtr<SoupSession>::adopt(
      soup_session_new_with_options("timeout", idle_timeout_seconds, nullptr));
}

GObjectPtr<SoupMessage> NewMessage(const char* method, const std::string& url,
                                   std::optional<std::string>& error) {
  auto message = GObjectPtr<SoupMessage>::adopt(soup_message_new(method, url.c_str()));
  if (!message)
    error = "unsupported URL";
  return message;
}

bool WriteAll(int fd, const char* data, size_t length) {
  while (length > 0) {
    ssize_t written = write(fd, data, length);
    if (written < 0)
      return false;
    data += written;
    length -= size_t(written);
  }
  return true;
}

void RunDownload(std::string url, std::string file, unsigned idle_timeout_seconds,
                 std::function<void(TransferResult)> done) {
  TransferResult result;
  {
    auto session = NewSession(idle_timeout_seconds);
    auto message = NewMessage("GET", url, result.error);
    if (message) {
      GErrorPtr error;
      auto body = GObjectPtr<GInputStream>::adopt(
          soup_session_send(session.get(), message.get(), nullptr, error.out()));
      result.status = soup_message_get_status(message.get());
      if (!body) {
        result.error = error.message();
        result.status = 0;
      } else if (result.status == SOUP_STATUS_OK) {
        int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0) {
          result.error = g_strerror(errno);
        } else {
          goffset expected = soup_message_headers_get_content_length(
              soup_message_get_response_headers(message.get()));
          goffset received = 0;
          std::vector<char> buffer(kBufferSize);
          while (true) {
            gssize n =
                g_input_stream_read(body.get(), buffer.data(), buffer.size(), nullptr, error.out());
            if (n < 0) {
              result.error = error.message();
              break;
            }
            if (n == 0)
              break;
            if (!WriteAll(fd, buffer.data(), size_t(n))) {
              result.error = g_strerror(errno);
              break;
            }
            received += n;
          }
          if (!result.error && expected > 0 && received != expected) {
            result.error = "The connection was lost before the whole file arrived";
            result.cut_short = true;
          }
          // The file counts only once its bytes are on the disk: a rename
          // after a crash must not reveal an empty or partial file.
          if (!result.error && fsync(fd) != 0)
            result.error = g_strerror(errno);
          if (close(fd) != 0 && !result.error)
            result.error = g_strerror(errno);
        }
      }
      if (body)
        g_input_stream_close(body.get(), nullptr, nullptr);
    }
  }
  RunOnMainLoop(
      [done = std::move(done), result = std::move(result)]() mutable { done(std::move(result)); });
}

// Uploads speak HTTP/1.1 over a GIO socket connection of their own rather
// than through libsoup, which writes a request body in 8 KiB pieces: with
// one large write per megabyte an upload runs at the speed of the link.
// GIO still brings TLS, proxies and time-outs.
struct ResponseHead {
  long status = 0;
  std::map<std::string, std::string> headers; // lower-case names
};

std::optional<std::string> ReadLine(GDataInputStream* in, std::string& line) {
  GErrorPtr error;
  gsize length = 0;
  GCharPtr text(g_data_input_stream_read_line(in, &length, nullptr, error.out()));
  if (!text) {
    return error ? error.message() : std::string("The server closed the connection");
  }
  line.assign(text.get(), length);
  if (!line.empty() && line.back() == '\r')
    line.pop_back();
  return std::nullopt;
}

std::optional<std::string> ReadHead(GDataInputStream* in, ResponseHead& head) {
  std::string line;
  // Interim answers (100 Continue) come before the real one.
  do {
    if (auto error = ReadLine(in, line))
      return error;
    if (line.rfind("HTTP/", 0) != 0)
      return std::string("The server's answer was not HTTP");
    size_t space = line.find(' ');
    head.status = space == std::string::npos ? 0 : std::atol(line.c_str() + space + 1);
    head.headers.clear();
    while (true) {
      if (auto error = ReadLine(in, line))
        return error;
      if (line.empty())
        break;
      size_t colon = line.find(':');
      if (colon == std::string::npos)
        continue;
      std::string name = line.substr(0, colon);
      for (char& c : name)
        c = g_ascii_tolower(c);
      size_t value = line.find_first_not_of(" \t", colon + 1);
      head.headers[name] = value == std::string::npos ? "" : line.substr(value);
    }
  } while (head.status >= 100 && head.status < 200);
  return std::nullopt;
}

std::optional<std::string> ReadExactly(GInputStream* in, size_t count, std::string& out) {
  size_t start = out.size();
  out.resize(start + count);
  gsize read = 0;
  GErrorPtr error;
  if (!g_input_stream_read_all(in, out.data() + start, count, &read, nullptr, error.out()))
    return error.message();
  out.resize(start + read);
  return read == count ? std::nullopt
                       : std::optional<std::string>("The connection was lost before the answer");
}

std::optional<std::string> ReadBody(GDataInputStream* in, const ResponseHead& head,
                                    std::string& body) {
  auto encoding = head.headers.find("transfer-encoding");
  if (encoding != head.headers.end() && encoding->second.find("chunked") != std::string::npos) {
    std::string line;
    while (true) {
      if (auto error = ReadLine(in, line))
        return error;
      size_t size = std::strtoul(line.c_str(), nullptr, 16);
      if (size == 0)
        return std::nullopt;
      if (auto error = ReadExactly(G_INPUT_STREAM(in), size, body))
        return error;
      if (auto error = ReadLine(in, line)) // the chunk's own line end
        return error;
    }
  }
  auto length = head.headers.find("content-length");
  if (length != head.headers.end())
    return ReadExactly(G_INPUT_STREAM(in), size_t(std::atoll(length->second.c_str())), body);
  // Neither: the body runs to the end of the connection.
  char buffer[16384];
  while (true) {
    GErrorPtr error;
    gssize n = g_input_stream_read(G_INPUT_STREAM(in), buffer, sizeof buffer, nullptr, error.out());
    if (n < 0)
      return error.message();
    if (n == 0)
      return std::nullopt;
    body.append(buffer, size_t(n));
  }
}

// One PUT; on a 307 or 308 answer `redirect` names the next address.
TransferResult PutOnce(const UploadRequest& request, const std::string& url,
                       std::string& redirect) {
  TransferResult result;
  GErrorPtr error;
  GUri* uri = g_uri_parse(url.c_str(), G_URI_FLAGS_ENCODED, error.out());
  if (!uri) {
    result.error = error.message();
    return result;
  }
  std::string scheme = g_uri_get_scheme(uri) ? g_uri_get_scheme(uri) : "";
  std::string host = g_uri_get_host(uri) ? g_uri_get_host(uri) : "";
  int port = g_uri_get_port(uri);
  std::string target = *g_uri_get_path(uri) ? g_uri_get_path(uri) : "/";
  if (g_uri_get_query(uri))
    target += std::string("?") + g_uri_get_query(uri);
  g_uri_unref(uri);
  bool secure = scheme == "https";
  if ((scheme != "http" && !secure) || host.empty()) {
    result.error = "unsupported URL";
    return result;
  }
  int default_port = secure ? 443 : 80;
  std::string authority = host.find(':') != std::string::npos ? "[" + host + "]" : host;
  if (port > 0 && port != default_port)
    authority += ":" + std::to_string(port);

  int fd = open(request.file.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat info;
  if (fd < 0 || fstat(fd, &info) != 0) {
    result.error = g_strerror(errno);
    if (fd >= 0)
      close(fd);
    return result;
  }

  auto client = GObjectPtr<GSocketClient>::adopt(g_socket_client_new());
  g_socket_client_set_tls(client.get(), secure);
  g_socket_client_set_timeout(client.get(), request.timeout_seconds);
  auto connection = GObjectPtr<GSocketConnection>::adopt(g_socket_client_connect_to_host(
      client.get(), authority.c_str(), guint16(default_port), nullptr, error.out()));
  if (!connection) {
    close(fd);
    result.error = error.message();
    return result;
  }
  std::string head =
      "PUT " + target + " HTTP/1.1\r\nHost: " + authority +
      "\r\nUser-Agent: Orvane/1.0\r\nConnection: close\r\nContent-Type: " + request.content_type +
      "\r\nContent-Length: " + std::to_string(info.st_size) + "\r\n";
  for (const auto& [name, value] : request.headers)
    head += name + ": " + value + "\r\n";
  head += "\r\n";
  GOutputStream* out = g_io_stream_get_output_stream(G_IO_STREAM(connection.get()));
  bool sent =
      g_output_stream_write_all(out, head.data(), head.size(), nullptr, nullptr, error.out());
  std::vector<char> buffer(kBufferSize);
  while (sent) {
    ssize_t n = read(fd, buffer.data(), buffer.size());
    if (n < 0) {
      result.error = g_strerror(errno);
      break;
    }
    if (n == 0)
      break;
    sent = g_output_stream_write_all(out, buffer.data(), size_t(n), nullptr, nullptr, error.out());
  }
  close(fd);
  if (result.error)
    return result;
  // A server may refuse early and close while the body is still going out;
  // its answer, when it sent one, says more than the broken pipe.
  std::optional<std::string> write_error;
  if (!sent)
    write_error = error.message();

  auto in = GObjectPtr<GDataInputStream>::adopt(
      g_data_input_stream_new(g_io_stream_get_input_stream(G_IO_STREAM(connection.get()))));
  g_data_input_stream_set_newline_type(in.get(), G_DATA_STREAM_NEWLINE_TYPE_LF);
  ResponseHead response;
  if (auto read_error = ReadHead(in.get(), response)) {
    result.error = write_error ? write_error : read_error;
    return result;
  }
  result.status = response.status;
  if (auto read_error = ReadBody(in.get(), response, result.body)) {
    result.error = read_error;
    result.status = 0;
    return result;
  }
  if ((response.status == 307 || response.status == 308) && response.headers.count("location")) {
    GUri* base = g_uri_parse(url.c_str(), G_URI_FLAGS_ENCODED, nullptr);
    GUri* next = base ? g_uri_parse_relative(base, response.headers["location"].c_str(),
                                             G_URI_FLAGS_ENCODED, nullptr)
                      : nullptr;
    if (next) {
      GCharPtr text(g_uri_to_string(next));
      redirect = text.str();
      g_uri_unref(next);
    }
    if (base)
      g_uri_unref(base);
  }
  g_io_stream_close(G_IO_STREAM(connection.get()), nullptr, nullptr);
  return result;
}

void RunUpload(UploadRequest request, std::function<void(TransferResult)> done) {
  TransferResult result;
  std::string url = request.url;
  // Redirects that keep the method (307, 308) are followed, a few at most.
  for (int hop = 0; hop < 5; ++hop) {
    std::string redirect;
    result = PutOnce(request, url, redirect);
    if (redirect.empty())
      break;
    url = redirect;
  }
  RunOnMainLoop(
      [done = std::move(done), result = std::move(result)]() mutable { done(std::move(result)); });
}

} // namespace

void DownloadToFile(const std::string& url, const std::string& file,
                    std::function<void(TransferResult)> done, unsigned idle_timeout_seconds) {
  std::thread(RunDownload, url, file, idle_timeout_seconds, std::move(done)).detach();
}

void UploadFromFile(const UploadRequest& request, std::function<void(TransferResult)> done) {
  std::thread(RunUpload, request, std::move(done)).detach();
}

} // namespace orvane
