#include "update/OldCopyServers.h"

#include "base/Paths.h"
#include "base/SparLog.h"
#include "desktop/ProcessDocuments.h"

#include <csignal>
#include <cstdlib>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orvane {
namespace {

std::string RealPath(const std::string& path) {
  char* resolved = realpath(path.c_str(), nullptr);
  std::string out = resolved ? resolved : "";
  free(resolved);
  return out;
}

bool RunsTheSite(const std::vector<std::string>& args) {
  bool uvicorn = false, app = false;
  for (const std::string& arg : args) {
    uvicorn = uvicorn || FileName(arg) == "uvicorn";
    app = app || arg == "main:app";
  }
  return uvicorn && app;
}

} // namespace

std::vector<pid_t> SiteServersOf(const std::string& install_folder) {
  std::vector<pid_t> found;
  std::string site = RealPath(JoinPath(install_folder, "share/orvane/site"));
  if (site.empty())
    return found;
  GDir* dir = g_dir_open("/proc", 0, nullptr);
  if (!dir)
    return found;
  while (const char* name = g_dir_read_name(dir)) {
    char* end = nullptr;
    long pid = strtol(name, &end, 10);
    if (!end || *end || pid <= 0 || pid == getpid())
      continue;
    std::string proc = std::string("/proc/") + name;
    struct stat info;
    if (stat(proc.c_str(), &info) != 0 || info.st_uid != getuid())
      continue;
    if (ProcessWorkingFolder(int(pid)) == site && RunsTheSite(ProcessArguments(int(pid))))
      found.push_back(pid_t(pid));
  }
  g_dir_close(dir);
  return found;
}

void EndSiteServers(const std::vector<pid_t>& pids) {
  for (pid_t pid : pids) {
    if (kill(pid, SIGTERM) == 0)
      SparLog("bundled site: ended its server (pid %d) that ran from the old copy", int(pid));
  }
}

} // namespace orvane
