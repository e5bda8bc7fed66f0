#include "library/HttpTransfer.h"

#include "base/GObjectPtr.h"
#include "base/HttpResponseParser.h"
#include "base/MainThread.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <fcntl.h>
#include <libsoup/soup.h>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace orvane {

namespace {

constexpr size_t kBufferSize = 1024 * 1024;
constexpr goffset kWriteBackStep = 8 * 1024 * 1024;

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

// A file descriptor closed when it goes out of scope.
class FileDescriptor {
public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  ~FileDescriptor() { close(); }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  int get() const { return fd_; }
  int close() {
    int result = fd_ >= 0 ? ::close(fd_) : 0;
    fd_ = -1;
    return result;
  }

private:
  int fd_;
};

bool WriteAll(int fd, const char* data, size_t length) {
  while (length > 0) {
    ssize_t written = write(fd, data, length);
    if (written < 0 && errno == EINTR)
      continue;
    if (written < 0)
      return false;
    data += written;
    length -= size_t(written);
  }
  return true;
}

void Download(const std::string& url, const std::string& file, unsigned idle_timeout_seconds,
              DownloadFile how, TransferResult& result) {
  auto session = NewSession(idle_timeout_seconds);
  auto message = NewMessage("GET", url, result.error);
  if (!message)
    return;
  GErrorPtr error;
  auto body = GObjectPtr<GInputStream>::adopt(
      soup_session_send(session.get(), message.get(), nullptr, error.out()));
  result.status = soup_message_get_status(message.get());
  if (!body) {
    result.error = error.message();
    result.status = 0;
    return;
  }
  if (result.status == SOUP_STATUS_OK) {
    FileDescriptor fd(
        how == DownloadFile::kCreateNew
            ? open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600)
            : open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (fd.get() < 0) {
      result.error = g_strerror(errno);
    } else {
      goffset expected =
          soup_message_headers_get_content_length(soup_message_get_response_headers(message.get()));
      goffset received = 0;
      goffset flushed = 0;
      std::vector<char> buffer(kBufferSize);
      while (true) {
        gssize n =
            g_input_stream_read(body.get(), buffer.data(), buffer.size(), nullptr, error.out());
        if (n < 0) {
          result.error = error.message();
          // The connection ended before the body's declared length.
          result.cut_short = error.matches(G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT);
          break;
        }
        if (n == 0)
          break;
        if (!WriteAll(fd.get(), buffer.data(), size_t(n))) {
          result.error = g_strerror(errno);
          break;
        }
        received += n;
        // Start writing each few megabytes back to the disk while the rest
        // arrives, so that the flush at the end has little left to wait for.
        if (received - flushed >= kWriteBackStep) {
          sync_file_range(fd.get(), flushed, received - flushed, SYNC_FILE_RANGE_WRITE);
          flushed = received;
        }
      }
      if (!result.error && expected > 0 && received != expected) {
        result.error = "The connection was lost before the whole file arrived";
        result.cut_short = true;
      }
      // The file counts only once its bytes are on the disk: a rename
      // after a crash must not reveal an empty or partial file.
      if (!result.error && fsync(fd.get()) != 0)
        result.error = g_strerror(errno);
      if (fd.close() != 0 && !result.error)
        result.error = g_strerror(errno);
    }
  }
  g_input_stream_close(body.get(), nullptr, nullptr);
}

// Runs a transfer on its own thread and hands the result to the main loop.
// Nothing the transfer throws may end the program: it becomes the error.
void RunTransfer(const std::function<void(TransferResult&)>& transfer,
                 std::function<void(TransferResult)> done) {
  TransferResult result;
  try {
    transfer(result);
  } catch (const std::exception& exception) {
    result = TransferResult{};
    result.error = std::string("The transfer failed: ") + exception.what();
  } catch (...) {
    result = TransferResult{};
    result.error = "The transfer failed";
  }
  RunOnMainLoop(
      [done = std::move(done), result = std::move(result)]() mutable { done(std::move(result)); });
}

// Uploads speak HTTP/1.1 over a GIO socket connection of their own rather
// than through libsoup, which writes a request body in 8 KiB pieces: with
// one large write per megabyte an upload runs at the speed of the link.
// GIO still brings TLS, proxies and time-outs; the answer goes through
// HttpResponseParser, which bounds what a server can make us hold.
constexpr char kFileChanged[] = "the file changed during the upload";

// Reads the answer a piece at a time until it is complete or broken.
std::optional<std::string> ReadResponse(GInputStream* in, HttpResponse& response) {
  HttpResponseParser parser;
  char buffer[16384];
  while (parser.state() == HttpResponseParser::State::NeedMore) {
    GErrorPtr error;
    gssize n = g_input_stream_read(in, buffer, sizeof buffer, nullptr, error.out());
    if (n < 0)
      return error.message();
    if (n == 0)
      parser.finish();
    else
      parser.feed(std::string_view(buffer, size_t(n)));
  }
  if (parser.state() == HttpResponseParser::State::Failed)
    return parser.error();
  response = parser.response();
  return std::nullopt;
}

// Whether the open file is no longer the one whose size the request declared.
bool FileChanged(int fd, const struct stat& before) {
  struct stat now;
  return fstat(fd, &now) != 0 || now.st_size != before.st_size ||
         now.st_mtim.tv_sec != before.st_mtim.tv_sec ||
         now.st_mtim.tv_nsec != before.st_mtim.tv_nsec;
}

using UriPtr = std::unique_ptr<GUri, decltype(&g_uri_unref)>;

// One PUT; on a 307 or 308 answer `redirect` names the next address.
TransferResult PutOnce(const UploadRequest& request, const std::string& url,
                       std::string& redirect) {
  TransferResult result;
  if (url.find('\0') != std::string::npos) {
    result.error = "unsupported URL";
    return result;
  }
  GErrorPtr error;
  UriPtr uri(g_uri_parse(url.c_str(), G_URI_FLAGS_ENCODED, error.out()), g_uri_unref);
  if (!uri) {
    result.error = error.message();
    return result;
  }
  std::string scheme = g_uri_get_scheme(uri.get()) ? g_uri_get_scheme(uri.get()) : "";
  std::string host = g_uri_get_host(uri.get()) ? g_uri_get_host(uri.get()) : "";
  int port = g_uri_get_port(uri.get());
  std::string target = *g_uri_get_path(uri.get()) ? g_uri_get_path(uri.get()) : "/";
  if (g_uri_get_query(uri.get()))
    target += std::string("?") + g_uri_get_query(uri.get());
  uri.reset();
  bool secure = scheme == "https";
  // The host goes into the request's head as it is: no control characters,
  // spaces or bytes outside ASCII (the path and query come percent-encoded).
  bool plain_host = std::all_of(host.begin(), host.end(), [](char c) {
    return static_cast<unsigned char>(c) > 0x20 && static_cast<unsigned char>(c) < 0x7f;
  });
  if ((scheme != "http" && !secure) || host.empty() || !plain_host) {
    result.error = "unsupported URL";
    return result;
  }
  int default_port = secure ? 443 : 80;
  std::string authority = host.find(':') != std::string::npos ? "[" + host + "]" : host;
  if (port > 0 && port != default_port)
    authority += ":" + std::to_string(port);

  FileDescriptor fd(open(request.file.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat info;
  if (fd.get() < 0 || fstat(fd.get(), &info) != 0) {
    result.error = g_strerror(errno);
    return result;
  }

  auto client = GObjectPtr<GSocketClient>::adopt(g_socket_client_new());
  g_socket_client_set_tls(client.get(), secure);
  // The socket's time-out bounds every wait to connect, send or receive: an
  // upload ends after that long without progress.
  g_socket_client_set_timeout(client.get(), request.timeout_seconds);
  auto connection = GObjectPtr<GSocketConnection>::adopt(g_socket_client_connect_to_host(
      client.get(), authority.c_str(), guint16(default_port), nullptr, error.out()));
  if (!connection) {
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
  // Exactly the declared length goes out. A file that changes meanwhile
  // would arrive as a mix of two versions, so the last piece is held back
  // and the connection closed: the server sees a body cut short.
  std::vector<char> buffer(kBufferSize);
  off_t remaining = info.st_size;
  bool changed = false;
  while (sent && remaining > 0) {
    ssize_t n =
        read(fd.get(), buffer.data(), size_t(std::min<off_t>(off_t(buffer.size()), remaining)));
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0) {
      result.error = g_strerror(errno);
      break;
    }
    if (n == 0 || (n == remaining && FileChanged(fd.get(), info))) {
      changed = true;
      break;
    }
    sent = g_output_stream_write_all(out, buffer.data(), size_t(n), nullptr, nullptr, error.out());
    remaining -= n;
  }
  fd.close();
  if (changed)
    result.error = kFileChanged;
  if (result.error) {
    g_io_stream_close(G_IO_STREAM(connection.get()), nullptr, nullptr);
    return result;
  }
  // A server may refuse early and close while the body is still going out;
  // its answer, when it sent one, says more than the broken pipe.
  std::optional<std::string> write_error;
  if (!sent)
    write_error = error.message();

  HttpResponse response;
  if (auto read_error =
          ReadResponse(g_io_stream_get_input_stream(G_IO_STREAM(connection.get())), response)) {
    result.error = write_error ? write_error : read_error;
    g_io_stream_close(G_IO_STREAM(connection.get()), nullptr, nullptr);
    return result;
  }
  result.status = response.status;
  result.body = std::move(response.body);
  auto location = response.headers.find("location");
  if ((response.status == 307 || response.status == 308) && location != response.headers.end()) {
    UriPtr base(g_uri_parse(url.c_str(), G_URI_FLAGS_ENCODED, nullptr), g_uri_unref);
    UriPtr next(base ? g_uri_parse_relative(base.get(), location->second.c_str(),
                                            G_URI_FLAGS_ENCODED, nullptr)
                     : nullptr,
                g_uri_unref);
    if (next) {
      GCharPtr text(g_uri_to_string(next.get()));
      redirect = text.str();
    }
  }
  g_io_stream_close(G_IO_STREAM(connection.get()), nullptr, nullptr);
  return result;
}

void Upload(const UploadRequest& request, TransferResult& result) {
  std::string url = request.url;
  // Redirects that keep the method (307, 308) are followed, a few at most.
  for (int hop = 0; hop < 5; ++hop) {
    std::string redirect;
    result = PutOnce(request, url, redirect);
    if (redirect.empty())
      break;
    url = redirect;
  }
}

} // namespace

void DownloadToFile(const std::string& url, const std::string& file,
                    std::function<void(TransferResult)> done, unsigned idle_timeout_seconds,
                    DownloadFile how) {
  std::thread(
      RunTransfer,
      [url, file, idle_timeout_seconds, how](TransferResult& result) {
        Download(url, file, idle_timeout_seconds, how, result);
      },
      std::move(done))
      .detach();
}

void UploadFromFile(const UploadRequest& request, std::function<void(TransferResult)> done) {
  std::thread(
      RunTransfer, [request](TransferResult& result) { Upload(request, result); }, std::move(done))
      .detach();
}

} // namespace orvane
