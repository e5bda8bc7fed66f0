#include "agent/LineSplitter.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace orvane {

namespace {

// A held run that outgrows this gets the buffer of a whole piece.
constexpr size_t kGrowWhole = size_t(1) << 20;

void Emit(std::string_view line, const std::function<void(std::string_view)>& on_line,
          size_t& added) {
  if (line.empty() || !IsValidUtf8(line))
    return;
  on_line(line);
  ++added;
}

// Where a piece of a run longer than `limit` ends: at the limit, or before
// the character the limit would cut (at most three continuation bytes
// back). `run` holds more than `limit` bytes.
size_t PieceEnd(std::string_view run, size_t limit) {
  auto continues = [&](size_t at) { return (static_cast<unsigned char>(run[at]) & 0xC0) == 0x80; };
  for (size_t end = limit; end + 3 >= limit && end > 0; --end)
    if (!continues(end))
      return end;
  return limit;
}

} // namespace

size_t LineSplitter::append(std::string_view chunk, std::vector<std::string>& lines) {
  return append(chunk, [&lines](std::string_view line) { lines.emplace_back(line); });
}

std::string_view LineSplitter::sendPieces(std::string_view run, const Sink& on_line,
                                          size_t& added) const {
  while (run.size() > limit_) {
    size_t end = PieceEnd(run, limit_);
    Emit(run.substr(0, end), on_line, added);
    run.remove_prefix(end);
  }
  return run;
}

void LineSplitter::hold(std::string_view bytes, const Sink& on_line, size_t& added) {
  while (!bytes.empty()) {
    // Never more than one byte over the limit is held; a long run gets
    // room for a whole piece at once instead of being copied at each growth.
    size_t take = std::min(bytes.size(), limit_ + 1 - buffer_.size());
    if (buffer_.size() + take > buffer_.capacity() && buffer_.size() + take > kGrowWhole)
      buffer_.reserve(limit_ + 1);
    buffer_.append(bytes.data(), take);
    bytes.remove_prefix(take);
    if (buffer_.size() > limit_) {
      std::string_view rest = sendPieces(buffer_, on_line, added);
      buffer_.erase(0, buffer_.size() - rest.size());
    }
  }
}

size_t LineSplitter::append(std::string_view chunk, const Sink& on_line) {
  size_t added = 0;
  size_t start = 0;
  const char* data = chunk.data();
  if (!buffer_.empty()) {
    // Finish the line held back from earlier chunks first.
    const void* found = std::memchr(data, '\n', chunk.size());
    if (!found) {
      hold(chunk, on_line, added);
      return added;
    }
    size_t at = size_t(static_cast<const char*>(found) - data);
    buffer_.append(data, at);
    Emit(sendPieces(buffer_, on_line, added), on_line, added);
    buffer_.clear();
    start = at + 1;
  }
  // Whole lines inside this chunk are taken straight from it.
  while (start < chunk.size()) {
    const void* found = std::memchr(data + start, '\n', chunk.size() - start);
    if (!found)
      break;
    size_t at = size_t(static_cast<const char*>(found) - data);
    std::string_view line = chunk.substr(start, at - start);
    if (line.size() > limit_)
      line = sendPieces(line, on_line, added);
    Emit(line, on_line, added);
    start = at + 1;
  }
  if (start < chunk.size())
    buffer_.assign(sendPieces(chunk.substr(start), on_line, added));
  return added;
}

size_t LineSplitter::finish(std::string_view tail, const Sink& on_line) {
  buffer_.append(tail);
  std::string rest;
  rest.swap(buffer_);
  size_t added = 0;
  if (!IsValidUtf8(rest))
    return added;
  size_t start = 0;
  while (start <= rest.size()) {
    size_t at = rest.find('\n', start);
    if (at == std::string::npos)
      at = rest.size();
    std::string_view line(rest.data() + start, at - start);
    Emit(sendPieces(line, on_line, added), on_line, added);
    start = at + 1;
  }
  return added;
}

std::vector<std::string> LineSplitter::finish(std::string_view tail) {
  std::vector<std::string> pieces;
  finish(tail, [&pieces](std::string_view piece) { pieces.emplace_back(piece); });
  return pieces;
}

} // namespace orvane
