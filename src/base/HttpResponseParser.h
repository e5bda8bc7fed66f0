// Reads a server's HTTP/1.1 answer: bytes in, as they arrive, and out the
// status, the headers and the body, or the reason the answer cannot be
// trusted. Nothing here touches the network, so any byte sequence can be fed
// to it; whatever it is fed, it holds at most one header line, the headers
// of one head and, when it keeps the body, one capped body in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace orvane {

// Caps on what a server may send back.
inline constexpr size_t kMaxResponseLine = 16 * 1024; // one status or header line
inline constexpr size_t kMaxResponseHeaders = 100;    // header lines in one head
inline constexpr size_t kMaxResponseBody = 1024 * 1024;
// The most body a parser that drops it will count: far more than any server
// sends before the reader gives up waiting, and far from overflowing.
inline constexpr uint64_t kMaxCountedBody = uint64_t(1) << 56;

struct HttpResponse {
  long status = 0;
  std::map<std::string, std::string> headers; // lower-case names; the last of repeats
  std::string body;                           // empty when the body is dropped
  // The body's length as the Content-Length header declared it, when the
  // body was framed by one.
  std::optional<int64_t> declared_length;
};

class HttpResponseParser {
public:
  enum class State { NeedMore, Done, Failed };
  // Keep: the body is held, up to kMaxResponseBody. Drop: it is only
  // counted (up to kMaxCountedBody), for a reader that wants the status and
  // the end of the answer but not its body; memory stays bounded however
  // long the body runs.
  enum class Body { Keep, Drop };

  // `interim_answers`: how many interim (1xx) answers may come before the
  // final one; one more fails the answer.
  explicit HttpResponseParser(Body body = Body::Keep, int interim_answers = 1)
      : keep_body_(body == Body::Keep), interim_left_(interim_answers) {}

  // Takes the next bytes of the connection. Bytes after the end of the
  // answer are ignored.
  State feed(std::string_view bytes);
  // The connection has ended: an answer that runs to the end of the
  // connection is complete now, any other unfinished one has failed.
  State finish();

  State state() const { return state_; }
  // Valid once Done, and its status and headers once headArrived().
  const HttpResponse& response() const { return response_; }
  // The head of the final answer has arrived: its status stands even when
  // the body then fails, as an interrupted transfer still has its response.
  bool headArrived() const { return head_arrived_; }
  // Bytes of body read so far (held or dropped).
  uint64_t bodyLength() const { return body_length_; }
  // Why the answer failed, once Failed.
  const std::string& error() const { return error_; }

private:
  enum class Step {
    StatusLine,
    HeaderLine,
    LengthBody,
    ChunkSize,
    ChunkData,
    ChunkEnd,
    Trailer,
    BodyToEnd,
    Over
  };

  State fail(std::string why);
  State done();
  // Feeds bytes to the line being collected; returns how many it used and
  // sets `complete` when a line feed ended the line.
  size_t collectLine(std::string_view bytes, bool& complete);
  void takeLine();
  void statusLine();
  void headerLine(bool trailer);
  void headEnded();
  void chunkSizeLine();
  // A body or chunk length in `base`; on a bad one the answer fails (with
  // `invalid`, or as too long) and false comes back.
  bool readLength(std::string_view text, int base, const char* invalid, uint64_t& value);
  size_t takeBody(std::string_view bytes);
  uint64_t bodyCap() const { return keep_body_ ? kMaxResponseBody : kMaxCountedBody; }

  bool keep_body_;
  int interim_left_;
  State state_ = State::NeedMore;
  Step step_ = Step::StatusLine;
  std::string line_;
  std::string error_;
  HttpResponse response_;
  size_t header_lines_ = 0;
  bool lengths_differ_ = false; // two Content-Length headers disagree
  bool head_arrived_ = false;
  uint64_t remaining_ = 0; // bytes still due in a length body or a chunk
  uint64_t body_length_ = 0;
};

// A whole answer at once: the bytes of a connection from its first byte to
// its end.
struct ParsedResponse {
  std::optional<HttpResponse> response; // set on success
  std::string error;                    // set on failure
};
ParsedResponse ParseHttpResponse(std::string_view bytes);

} // namespace orvane
