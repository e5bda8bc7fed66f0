// User settings: a key file ($XDG_CONFIG_HOME/orvane/settings.ini, group
// [Orvane]) over defaults registered in memory at start. A value in the file
// wins over the registered default. The file is read afresh at every lookup,
// so a change made while the program runs takes effect at the next use.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <variant>

namespace orvane {

inline constexpr char kDefaultSiteAddress[] = "http://127.0.0.1:8000";

class Settings {
public:
  using Value = std::variant<std::string, bool>;

  // The settings of this user's key file.
  static Settings& standard();

  explicit Settings(std::string file_path);

  void registerDefaults(const std::map<std::string, Value>& defaults);

  // nullopt when neither the file nor the defaults hold a string for key.
  std::optional<std::string> stringForKey(const std::string& key) const;
  bool boolForKey(const std::string& key) const;

  void setString(const std::string& key, const std::string& value);
  void setBool(const std::string& key, bool value);
  void remove(const std::string& key);

  const std::string& filePath() const { return file_path_; }

private:
  template <typename Edit> void edit(Edit&& change);

  std::string file_path_;
  std::map<std::string, Value> defaults_;
};

// Registers the program's defaults in Settings::standard(); the first thing
// main does, before it looks at its arguments.
void RegisterDefaultSettings();

// The site address: "AppURL", or the built-in default when it is missing or
// empty, with every trailing "/" removed.
std::string SiteAddress();
// "ProjectDir" when set and non-empty, else the bundled reference site.
std::string ProjectDirectory();
// Removes every trailing "/", one at a time.
std::string StripTrailingSlashes(std::string address);

} // namespace orvane
