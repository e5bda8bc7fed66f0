// Real Wayland clients for the KWin selection tests: child processes read
// line by line, tools run to completion while the main loop keeps running,
// and tools run while the main thread is blocked (to show that serving the
// CLIPBOARD does not need it).
#pragma once

#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/MainLoop.h"

#include <cerrno>
#include <fcntl.h>
#include <glib.h>
#include <memory>
#include <optional>
#include <signal.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace orvane {

// Starts a fixture and waits for the line it prints once it is up.
inline std::unique_ptr<Child> StartAndWaitFor(const std::vector<std::string>& argv,
                                              const std::string& line) {
  std::unique_ptr<Child> child = Child::Start(argv);
  if (!child)
    return nullptr;
  std::optional<std::string> got = child->readLine();
  if (!got || *got != line)
    return nullptr;
  return child;
}

// Runs a tool with a time limit WITHOUT running this thread's main loop
// (whatever answers it must do so from another thread or process); its
// standard output goes to `out_file`. The wait status; -1 when it could not
// be run.
inline int RunToolBlocking(const std::vector<std::string>& argv, const std::string& out_file,
                           int seconds = 10) {
  std::vector<std::string> full{
      "sh", "-c",     "out=$1; shift; exec timeout -s KILL \"$@\" >\"$out\"",
      "sh", out_file, std::to_string(seconds)};
  full.insert(full.end(), argv.begin(), argv.end());
  std::vector<gchar*> args;
  for (const std::string& arg : full)
    args.push_back(const_cast<gchar*>(arg.c_str()));
  args.push_back(nullptr);
  gint status = -1;
  if (!g_spawn_sync(nullptr, args.data(), nullptr, G_SPAWN_SEARCH_PATH, nullptr, nullptr, nullptr,
                    nullptr, &status, nullptr))
    return -1;
  return status;
}

inline std::string FixturePath(const std::string& name) {
  return std::string(ORVANE_KWIN_FIXTURES) + "/" + name;
}

inline std::string DataControlOwner() {
  return ORVANE_DATA_CONTROL_OWNER;
}

} // namespace orvane
