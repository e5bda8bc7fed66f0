// A server's answer to an upload, in pieces of any size: the reading never
// throws, holds no more than its caps, reads the same however the bytes are
// cut, and never reports a body of another length than the one declared;
// dropping the body instead of keeping it changes nothing else.
#include "base/HttpResponseParser.h"

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

namespace {

using orvane::HttpResponse;
using orvane::HttpResponseParser;

// A string of decimal digits as a number, saturating; nullopt for anything else.
std::optional<uint64_t> Decimal(std::string_view text) {
  if (text.empty())
    return std::nullopt;
  uint64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9')
      return std::nullopt;
    uint64_t digit = uint64_t(c - '0');
    value = value > (UINT64_MAX - digit) / 10 ? UINT64_MAX : value * 10 + digit;
  }
  return value;
}

void CheckAnswer(const HttpResponse& answer) {
  if (answer.status < 200 || answer.status > 999)
    std::abort();
  if (answer.body.size() > orvane::kMaxResponseBody ||
      answer.headers.size() > orvane::kMaxResponseHeaders)
    std::abort();
  for (const auto& [name, value] : answer.headers)
    if (name.size() + value.size() > orvane::kMaxResponseLine)
      std::abort();
  if (answer.declared_length && uint64_t(*answer.declared_length) != answer.body.size())
    std::abort();
  // Read the framing again from the headers alone: a body framed by a
  // length is exactly that long.
  auto encoding = answer.headers.find("transfer-encoding");
  std::string coding = encoding == answer.headers.end() ? "" : encoding->second;
  for (char& c : coding)
    if (c >= 'A' && c <= 'Z')
      c = char(c - 'A' + 'a');
  bool chunked = coding.find("chunked") != std::string::npos;
  auto length = answer.headers.find("content-length");
  if (!chunked && length != answer.headers.end() && answer.status != 204 && answer.status != 304) {
    std::optional<uint64_t> declared = Decimal(length->second);
    if (!declared || *declared != answer.body.size() || !answer.declared_length)
      std::abort();
  }
}

// A parser that drops the body reads the same answer in the same pieces,
// holding none of its body: only the keeping parser's body cap can part
// them, and after that the dropping one reads on.
void CheckDropping(std::string_view bytes, size_t piece, const HttpResponseParser& keeping) {
  HttpResponseParser dropping(HttpResponseParser::Body::Drop);
  for (size_t at = 0; at < bytes.size(); at += piece)
    dropping.feed(bytes.substr(at, piece));
  if (dropping.state() == HttpResponseParser::State::NeedMore)
    dropping.finish();
  if (dropping.state() == HttpResponseParser::State::NeedMore || !dropping.response().body.empty())
    std::abort();
  if (keeping.state() == HttpResponseParser::State::Failed &&
      keeping.error() == "The server's answer is too long")
    return;
  if (dropping.state() != keeping.state() || dropping.error() != keeping.error() ||
      dropping.headArrived() != keeping.headArrived() ||
      dropping.bodyLength() != keeping.bodyLength())
    std::abort();
  if (keeping.headArrived() && (dropping.response().status != keeping.response().status ||
                                dropping.response().headers != keeping.response().headers))
    std::abort();
  if (keeping.state() == HttpResponseParser::State::Done &&
      (keeping.bodyLength() != keeping.response().body.size() ||
       dropping.response().declared_length != keeping.response().declared_length))
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0)
    return 0;
  // The first byte chooses the size of the pieces the rest arrives in.
  size_t piece = size_t(data[0] % 64) + 1;
  std::string_view bytes(reinterpret_cast<const char*>(data + 1), size - 1);
  try {
    orvane::ParsedResponse whole = orvane::ParseHttpResponse(bytes);

    HttpResponseParser parser;
    for (size_t at = 0; at < bytes.size(); at += piece)
      parser.feed(bytes.substr(at, piece));
    if (parser.state() == HttpResponseParser::State::NeedMore)
      parser.finish();
    if (parser.state() == HttpResponseParser::State::NeedMore)
      std::abort();

    bool done = parser.state() == HttpResponseParser::State::Done;
    if (done != whole.response.has_value())
      std::abort();
    CheckDropping(bytes, piece, parser);
    if (!done) {
      if (parser.error().empty() || parser.error() != whole.error)
        std::abort();
      return 0;
    }
    const HttpResponse& answer = parser.response();
    if (answer.status != whole.response->status || answer.body != whole.response->body ||
        answer.headers != whole.response->headers ||
        answer.declared_length != whole.response->declared_length)
      std::abort();
    CheckAnswer(answer);
  } catch (...) {
    std::abort();
  }
  return 0;
}
