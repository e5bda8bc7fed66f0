// Turns the agent's standard output, which arrives in chunks of any size,
// into lines. A line is the bytes before a line feed (0x0A), decoded as
// UTF-8. Lines that are empty or not valid UTF-8 are dropped; a carriage
// return before the line feed stays in the line. Only complete lines are
// decoded, so a multi-byte character split across two chunks comes out
// whole once its second half arrives.
//
// No line is longer than the piece limit (16 MiB unless given): a longer run
// of bytes without a line feed goes out in pieces as it arrives, each at most
// the limit, so the splitter never holds more than the limit plus a chunk. A
// piece ends at the limit, moved back over at most three continuation bytes
// (10xxxxxx) so that a character is never cut in two; the pieces of a valid
// line therefore concatenate to the line. Each piece is then treated as a
// line: one holding bytes that are not valid UTF-8 (a bad byte, or a
// character cut because the bytes around the cut were not UTF-8 to begin
// with) is dropped, and the other pieces of the same line still come out.
#pragma once

#include "base/Text.h" // IsValidUtf8

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace orvane {

class LineSplitter {
public:
  static constexpr size_t kDefaultPieceLimit = size_t(16) << 20;
  // A limit below four bytes, the longest character, counts as four.
  explicit LineSplitter(size_t piece_limit = kDefaultPieceLimit)
      : limit_(piece_limit < 4 ? 4 : piece_limit) {}

  size_t pieceLimit() const { return limit_; }

  // Appends a chunk and hands every complete, valid, non-empty line (or
  // piece of a long line) to `on_line`, in order; the view is valid only
  // during the call. Returns the number of lines handed over.
  size_t append(std::string_view chunk, const std::function<void(std::string_view)>& on_line);
  // The same, adding the lines to `lines`.
  size_t append(std::string_view chunk, std::vector<std::string>& lines);

  // The end of the output: appends `tail` (without looking for line ends in
  // it first), decodes everything held as one UTF-8 text, splits that at
  // "\n" and returns every non-empty piece, cut to the piece limit. When the
  // held bytes are not valid UTF-8 as a whole, nothing comes out. The
  // splitter is empty afterwards.
  std::vector<std::string> finish(std::string_view tail = {});
  // The same, handing the pieces to `on_line` as append does; returns their
  // number.
  size_t finish(std::string_view tail, const std::function<void(std::string_view)>& on_line);

  // Bytes of an unfinished line held back: never more than the limit once
  // append returns.
  size_t pending() const { return buffer_.size(); }

private:
  using Sink = std::function<void(std::string_view)>;
  // Sends the leading pieces of `run` while more than the limit is left;
  // returns the rest.
  std::string_view sendPieces(std::string_view run, const Sink& on_line, size_t& added) const;
  // Adds bytes of an unfinished line to the buffer, sending pieces as it
  // goes over the limit.
  void hold(std::string_view bytes, const Sink& on_line, size_t& added);

  size_t limit_;
  std::string buffer_;
};

} // namespace orvane
