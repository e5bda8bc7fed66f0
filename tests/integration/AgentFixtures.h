// The stand-in agents beside the agent tests, and their set-up and
// clean-up.
#pragma once

#include "agent/AgentTurns.h"

#include "support/TempDir.h"

#include <gio/gio.h>
#include <glib/gstdio.h>
#include <signal.h>
#include <sys/stat.h>

#include <string>

namespace orvane {

// The folder comes from the build as an absolute path, so the tests find
// their agents from any working folder, whatever form the compiler gives
// file names in.
inline std::string AgentFixturePath(const std::string& name) {
  return std::string(ORVANE_AGENT_FIXTURES) + "/" + name;
}

// Installs a stand-in as the agent's executable, at <root>/bin/claude, and
// answers its path.
inline std::string InstallAgent(const std::string& root, const std::string& fixture) {
  std::string bin = root + "/bin";
  g_mkdir_with_parents(bin.c_str(), 0755);
  std::string path = bin + "/claude";
  TempDir::WriteFile(path, TempDir::Read(AgentFixturePath(fixture)));
  chmod(path.c_str(), 0755);
  return path;
}

// Ends the agents a test left running, and what they started (their
// process groups are ours).
inline void EndRunningAgents(AgentTurns& turns) {
  for (const auto& [turn, process] : turns.claudeTasks()) {
    if (const char* id = g_subprocess_get_identifier(process.get()))
      kill(-pid_t(std::stol(id)), SIGKILL);
    g_subprocess_force_exit(process.get());
  }
}

} // namespace orvane
