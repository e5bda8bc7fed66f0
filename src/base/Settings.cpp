#include "base/Settings.h"

#include "base/BuildInfo.h"
#include "base/GObjectPtr.h"
#include "base/Paths.h"
#include "base/SparLog.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <glib.h>
#include <glib/gstdio.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orvane {

namespace {

constexpr std::string_view kGroup = "Orvane";
// A settings file holds a few short lines; a larger file is not read (and
// not rewritten), so a hostile file cannot exhaust memory.
constexpr size_t kMaxFileSize = size_t(64) << 20;
// A file of bad lines must not flood the log.
constexpr size_t kMaxReportedBadLines = 100;

bool IsAsciiSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

bool IsControl(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

bool IsUtf8(std::string_view text) {
  return g_utf8_validate_len(text.data(), text.size(), nullptr);
}

std::string_view WithoutLeadingSpace(std::string_view text) {
  size_t at = 0;
  while (at < text.size() && IsAsciiSpace(text[at]))
    ++at;
  return text.substr(at);
}

std::string_view WithoutTrailingSpace(std::string_view text) {
  size_t end = text.size();
  while (end > 0 && IsAsciiSpace(text[end - 1]))
    --end;
  return text.substr(0, end);
}

bool IsGroupName(std::string_view name) {
  if (name.empty() || !IsUtf8(name))
    return false;
  for (char c : name)
    if (c == '[' || c == ']' || IsControl(c))
      return false;
  return true;
}

// GLib's key names: "name" or "name[locale]", no control characters or "=",
// no space at either end of the name.
bool IsKeyName(std::string_view key) {
  if (key.empty() || !IsUtf8(key))
    return false;
  for (char c : key)
    if (IsControl(c) || c == '=')
      return false;
  size_t open = key.find('[');
  std::string_view name = key.substr(0, open);
  if (name.empty() || name.find(']') != std::string_view::npos || name.front() == ' ' ||
      name.back() == ' ')
    return false;
  if (open == std::string_view::npos)
    return true;
  std::string_view locale = key.substr(open + 1);
  return !locale.empty() && locale.back() == ']' &&
         locale.substr(0, locale.size() - 1).find_first_of("[]") == std::string_view::npos;
}

enum class LineKind { Blank, Comment, Group, Entry, Bad };

// One line of the file as it was read, and what it is.
struct ScannedLine {
  size_t number = 0;
  std::string_view content; // without its "\n", with any "\r"
  std::string_view ending;  // "\n", or "" for a last line without one
  LineKind kind = LineKind::Bad;
  bool in_group = false; // lies in an [Orvane] section (the header included)
  std::string_view key;
  std::string value; // decoded, for entries of [Orvane]
};

LineKind Classify(std::string_view content, bool terminated, std::string_view& name,
                  std::string_view& raw_value) {
  if (content.find('\0') != std::string_view::npos)
    return LineKind::Bad;
  // "\r\n" ends a line as "\n" does; a "\r" with no line feed after it is
  // part of the line, as GLib reads it.
  std::string_view line = content;
  if (terminated && !line.empty() && line.back() == '\r')
    line.remove_suffix(1);
  line = WithoutLeadingSpace(line);
  if (line.empty())
    return LineKind::Blank;
  if (line.front() == '#')
    return LineKind::Comment;
  if (line.front() == '[') {
    size_t close = line.find(']');
    if (close == std::string_view::npos)
      return LineKind::Bad;
    for (char c : line.substr(close + 1))
      if (c != ' ' && c != '\t')
        return LineKind::Bad;
    name = line.substr(1, close - 1);
    return IsGroupName(name) ? LineKind::Group : LineKind::Bad;
  }
  size_t equals = line.find('=');
  if (equals == std::string_view::npos || equals == 0)
    return LineKind::Bad;
  name = WithoutTrailingSpace(line.substr(0, equals));
  if (!IsKeyName(name))
    return LineKind::Bad;
  raw_value = WithoutLeadingSpace(line.substr(equals + 1));
  return LineKind::Entry;
}

// Calls visit for every line of text, in order. A bad line changes nothing
// around it: the lines after it belong to the group they would without it.
void ScanSettingsText(std::string_view text, const std::function<void(const ScannedLine&)>& visit) {
  bool seen_group = false;
  bool in_group = false;
  size_t start = 0;
  ScannedLine line;
  while (start < text.size()) {
    size_t feed = text.find('\n', start);
    size_t end = feed == std::string_view::npos ? text.size() : feed;
    line.number += 1;
    line.content = text.substr(start, end - start);
    line.ending = feed == std::string_view::npos ? std::string_view() : text.substr(feed, 1);
    line.key = {};
    line.value.clear();
    start = end + 1;

    std::string_view name, raw_value;
    line.kind = Classify(line.content, !line.ending.empty(), name, raw_value);
    if (line.kind == LineKind::Group) {
      seen_group = true;
      in_group = name == kGroup;
    } else if (line.kind == LineKind::Entry) {
      if (!seen_group) {
        line.kind = LineKind::Bad;
      } else if (in_group) {
        std::optional<std::string> value = UnescapeSettingValue(raw_value);
        if (value && IsUtf8(*value)) {
          line.key = name;
          line.value = std::move(*value);
        } else {
          line.kind = LineKind::Bad;
        }
      } else {
        line.key = name;
      }
    }
    line.in_group = in_group;
    visit(line);
  }
}

// The file's bytes, read without waiting: only a regular file is read, so a
// FIFO or a device in its place is an empty file.
struct FileText {
  std::string text;
  bool too_large = false;
};

FileText ReadSettingsFile(const std::string& path) {
  FileText result;
  int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0)
    return result;
  struct stat info;
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    close(fd);
    return result;
  }
  if (size_t(info.st_size) > kMaxFileSize) {
    close(fd);
    result.too_large = true;
    return result;
  }
  result.text.resize(size_t(info.st_size));
  size_t filled = 0;
  while (true) {
    // The file may grow while it is read; it is read to its end or the cap.
    if (filled == result.text.size()) {
      if (result.text.size() > kMaxFileSize) {
        result.text.clear();
        result.too_large = true;
        break;
      }
      result.text.resize(std::min(kMaxFileSize + 1, result.text.size() + 4096));
    }
    ssize_t got = read(fd, result.text.data() + filled, result.text.size() - filled);
    if (got < 0 && errno == EINTR)
      continue;
    if (got <= 0)
      break;
    filled += size_t(got);
  }
  if (!result.too_large)
    result.text.resize(filled);
  close(fd);
  return result;
}

