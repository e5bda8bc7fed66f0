// A process table of one process, made of real files and links in a
// temporary folder: its command line, its open files and its working folder,
// as /proc shows them.
#pragma once

#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace orvane {

class ProcessTable {
public:
  explicit ProcessTable(int pid) : pid_(pid) {}

  // The folder that stands for /proc.
  std::string root() const { return dir_.path(); }
  // The folder that stands for /proc/PID.
  std::string process() const { return dir_.file(std::to_string(pid_)); }

  void commandLine(const std::vector<std::string>& arguments) const {
    std::string text;
    for (const std::string& argument : arguments)
      text += argument + '\0';
    TempDir::WriteFile(process() + "/cmdline", text);
  }
  void holdOpen(int fd, const std::string& target) const {
    g_mkdir_with_parents((process() + "/fd").c_str(), 0755);
    ASSERT_EQ(symlink(target.c_str(), (process() + "/fd/" + std::to_string(fd)).c_str()), 0);
  }
  void workingFolder(const std::string& folder) const {
    g_mkdir_with_parents(process().c_str(), 0755);
    ASSERT_EQ(symlink(folder.c_str(), (process() + "/cwd").c_str()), 0);
  }

private:
  int pid_;
  TempDir dir_;
};

} // namespace orvane
