// Paths of the stand-in agents beside the agent tests.
#pragma once

#include <string>

namespace orvane {

// The folder comes from the build as an absolute path, so the tests find
// their agents from any working folder, whatever form the compiler gives
// file names in.
inline std::string AgentFixturePath(const std::string& name) {
  return std::string(ORVANE_AGENT_FIXTURES) + "/" + name;
}

} // namespace orvane
