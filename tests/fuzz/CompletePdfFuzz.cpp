// Whatever bytes a file holds, CompletePdf answers without crashing, and its
// answer is the plain reading of the rule: longer than 31 bytes, beginning
// "%PDF-", and "%%EOF" somewhere in the last 2048 bytes.
#include "FuzzFiles.h"
#include "library/PdfFiles.h"

#include "support/TempDir.h"

#include <cstdint>
#include <cstdlib>
#include <glib.h>
#include <string>
#include <string_view>

namespace {

bool Reference(std::string_view bytes) {
  if (bytes.size() <= 31 || bytes.substr(0, 5) != "%PDF-")
    return false;
  std::string_view tail = bytes.size() < 2048 ? bytes : bytes.substr(bytes.size() - 2048);
  return tail.find("%%EOF") != std::string_view::npos;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  orvane::PreferMemoryForTemporaryFiles();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static orvane::TempDir folder;
  std::string bytes(reinterpret_cast<const char*>(data), size);
  std::string path = folder.write("paper.pdf", bytes);
  bool complete = orvane::CompletePdf(path);
  if (complete != Reference(bytes))
    std::abort();
  if (orvane::CompletePdf(path) != complete)
    std::abort();
  // Followed by 2048 spaces, no "%%EOF" is left in the last 2048 bytes:
  // never complete, whatever came before.
  path = folder.write("padded.pdf", bytes + std::string(2048, ' '));
  if (orvane::CompletePdf(path))
    std::abort();
  return 0;
}
