// Turns the agent's standard output, which arrives in chunks of any size,
// into lines. A line is the bytes before a line feed (0x0A), decoded as
// UTF-8. Lines that are empty or not valid UTF-8 are dropped; a carriage
// return before the line feed stays in the line. Only complete lines are
// decoded, so a multi-byte character split across two chunks comes out
// whole once its second half arrives. The splitter keeps only the unfinished
// tail of the output.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace orvane {

// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
// NUL is a valid character.
bool IsValidUtf8(std::string_view bytes);

class LineSplitter {
public:
  // Appends a chunk and hands every complete, valid, non-empty line to
  // `on_line`, in order; the view is valid only during the call. Returns the
  // number of lines handed over.
  size_t append(std::string_view chunk, const std::function<void(std::string_view)>& on_line);
  // The same, adding the lines to `lines`.
  size_t append(std::string_view chunk, std::vector<std::string>& lines);

  // The end of the output: appends `tail` (without looking for line ends in
  // it first), decodes everything held as one UTF-8 text, splits that at
  // "\n" and returns every non-empty piece. When the held bytes are not
  // valid UTF-8 as a whole, nothing comes out. The splitter is empty
  // afterwards.
  std::vector<std::string> finish(std::string_view tail = {});

  // Bytes of an unfinished line held back.
  size_t pending() const { return buffer_.size(); }

private:
  std::string buffer_;
};

} // namespace orvane