std::optional<bool> ParseBool(std::string_view value) {
  value = WithoutTrailingSpace(value);
  if (value == "true" || value == "1")
    return true;
  if (value == "false" || value == "0")
    return false;
  return std::nullopt;
}

size_t LineHash(std::string_view content) {
  return std::hash<std::string_view>()(content);
}

} // namespace

bool IsStorableSettingKey(std::string_view key) {
  return IsKeyName(key) && key.find('[') == std::string_view::npos && key.front() != '#' &&
         !IsAsciiSpace(key.front()) && !IsAsciiSpace(key.back());
}

bool IsStorableSettingValue(std::string_view value) {
  for (char c : value)
    if (IsControl(c) && c != '\t' && c != '\n' && c != '\r' && c != 0x7f)
      return false;
  return IsUtf8(value);
}

std::string EscapeSettingValue(std::string_view value) {
  std::string out;
  out.reserve(value.size() + 8);
  bool leading = true;
  for (char c : value) {
    switch (c) {
    case ' ':
      // Leading spaces would be taken for the space after "=".
      out += leading ? "\\s" : " ";
      continue;
    case '\t':
      out += "\\t";
      break;
    case '\n':
      out += "\\n";
      break;
    case '\r':
      out += "\\r";
      break;
    case '\\':
      out += "\\\\";
      break;
    default:
      out += c;
      break;
    }
    leading = false;
  }
  return out;
}

