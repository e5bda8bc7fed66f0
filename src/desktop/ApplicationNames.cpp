#include "desktop/ApplicationNames.h"

#include "base/GObjectPtr.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <gio/gdesktopappinfo.h>
#include <system_error>

namespace orvane {

namespace fs = std::filesystem;

namespace {
std::string NonNull(const char* text) {
  return text ? text : "";
}
} // namespace

std::string LowerAscii(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return char(std::tolower(c)); });
  return text;
}

std::string ExecutableNameOfPid(int pid) {
  if (pid <= 0)
    return "";
  std::error_code error;
  fs::path exe = fs::read_symlink("/proc/" + std::to_string(pid) + "/exe", error);
  return error ? std::string() : exe.filename().string();
}

std::vector<std::string> ApplicationNames(const std::string& name) {
  std::vector<std::string> names;
  auto add = [&](const std::string& candidate) {
    std::string lower = LowerAscii(candidate);
    if (!lower.empty() && std::find(names.begin(), names.end(), lower) == names.end())
      names.push_back(lower);
  };
  add(name);
  std::string id = name;
  const std::string suffix = ".desktop";
  if (id.size() > suffix.size() &&
      id.compare(id.size() - suffix.size(), suffix.size(), suffix) == 0)
    id.resize(id.size() - suffix.size());
  add(id);
  if (id.empty() || id.find('/') != std::string::npos)
    return names;
  auto info = GObjectPtr<GDesktopAppInfo>::adopt(g_desktop_app_info_new((id + suffix).c_str()));
  if (info) {
    add(NonNull(g_desktop_app_info_get_startup_wm_class(info.get())));
    std::string executable = NonNull(g_app_info_get_executable(G_APP_INFO(info.get())));
    add(fs::path(executable).filename().string());
  }
  return names;
}

std::vector<int> PidsOfApplication(const std::string& name,
                                   const std::vector<NamedWindow>& windows) {
  std::vector<int> pids;
  if (name.empty())
    return pids;
  std::vector<std::string> names = ApplicationNames(name);
  auto known = [&](const std::string& candidate) {
    return !candidate.empty() &&
           std::find(names.begin(), names.end(), LowerAscii(candidate)) != names.end();
  };
  for (const NamedWindow& window : windows) {
    if (window.pid <= 0 || std::find(pids.begin(), pids.end(), window.pid) != pids.end())
      continue;
    bool match = std::any_of(window.names.begin(), window.names.end(), known) ||
                 known(ExecutableNameOfPid(window.pid));
    if (match)
      pids.push_back(window.pid);
  }
  return pids;
}

} // namespace orvane
