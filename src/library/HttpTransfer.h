// Streaming HTTP transfers with libsoup, each on a thread of its own so that
// neither a slow server nor a large file touches the main loop. Results come
// back on the main loop. Memory stays flat whatever the file's size: bytes
// move through one fixed buffer.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace orvane {

struct TransferResult {
  // A transport error's text (no response, a cut connection...), else nothing.
  std::optional<std::string> error;
  long status = 0;  // the final HTTP status, 0 without a response
  std::string body; // the response body (uploads only)
  // A download whose body ended before the length its header declared.
  bool cut_short = false;
};

// A download that goes this long without a byte has failed.
inline constexpr unsigned kDownloadIdleTimeout = 60;

// How the downloaded file is made: created or truncated where it is, or
// created new (readable by its owner only), never through a link and never
// over anything that is there already.
enum class DownloadFile { kCreateOrTruncate, kCreateNew };

// GET `url`, following redirects, into `file`. The body is written only
// when the status is exactly 200, and the download succeeds only once the
// file is flushed to the disk.
void DownloadToFile(const std::string& url, const std::string& file,
                    std::function<void(TransferResult)> done,
                    unsigned idle_timeout_seconds = kDownloadIdleTimeout,
                    DownloadFile how = DownloadFile::kCreateOrTruncate);

struct UploadRequest {
  std::string url;
  std::string file;
  std::vector<std::pair<std::string, std::string>> headers; // besides Content-Type
  std::string content_type = "application/pdf";
  unsigned timeout_seconds = 300;
};

// PUT with the file as the body, streamed from disk.
void UploadFromFile(const UploadRequest& request, std::function<void(TransferResult)> done);

} // namespace orvane
