#include "base/Paths.h"

#include "base/BuildInfo.h"
#include "base/GObjectPtr.h"

#include <glib.h>

namespace orvane {

std::string HomeFolder() {
  return g_get_home_dir();
}
std::string ConfigFolder() {
  return g_get_user_config_dir();
}
std::string StateFolder() {
  return g_get_user_state_dir();
}
std::string CacheFolder() {
  return g_get_user_cache_dir();
}
std::string DataFolder() {
  return g_get_user_data_dir();
}

std::string DocumentsFolder() {
  const char* documents = g_get_user_special_dir(G_USER_DIRECTORY_DOCUMENTS);
  // GLib answers the home folder itself when user-dirs.dirs says nothing.
  if (documents && *documents && HomeFolder() != documents)
    return documents;
  return JoinPath(HomeFolder(), "Documents");
}

std::string SettingsFilePath() {
  return ConfigFolder() + "/orvane/settings.ini";
}
std::string WebsiteDataFolder() {
  return DataFolder() + "/orvane/website-data";
}
std::string WebsiteCacheFolder() {
  return CacheFolder() + "/orvane/website-cache";
}

std::string InstallFolderOf(const std::string& executable) {
  GCharPtr bin(g_path_get_dirname(executable.c_str()));
  GCharPtr bin_name(g_path_get_basename(bin.get()));
  if (!g_path_is_absolute(bin.get()) || std::string(bin_name.get()) != "bin")
    return "";
  GCharPtr folder(g_path_get_dirname(bin.get()));
  std::string install = folder.get();
  if (!g_file_test(JoinPath(install, "share/orvane").c_str(), G_FILE_TEST_IS_DIR))
    return "";
  return install;
}

std::string RunningExecutable() {
  // Read once: the executable does not move under a running program, and a
  // moved folder (an update) is a new process.
  static const std::string executable = [] {
    GCharPtr path(g_file_read_link("/proc/self/exe", nullptr));
    return path ? std::string(path.get()) : std::string();
  }();
  return executable;
}

std::string RunningInstallFolder() {
  static const std::string folder = [] {
    std::string executable = RunningExecutable();
    return executable.empty() ? std::string() : InstallFolderOf(executable);
  }();
  return folder;
}

std::string BundledSiteFolder() {
  std::string install = RunningInstallFolder();
  return install.empty() ? std::string(kBundledSiteFolder) : JoinPath(install, "share/orvane/site");
}

std::string FileName(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string ParentFolder(const std::string& path) {
  GCharPtr parent(g_path_get_dirname(path.c_str()));
  return parent.get();
}

std::string LowerExtension(const std::string& path) {
  std::string name = FileName(path);
  size_t dot = name.rfind('.');
  // A leading dot alone marks a hidden file, not an extension.
  if (dot == std::string::npos || dot == 0)
    return "";
  std::string extension = name.substr(dot + 1);
  for (char& c : extension)
    if (c >= 'A' && c <= 'Z')
      c = char(c - 'A' + 'a');
  return extension;
}

std::string JoinPath(const std::string& folder, const std::string& name) {
  if (folder.empty())
    return name;
  if (name.empty())
    return folder;
  bool slash_end = folder.back() == '/';
  bool slash_start = name.front() == '/';
  if (slash_end && slash_start)
    return folder + name.substr(1);
  if (slash_end || slash_start)
    return folder + name;
  return folder + "/" + name;
}

} // namespace orvane
