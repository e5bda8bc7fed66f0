#include "library/HttpTransfer.h"

#include "base/GObjectPtr.h"
#include "base/MainThread.h"

#include <fcntl.h>
#include <libsoup/soup.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace orvane {

namespace {

constexpr size_t kBufferSize = 1024 * 1024;

GObjectPtr<SoupSession> NewSession(unsigned timeout_seconds) {
  // One session per transfer thread: libsoup sessions are used from the
  // thread that made them.
  return GObjectPtr<SoupSession>::adopt(
      soup_session_new_with_options("timeout", timeout_seconds, nullptr));
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

void RunDownload(std::string url, std::string file, std::function<void(TransferResult)> done) {
  TransferResult result;
  {
    auto session = NewSession(0);
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
          if (!result.error && expected > 0 && received != expected)
            result.error = "The connection was lost before the whole file arrived";
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

void RunUpload(UploadRequest request, std::function<void(TransferResult)> done) {
  TransferResult result;
  {
    auto session = NewSession(request.timeout_seconds);
    auto message = NewMessage("PUT", request.url, result.error);
    auto file = GObjectPtr<GFile>::adopt(g_file_new_for_path(request.file.c_str()));
    GErrorPtr error;
    auto stream =
        GObjectPtr<GFileInputStream>::adopt(g_file_read(file.get(), nullptr, error.out()));
    if (message && !stream)
      result.error = error.message();
    if (message && stream) {
      struct stat info;
      gssize length = stat(request.file.c_str(), &info) == 0 ? gssize(info.st_size) : -1;
      SoupMessageHeaders* headers = soup_message_get_request_headers(message.get());
      for (const auto& [name, value] : request.headers)
        soup_message_headers_replace(headers, name.c_str(), value.c_str());
      soup_message_set_request_body(message.get(), request.content_type.c_str(),
                                    G_INPUT_STREAM(stream.get()), length);
      GBytesPtr body(
          soup_session_send_and_read(session.get(), message.get(), nullptr, error.out()));
      if (!body) {
        result.error = error.message();
      } else {
        result.status = soup_message_get_status(message.get());
        gsize size = 0;
        auto data = static_cast<const char*>(g_bytes_get_data(body.get(), &size));
        result.body.assign(data ? data : "", size);
      }
    }
  }
  RunOnMainLoop(
      [done = std::move(done), result = std::move(result)]() mutable { done(std::move(result)); });
}

void RunFetch(std::string url, std::function<void(TransferResult)> done) {
  TransferResult result;
  {
    auto session = NewSession(0);
    auto message = NewMessage("GET", url, result.error);
    if (message) {
      GErrorPtr error;
      GBytesPtr body(
          soup_session_send_and_read(session.get(), message.get(), nullptr, error.out()));
      if (!body) {
        result.error = error.message();
      } else {
        result.status = soup_message_get_status(message.get());
        gsize size = 0;
        auto data = static_cast<const char*>(g_bytes_get_data(body.get(), &size));
        result.body.assign(data ? data : "", size);
      }
    }
  }
  RunOnMainLoop(
      [done = std::move(done), result = std::move(result)]() mutable { done(std::move(result)); });
}

} // namespace

void DownloadToFile(const std::string& url, const std::string& file,
                    std::function<void(TransferResult)> done) {
  std::thread(RunDownload, url, file, std::move(done)).detach();
}

void UploadFromFile(const UploadRequest& request, std::function<void(TransferResult)> done) {
  std::thread(RunUpload, request, std::move(done)).detach();
}

void FetchBytes(const std::string& url, std::function<void(TransferResult)> done) {
  std::thread(RunFetch, url, std::move(done)).detach();
}

} // namespace orvane