std::optional<std::string> UnescapeSettingValue(std::string_view raw) {
  std::string out;
  out.reserve(raw.size());
  for (size_t at = 0; at < raw.size(); ++at) {
    if (raw[at] != '\\') {
      out += raw[at];
      continue;
    }
    if (++at == raw.size())
      return std::nullopt;
    switch (raw[at]) {
    case 's':
      out += ' ';
      break;
    case 'n':
      out += '\n';
      break;
    case 't':
      out += '\t';
      break;
    case 'r':
      out += '\r';
      break;
    case '\\':
      out += '\\';
      break;
    default:
      return std::nullopt;
    }
  }
  return out;
}

ParsedSettings ParseSettingsText(std::string_view text) {
  ParsedSettings parsed;
  ScanSettingsText(text, [&](const ScannedLine& line) {
    if (line.kind == LineKind::Bad)
      parsed.bad_lines.push_back(line.number);
    else if (line.kind == LineKind::Entry && line.in_group)
      parsed.values[std::string(line.key)] = line.value;
  });
  return parsed;
}

std::optional<std::string> EditSettingsText(std::string_view text, std::string_view key,
                                            const std::optional<std::string>& value) {
  if (!IsStorableSettingKey(key) || (value && !IsStorableSettingValue(*value)))
    return std::nullopt;

  struct Line {
    std::string_view content, ending;
    LineKind kind;
    bool is_key;
  };
  std::vector<Line> lines;
  size_t last_of_key = SIZE_MAX;  // the line that gives the key its value
  size_t end_of_group = SIZE_MAX; // the last line of the last [Orvane] section
  ScanSettingsText(text, [&](const ScannedLine& line) {
    bool is_key = line.kind == LineKind::Entry && line.in_group && line.key == key;
    if (is_key)
      last_of_key = lines.size();
    if (line.in_group && line.kind != LineKind::Blank && line.kind != LineKind::Comment)
      end_of_group = lines.size();
    lines.push_back({line.content, line.ending, line.kind, is_key});
  });

  // New lines end as the file's lines do.
  std::string_view eol = "\n";
  for (const Line& line : lines)
    if (!line.ending.empty()) {
      if (!line.content.empty() && line.content.back() == '\r')
        eol = "\r\n";
      break;
    }
  std::string entry = value ? std::string(key) + "=" + EscapeSettingValue(*value) : "";

  std::string out;
  out.reserve(text.size() + entry.size() + 16);
  // A last line without a line feed is given one that leaves it reading as
  // before: a "\r" at its end would otherwise be taken for half of "\r\n".
  auto end_open_line = [&](const Line& line) {
    if (line.ending.empty())
      out += !line.content.empty() && line.content.back() == '\r' ? "\r\n" : eol;
  };
  for (size_t at = 0; at < lines.size(); ++at) {
    const Line& line = lines[at];
    if (line.is_key && (!value || at == last_of_key)) {
      if (!value)
        continue; // every line of the key goes
      out += entry;
      if (!line.ending.empty() && !line.content.empty() && line.content.back() == '\r')
        out += '\r';
      out += line.ending;
      continue;
    }
    out.append(line.content);
    out.append(line.ending);
    if (value && last_of_key == SIZE_MAX && at == end_of_group) {
      end_open_line(line);
      out += entry;
      out += eol;
    }
  }
  if (value && last_of_key == SIZE_MAX && end_of_group == SIZE_MAX) {
    if (!lines.empty()) {
      end_open_line(lines.back());
      if (lines.back().kind != LineKind::Blank)
        out += eol;
    }
    out += "[";
    out += kGroup;
    out += "]";
    out += eol;
    out += entry;
    out += eol;
  }
  return out;
}

Settings& Settings::standard() {
  static Settings settings(SettingsFilePath());
  return settings;
}

Settings::Settings(std::string file_path) : file_path_(std::move(file_path)) {}

void Settings::registerDefaults(const std::map<std::string, Value>& defaults) {
  for (const auto& [key, value] : defaults)
    defaults_[key] = value;
}

