// Paths of the stand-in agents beside the agent tests.
#pragma once

#include <string>

namespace orvane {

inline std::string AgentFixturePath(const std::string& name) {
  std::string here = __FILE__;
  return here.substr(0, here.rfind('/')) + "/agent_fixtures/" + name;
}

} // namespace orvane
