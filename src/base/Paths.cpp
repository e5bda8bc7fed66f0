#include "base/Paths.h"

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
