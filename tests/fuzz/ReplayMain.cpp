// Runs a fuzz target over files, without libFuzzer: every file given, and
// every file inside a folder given, is one input. This is how the checked-in
// corpora run as regression tests under the ordinary compiler.
#include "support/TempDir.h"

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {
int RunOne(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  return 1;
}
} // namespace

int main(int argc, char** argv) {
  orvane::UseThrowawayHome();
  int inputs = 0;
  for (int i = 1; i < argc; ++i) {
    std::filesystem::path given(argv[i]);
    if (std::filesystem::is_directory(given)) {
      for (const auto& entry : std::filesystem::recursive_directory_iterator(given))
        if (entry.is_regular_file())
          inputs += RunOne(entry.path());
    } else {
      inputs += RunOne(given);
    }
  }
  std::printf("%d inputs replayed\n", inputs);
  // A corpus that has gone missing must not pass as a clean run.
  return inputs > 0 ? 0 : 1;
}
