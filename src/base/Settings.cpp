#include "base/Settings.h"

#include "base/BuildInfo.h"
#include "base/GObjectPtr.h"
#include "base/Paths.h"

#include <glib/gstdio.h>

namespace orvane {

namespace {
constexpr char kGroup[] = "Orvane";

GKeyFilePtr LoadKeyFile(const std::string& path) {
  GKeyFilePtr file(g_key_file_new());
  // A missing or unreadable file is an empty one.
  g_key_file_load_from_file(file.get(), path.c_str(), G_KEY_FILE_KEEP_COMMENTS, nullptr);
  return file;
}
} // namespace

Settings& Settings::standard() {
  static Settings settings(SettingsFilePath());
  return settings;
}

Settings::Settings(std::string file_path) : file_path_(std::move(file_path)) {}

void Settings::registerDefaults(const std::map<std::string, Value>& defaults) {
  for (const auto& [key, value] : defaults)
    defaults_[key] = value;
}

std::optional<std::string> Settings::stringForKey(const std::string& key) const {
  GKeyFilePtr file = LoadKeyFile(file_path_);
  GCharPtr value(g_key_file_get_string(file.get(), kGroup, key.c_str(), nullptr));
  if (value)
    return value.str();
  auto found = defaults_.find(key);
  if (found != defaults_.end()) {
    if (auto text = std::get_if<std::string>(&found->second))
      return *text;
  }
  return std::nullopt;
}

bool Settings::boolForKey(const std::string& key) const {
  GKeyFilePtr file = LoadKeyFile(file_path_);
  GErrorPtr error;
  gboolean value = g_key_file_get_boolean(file.get(), kGroup, key.c_str(), error.out());
  if (!error)
    return value;
  auto found = defaults_.find(key);
  if (found != defaults_.end()) {
    if (auto flag = std::get_if<bool>(&found->second))
      return *flag;
  }
  return false;
}

template <typename Edit> void Settings::edit(Edit&& change) {
  GCharPtr folder(g_path_get_dirname(file_path_.c_str()));
  g_mkdir_with_parents(folder.get(), 0700);
  GKeyFilePtr file = LoadKeyFile(file_path_);
  change(file.get());
  // g_key_file_save_to_file writes a temporary file and renames it.
  g_key_file_save_to_file(file.get(), file_path_.c_str(), nullptr);
}

void Settings::setString(const std::string& key, const std::string& value) {
  edit([&](GKeyFile* file) { g_key_file_set_string(file, kGroup, key.c_str(), value.c_str()); });
}

void Settings::setBool(const std::string& key, bool value) {
  edit([&](GKeyFile* file) { g_key_file_set_boolean(file, kGroup, key.c_str(), value); });
}

void Settings::remove(const std::string& key) {
  edit([&](GKeyFile* file) { g_key_file_remove_key(file, kGroup, key.c_str(), nullptr); });
}

void RegisterDefaultSettings() {
  Settings::standard().registerDefaults({
      {"AppURL", std::string(kDefaultSiteAddress)},
      {"ProjectDir", std::string(kBundledSiteFolder)},
      {"NSAutomaticSpellingCorrectionEnabled", false},
      {"NSAutomaticTextReplacementEnabled", false},
      {"NSAutomaticQuoteSubstitutionEnabled", false},
      {"NSAutomaticDashSubstitutionEnabled", false},
      {"NSAutomaticPeriodSubstitutionEnabled", false},
  });
}

std::string StripTrailingSlashes(std::string address) {
  while (!address.empty() && address.back() == '/')
    address.pop_back();
  return address;
}

std::string SiteAddress() {
  std::string address = Settings::standard().stringForKey("AppURL").value_or("");
  if (address.empty())
    address = kDefaultSiteAddress;
  return StripTrailingSlashes(address);
}

std::string ProjectDirectory() {
  std::string folder = Settings::standard().stringForKey("ProjectDir").value_or("");
  return folder.empty() ? std::string(kBundledSiteFolder) : folder;
}

} // namespace orvane
