// User settings: a key file ($XDG_CONFIG_HOME/orvane/settings.ini, group
// [Orvane]) over defaults registered in memory at start. A value in the file
// wins over the registered default. The file is read afresh at every lookup,
// so a change made while the program runs takes effect at the next use.
//
// The file is read tolerantly: a line that is not understood is skipped
// alone (and logged once), never the whole file, and a write keeps every line
// it does not change exactly as it was.
#pragma once

#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

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

  // Each write replaces the file atomically. A key or value the file cannot
  // hold (see IsStorableSettingKey/Value) is not written and is logged.
  void setString(const std::string& key, const std::string& value);
  void setBool(const std::string& key, bool value);
  void remove(const std::string& key);

  const std::string& filePath() const { return file_path_; }

  // The launch writes its banner first, and reading the settings for it
  // must not log before it: bad lines found while reports are held are
  // logged when they are released.
  void holdBadLineReports();
  void releaseBadLineReports();

private:
  std::optional<std::string> fileValue(const std::string& key) const;
  void edit(const std::string& key, const std::optional<std::string>& value);
  void reportBadLines(const std::vector<std::pair<size_t, size_t>>& lines) const;

  std::string file_path_;
  std::map<std::string, Value> defaults_;
  // Bad lines already logged, by line number and a hash of the line.
  mutable std::mutex reported_mutex_;
  mutable std::set<std::pair<size_t, size_t>> reported_;
  mutable bool reported_all_ = false;
  bool holding_reports_ = false;
  mutable std::vector<size_t> held_reports_;
};

// The settings file's text, read as GLib writes key files: "[group]" lines,
// "key=value" lines, "#" comments and blank lines, with LF or CRLF line ends
// and GLib's escapes in values (\s \n \t \r \\). Any other line, a line
// with a NUL byte, a key before the first group, and an [Orvane] value with a
// bad escape or that is not UTF-8 make a bad line, which is skipped alone.
struct ParsedSettings {
  // The [Orvane] group; a later line of a key wins.
  std::map<std::string, std::string> values;
  // Numbers (from 1) of the lines skipped.
  std::vector<size_t> bad_lines;
};
ParsedSettings ParseSettingsText(std::string_view text);

// The text with key set to value in the [Orvane] group, or removed from it
// when value is nullopt. The key's line is replaced in place (a new key is
// added at the end of the group, the group at the end of the text); every
// other line stays byte for byte. nullopt when the key or value cannot be
// stored.
std::optional<std::string> EditSettingsText(std::string_view text, std::string_view key,
                                            const std::optional<std::string>& value);

// A key the file can hold: a GLib key name without a locale suffix, not
// starting with "#" and without surrounding spaces.
bool IsStorableSettingKey(std::string_view key);
// A value the file can hold: UTF-8 text without control characters other
// than tab, line feed and carriage return.
bool IsStorableSettingValue(std::string_view value);

std::string EscapeSettingValue(std::string_view value);
// nullopt for a bad escape or a trailing backslash.
std::optional<std::string> UnescapeSettingValue(std::string_view raw);

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