void Settings::reportBadLines(const std::vector<std::pair<size_t, size_t>>& lines) const {
  std::lock_guard<std::mutex> lock(reported_mutex_);
  for (const auto& line : lines) {
    if (reported_all_)
      return;
    if (reported_.count(line))
      continue;
    if (reported_.size() == kMaxReportedBadLines) {
      reported_all_ = true;
      SparLog("settings: more lines of settings.ini ignored, not listed");
      return;
    }
    reported_.insert(line);
    if (holding_reports_)
      held_reports_.push_back(line.first);
    else
      SparLog("settings: line %d of settings.ini ignored", line.first);
  }
}

void Settings::holdBadLineReports() {
  std::lock_guard<std::mutex> lock(reported_mutex_);
  holding_reports_ = true;
}

void Settings::releaseBadLineReports() {
  std::lock_guard<std::mutex> lock(reported_mutex_);
  holding_reports_ = false;
  for (size_t line : held_reports_)
    SparLog("settings: line %d of settings.ini ignored", line);
  held_reports_.clear();
}

std::optional<std::string> Settings::fileValue(const std::string& key) const {
  FileText file = ReadSettingsFile(file_path_);
  std::optional<std::string> found;
  std::vector<std::pair<size_t, size_t>> bad;
  ScanSettingsText(file.text, [&](const ScannedLine& line) {
    if (line.kind == LineKind::Bad)
      bad.emplace_back(line.number, LineHash(line.content));
    else if (line.kind == LineKind::Entry && line.in_group && line.key == key)
      found = line.value;
  });
  reportBadLines(bad);
  return found;
}

std::optional<std::string> Settings::stringForKey(const std::string& key) const {
  if (std::optional<std::string> value = fileValue(key))
    return value;
  auto found = defaults_.find(key);
  if (found != defaults_.end()) {
    if (auto text = std::get_if<std::string>(&found->second))
      return *text;
  }
  return std::nullopt;
}

bool Settings::boolForKey(const std::string& key) const {
  if (std::optional<std::string> value = fileValue(key)) {
    if (std::optional<bool> flag = ParseBool(*value))
      return *flag;
  }
  auto found = defaults_.find(key);
  if (found != defaults_.end()) {
    if (auto flag = std::get_if<bool>(&found->second))
      return *flag;
  }
  return false;
}

void Settings::edit(const std::string& key, const std::optional<std::string>& value) {
  // One edit at a time in this process, so two edits do not undo each other.
  static std::mutex editing;
  std::lock_guard<std::mutex> lock(editing);

  GCharPtr folder(g_path_get_dirname(file_path_.c_str()));
  g_mkdir_with_parents(folder.get(), 0700);
  FileText file = ReadSettingsFile(file_path_);
  if (file.too_large) {
    SparLog("settings: settings.ini is too large to rewrite, %@ not saved", key);
    return;
  }
  std::optional<std::string> edited = EditSettingsText(file.text, key, value);
  if (!edited) {
    // A key that is not storable may hold a line feed; the log escapes it.
    SparLog("settings: %@ cannot be stored in settings.ini, not saved", key);
    return;
  }
  if (*edited == file.text)
    return;
  // Written to a temporary file that then replaces the old one.
  GErrorPtr error;
  if (!g_file_set_contents(file_path_.c_str(), edited->data(), gssize(edited->size()), error.out()))
    SparLog("settings: could not write settings.ini (%@)", error.message());
}

void Settings::setString(const std::string& key, const std::string& value) {
  edit(key, value);
}

void Settings::setBool(const std::string& key, bool value) {
  edit(key, std::string(value ? "true" : "false"));
}

void Settings::remove(const std::string& key) {
  edit(key, std::nullopt);
}

void RegisterDefaultSettings() {
  Settings::standard().registerDefaults({
      {"AppURL", std::string(kDefaultSiteAddress)},
      {"ProjectDir", BundledSiteFolder()},
      {"Desktop", std::string("auto")},
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
  return folder.empty() ? BundledSiteFolder() : folder;
}

} // namespace orvane
