#include "base/HttpResponseParser.h"

#include <algorithm>

namespace orvane {

namespace {

constexpr char kClosed[] = "The server closed the connection";
constexpr char kNotHttp[] = "The server's answer was not HTTP";
constexpr char kCut[] = "The connection was lost before the answer";
constexpr char kLongLine[] = "A line of the server's answer is too long";
constexpr char kManyHeaders[] = "The server's answer has too many header lines";
constexpr char kManyInterim[] = "The server sent more than one interim answer";
constexpr char kBadLength[] = "The server's answer has an invalid length";
constexpr char kLongBody[] = "The server's answer is too long";
constexpr char kBadChunk[] = "The server's answer has an invalid chunk";

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

int HexValue(char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  if (c >= 'A' && c <= 'F')
    return c - 'A' + 10;
  return -1;
}

std::string_view Trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
    text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
    text.remove_suffix(1);
  return text;
}

std::string Lower(std::string_view text) {
  std::string lower(text);
  for (char& c : lower)
    if (c >= 'A' && c <= 'Z')
      c = char(c - 'A' + 'a');
  return lower;
}

// A length in digits of base 10 or 16. Values past `cap` are all alike (too
// long), so nothing can overflow.
enum class Length { Valid, Invalid, TooLong };
Length ParseLength(std::string_view text, int base, uint64_t cap, uint64_t& value) {
  if (text.empty())
    return Length::Invalid;
  value = 0;
  bool too_long = false;
  for (char c : text) {
    int digit = base == 10 ? (IsDigit(c) ? c - '0' : -1) : HexValue(c);
    if (digit < 0)
      return Length::Invalid;
    if (!too_long) {
      value = value * uint64_t(base) + uint64_t(digit);
      too_long = value > cap;
    }
  }
  return too_long ? Length::TooLong : Length::Valid;
}

} // namespace

HttpResponseParser::State HttpResponseParser::fail(std::string why) {
  error_ = std::move(why);
  state_ = State::Failed;
  step_ = Step::Over;
  line_.clear();
  return state_;
}

HttpResponseParser::State HttpResponseParser::done() {
  state_ = State::Done;
  step_ = Step::Over;
  line_.clear();
  return state_;
}

HttpResponseParser::State HttpResponseParser::feed(std::string_view bytes) {
  while (!bytes.empty() && state_ == State::NeedMore) {
    if (step_ == Step::LengthBody || step_ == Step::ChunkData || step_ == Step::BodyToEnd) {
      bytes.remove_prefix(takeBody(bytes));
      continue;
    }
    bool complete = false;
    bytes.remove_prefix(collectLine(bytes, complete));
    if (complete)
      takeLine();
  }
  return state_;
}

HttpResponseParser::State HttpResponseParser::finish() {
  if (state_ != State::NeedMore)
    return state_;
  switch (step_) {
  case Step::BodyToEnd:
    return done();
  case Step::Trailer:
    // The last chunk has come; a server may hang up before the blank line.
    return line_.empty() ? done() : fail(kCut);
  case Step::StatusLine:
  case Step::HeaderLine:
    return fail(kClosed);
  default:
    return fail(kCut);
  }
}

size_t HttpResponseParser::collectLine(std::string_view bytes, bool& complete) {
  size_t end = bytes.find('\n');
  size_t take = end == std::string_view::npos ? bytes.size() : end;
  // Room for the line and its carriage return; one byte more proves it too long.
  size_t room = kMaxResponseLine + 2 - line_.size();
  if (take >= room) {
    fail(kLongLine);
    return bytes.size();
  }
  line_.append(bytes.data(), take);
  if (end == std::string_view::npos)
    return take;
  if (!line_.empty() && line_.back() == '\r')
    line_.pop_back();
  if (line_.size() > kMaxResponseLine) {
    fail(kLongLine);
    return bytes.size();
  }
  complete = true;
  return end + 1;
}

void HttpResponseParser::takeLine() {
  switch (step_) {
  case Step::StatusLine:
    statusLine();
    break;
  case Step::HeaderLine:
    headerLine(false);
    break;
  case Step::ChunkSize:
    chunkSizeLine();
    break;
  case Step::ChunkEnd:
    if (!line_.empty())
      fail(kBadChunk);
    else
      step_ = Step::ChunkSize;
    break;
  case Step::Trailer:
    headerLine(true);
    break;
  default:
    break;
  }
  line_.clear();
}

