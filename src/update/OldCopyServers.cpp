#include "update/OldCopyServers.h"

#include "base/GObjectPtr.h"
#include "base/Paths.h"
#include "base/SparLog.h"

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

std::vector<std::string> CommandLine(const std::string& proc) {
  gchar* text = nullptr;
  gsize length = 0;
  std::vector<std::string> args;
  if (!g_file_get_contents((proc + "/cmdline").c_str(), &text, &length, nullptr))
    return args;
  std::string all(text, length);
  g_free(text);
  size_t start = 0;
  while (start < all.size()) {
    size_t end = all.find('\0', start);
    if (end == std::string::npos)
      end = all.size();
    args.push_back(all.substr(start, end - start));
    start = end + 1;
  }
  return args;
}

bool RunsTheSite(const std::vector<std::string>& args) {
  bool uvicorn = false, app = false;
  for (const std::string& arg : args) {
    GCharPtr name(g_path_get_basename(arg.c_str()));
    uvicorn = uvicorn || g_str_equal(name.get(), "uvicorn");
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
    GCharPtr cwd(g_file_read_link((proc + "/cwd").c_str(), nullptr));
    if (cwd && site == cwd.get() && RunsTheSite(CommandLine(proc)))
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
