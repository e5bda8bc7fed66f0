// The agent's output, in chunks of any size and with a small piece limit:
// every complete line comes out once, in order, valid UTF-8, in pieces no
// longer than the limit that never cut a character, however the bytes are
// cut into chunks.
#include "agent/LineSplitter.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace {

void Require(bool holds) {
  if (!holds)
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2)
    return 0;
  // The first byte chooses the chunk size, so the same output is also cut
  // in different places; the second the piece limit (4 to 64 bytes).
  size_t chunk = size_t(data[0] % 17) + 1;
  size_t limit = size_t(data[1] % 61) + 4;
  std::string_view output(reinterpret_cast<const char*>(data + 2), size - 2);

  orvane::LineSplitter splitter(limit);
  Require(splitter.pieceLimit() == limit);
  std::vector<std::string> lines;
  for (size_t at = 0; at < output.size(); at += chunk) {
    splitter.append(output.substr(at, chunk), lines);
    Require(splitter.pending() <= limit);
  }
  std::vector<std::string> last = splitter.finish();
  lines.insert(lines.end(), last.begin(), last.end());
  Require(splitter.pending() == 0);

  // Chunking changes nothing.
  orvane::LineSplitter whole(limit);
  std::vector<std::string> expected;
  whole.append(output, expected);
  std::vector<std::string> whole_last = whole.finish();
  expected.insert(expected.end(), whole_last.begin(), whole_last.end());
  Require(lines == expected);

  // Each piece is a non-empty run of valid UTF-8 without a line feed, no
  // longer than the limit, taken from the output in order.
  size_t cursor = 0;
  std::string joined;
  for (const std::string& line : lines) {
    Require(!line.empty() && line.size() <= limit);
    Require(orvane::IsValidUtf8(line));
    Require(line.find('\n') == std::string::npos);
    size_t at = output.find(line, cursor);
    Require(at != std::string_view::npos);
    cursor = at + line.size();
    joined += line;
  }

  // Output that is valid UTF-8 loses nothing but its line feeds.
  if (orvane::IsValidUtf8(output)) {
    std::string without_line_feeds;
    for (char c : output)
      if (c != '\n')
        without_line_feeds += c;
    Require(joined == without_line_feeds);
  }
  return 0;
}
