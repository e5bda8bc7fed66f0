// Points the activity log at a file of its own for one test and reads it.
#pragma once

#include "base/SparLog.h"
#include "support/TempDir.h"

#include <sstream>
#include <string>
#include <vector>

namespace orvane {

class LogCapture {
public:
  LogCapture() { SetLogFilePathForTesting(dir_.file("Orvane.log")); }
  ~LogCapture() { SetLogFilePathForTesting(""); }

  std::string path() const { return dir_.file("Orvane.log"); }

  // The messages written so far, without their time stamps.
  std::vector<std::string> messages() const {
    std::vector<std::string> result;
    std::istringstream in(TempDir::Read(path()));
    std::string line;
    while (std::getline(in, line))
      result.push_back(line.size() > 10 ? line.substr(10) : line);
    return result;
  }

private:
  TempDir dir_;
};

} // namespace orvane
