// The bundled site's server runs detached from the install folder's site
// folder. After an update it would go on serving from the old copy, whose
// files are gone, and the new copy would find the port taken and use it. So
// the update ends it, and the new copy starts its own.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace orvane {

// Processes of this user, other than this one, whose working folder is
// `install_folder`/share/orvane/site and whose command line runs uvicorn's
// "main:app": the server this program starts there. A shell or an editor
// that merely sits in that folder is not one.
std::vector<pid_t> SiteServersOf(const std::string& install_folder);

// Asks each to end (SIGTERM).
void EndSiteServers(const std::vector<pid_t>& pids);

} // namespace orvane