void HttpResponseParser::statusLine() {
  // HTTP/1.1 200 OK: the version, one space, three digits, then a space
  // and the reason, or nothing.
  std::string_view line = line_;
  size_t space = line.find(' ');
  if (line.rfind("HTTP/", 0) != 0 || space == std::string_view::npos) {
    fail(kNotHttp);
    return;
  }
  std::string_view code = line.substr(space + 1);
  if (code.size() < 3 || !IsDigit(code[0]) || code[0] == '0' || !IsDigit(code[1]) ||
      !IsDigit(code[2]) || (code.size() > 3 && code[3] != ' ')) {
    fail(kNotHttp);
    return;
  }
  response_.status = (code[0] - '0') * 100 + (code[1] - '0') * 10 + (code[2] - '0');
  response_.headers.clear();
  header_lines_ = 0;
  lengths_differ_ = false;
  step_ = Step::HeaderLine;
}

void HttpResponseParser::headerLine(bool trailer) {
  if (line_.empty()) {
    if (trailer)
      done();
    else
      headEnded();
    return;
  }
  if (++header_lines_ > kMaxResponseHeaders) {
    fail(kManyHeaders);
    return;
  }
  size_t colon = line_.find(':');
  if (trailer || colon == std::string::npos)
    return;
  std::string name = Lower(std::string_view(line_).substr(0, colon));
  std::string value(Trimmed(std::string_view(line_).substr(colon + 1)));
  if (name == "content-length") {
    // Two different lengths: no telling where the body ends. The answer
    // fails once its head is complete, so that its status is known.
    auto earlier = response_.headers.find(name);
    if (earlier != response_.headers.end() && earlier->second != value)
      lengths_differ_ = true;
  }
  response_.headers[name] = std::move(value);
}

void HttpResponseParser::headEnded() {
  long status = response_.status;
  bool interim = status >= 100 && status < 200;
  head_arrived_ = !interim;
  if (lengths_differ_) {
    fail(kBadLength);
    return;
  }
  if (interim) {
    // An interim answer (100 Continue); the real one follows. A server that
    // keeps sending them is stalling.
    if (interim_left_-- <= 0) {
      fail(kManyInterim);
      return;
    }
    step_ = Step::StatusLine;
    return;
  }
  if (status == 204 || status == 304) {
    done();
    return;
  }
  auto encoding = response_.headers.find("transfer-encoding");
  if (encoding != response_.headers.end() &&
      Lower(encoding->second).find("chunked") != std::string::npos) {
    step_ = Step::ChunkSize;
    return;
  }
  auto length = response_.headers.find("content-length");
  if (length == response_.headers.end()) {
    step_ = Step::BodyToEnd;
    return;
  }
  uint64_t value = 0;
  if (!readLength(length->second, 10, kBadLength, value))
    return;
  response_.declared_length = int64_t(value);
  remaining_ = value;
  if (remaining_ == 0)
    done();
  else
    step_ = Step::LengthBody;
}

bool HttpResponseParser::readLength(std::string_view text, int base, const char* invalid,
                                    uint64_t& value) {
  switch (ParseLength(text, base, bodyCap(), value)) {
  case Length::Invalid:
    fail(invalid);
    return false;
  case Length::TooLong:
    fail(kLongBody);
    return false;
  case Length::Valid:
    break;
  }
  return true;
}

void HttpResponseParser::chunkSizeLine() {
  // The size in hex, perhaps followed by extensions after a semicolon.
  std::string_view line = line_;
  line = Trimmed(line.substr(0, line.find(';')));
  uint64_t size = 0;
  if (!readLength(line, 16, kBadChunk, size))
    return;
  if (size == 0) {
    header_lines_ = 0;
    step_ = Step::Trailer;
    return;
  }
  if (size > bodyCap() - body_length_) {
    fail(kLongBody);
    return;
  }
  remaining_ = size;
  step_ = Step::ChunkData;
}

size_t HttpResponseParser::takeBody(std::string_view bytes) {
  size_t take = bytes.size();
  if (step_ == Step::BodyToEnd) {
    if (take > bodyCap() - body_length_) {
      fail(kLongBody);
      return take;
    }
  } else {
    take = size_t(std::min<uint64_t>(remaining_, take));
    remaining_ -= take;
  }
  if (keep_body_)
    response_.body.append(bytes.data(), take);
  body_length_ += take;
  if (step_ != Step::BodyToEnd && remaining_ == 0) {
    if (step_ == Step::LengthBody)
      done();
    else
      step_ = Step::ChunkEnd;
  }
  return take;
}

ParsedResponse ParseHttpResponse(std::string_view bytes) {
  HttpResponseParser parser;
  if (parser.feed(bytes) == HttpResponseParser::State::NeedMore)
    parser.finish();
  ParsedResponse parsed;
  if (parser.state() == HttpResponseParser::State::Done)
    parsed.response = parser.response();
  else
    parsed.error = parser.error();
  return parsed;
}

} // namespace orvane
