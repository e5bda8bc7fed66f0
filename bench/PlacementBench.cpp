// Placement benchmark: how long the search for the window that shows a file
// takes when a viewer's process names thousands of PDFs on its command line
// (3,000 by default, 500 of them twice through hard links), the case that
// once held the main thread for seconds, against a floor of one stat per
// name. Figures, not a test.
// Run: build/orvane_placement_bench [--files N]
#include "placement/WindowOperations.h"

#include "support/FakeScreens.h"
#include "support/FakeWindows.h"
#include "support/TempDir.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace orvane;
using Clock = std::chrono::steady_clock;

int main(int argc, char** argv) {
  int files = 3000;
  for (int i = 1; i + 1 < argc; ++i)
    if (std::strcmp(argv[i], "--files") == 0)
      files = std::atoi(argv[i + 1]);
  int links = files / 6;
  TempDir dir;
  std::vector<std::string> paths;
  for (int i = 0; i < files; ++i)
    paths.push_back(dir.write("p/paper-" + std::to_string(i) + ".pdf", "%PDF-1.4\n"));
  for (int i = 0; i < links; ++i) {
    std::string link = dir.file("p/link-" + std::to_string(i) + ".pdf");
    if (::link(paths[size_t(i)].c_str(), link.c_str()) != 0)
      return 1;
    paths.push_back(link);
  }
  FakeScreens screens;
  FakeWindows windows;
  windows.documents[10] = paths;
  std::string last = "paper-" + std::to_string(files - 1) + ".pdf";
  windows.add(10, last + " — Viewer", {0, 0, 300, 300});
  WindowOperations ops{windows, screens};

  // The floor: one stat of every name.
  auto floor_start = Clock::now();
  size_t existing = 0;
  for (const auto& path : paths) {
    struct stat info;
    existing += stat(path.c_str(), &info) == 0 ? 1 : 0;
  }
  double floor = std::chrono::duration<double>(Clock::now() - floor_start).count();

  auto start = Clock::now();
  bool found = ops.CopyWindowForFile(10, dir.file("p/" + last)).has_value();
  double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  std::printf("window search, one window, %d PDFs (%d hard links): %.3f s (found: %s)\n",
              files + links, links, seconds, found ? "yes" : "no");
  std::printf("floor, one stat of each of the %zu names: %.3f s (search / floor: %.1f)\n", existing,
              floor, floor > 0 ? seconds / floor : 0.0);
  return 0;
}
