// The agent's output, in chunks of any size: every complete line comes out
// once, in order, whole and valid UTF-8, however the bytes are cut.
#include "agent/LineSplitter.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0)
    return 0;
  // The first byte chooses the chunk size, so the same output is also cut
  // in different places.
  size_t chunk = size_t(data[0] % 17) + 1;
  std::string_view output(reinterpret_cast<const char*>(data + 1), size - 1);

  orvane::LineSplitter splitter;
  std::vector<std::string> lines;
  for (size_t at = 0; at < output.size(); at += chunk)
    splitter.append(output.substr(at, chunk), lines);
  std::vector<std::string> last = splitter.finish();
  lines.insert(lines.end(), last.begin(), last.end());

  orvane::LineSplitter whole;
  std::vector<std::string> expected;
  whole.append(output, expected);
  std::vector<std::string> whole_last = whole.finish();
  expected.insert(expected.end(), whole_last.begin(), whole_last.end());

  if (lines != expected)
    std::abort();
  for (const std::string& line : lines)
    if (line.empty() || !orvane::IsValidUtf8(line))
      std::abort();
  return 0;
}
