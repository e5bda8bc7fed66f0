// Any bytes as settings.ini: reading them gives the same values every time,
// and writing one key gives that key the value written while every other line
// stays byte for byte and every other key keeps its value.
#include "base/Settings.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

using orvane::EditSettingsText;
using orvane::ParsedSettings;
using orvane::ParseSettingsText;

// Keys the program writes, and some it refuses to.
const char* const kKeys[] = {"AppURL", "ProjectDir",   "A",       "Key With Spaces",
                             "ünï",    "LibraryFrame", "#Hidden", "Key[de]"};

void Require(bool condition) {
  if (!condition)
    std::abort();
}

// The lines' contents, without their line feeds; a final line feed does not
// start another line.
std::vector<std::string_view> Lines(std::string_view text) {
  std::vector<std::string_view> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t feed = text.find('\n', start);
    if (feed == std::string_view::npos)
      feed = text.size();
    lines.push_back(text.substr(start, feed - start));
    start = feed + 1;
  }
  return lines;
}

std::string_view WithoutCarriageReturn(std::string_view line) {
  if (!line.empty() && line.back() == '\r')
    line.remove_suffix(1);
  return line;
}

// Whether a line, read inside the [Orvane] group, is an entry of key.
bool IsEntryOf(std::string_view line, const std::string& key) {
  std::string alone = "[Orvane]\n" + std::string(line) + "\n";
  return ParseSettingsText(alone).values.count(key) == 1;
}

void RequireSameValuesExcept(const ParsedSettings& before, const ParsedSettings& after,
                             const std::string& key) {
  for (const auto& [name, value] : before.values) {
    if (name == key)
      continue;
    auto found = after.values.find(name);
    Require(found != after.values.end() && found->second == value);
  }
  for (const auto& [name, value] : after.values)
    Require(name == key || before.values.count(name) == 1);
}

void CheckSet(std::string_view text, const ParsedSettings& before, const std::string& key,
              const std::string& value) {
  std::optional<std::string> edited = EditSettingsText(text, key, value);
  bool storable = orvane::IsStorableSettingKey(key) && orvane::IsStorableSettingValue(value);
  Require(edited.has_value() == storable);
  if (!edited)
    return;
  ParsedSettings after = ParseSettingsText(*edited);
  auto found = after.values.find(key);
  Require(found != after.values.end() && found->second == value);
  RequireSameValuesExcept(before, after, key);

  // Apart from one stretch, the lines are the same: in the input at most the
  // key's own line, in the output only its new line, a group header and a
  // blank line.
  std::vector<std::string_view> in = Lines(text), out = Lines(*edited);
  // A last line without a line feed may be given one, "\r\n" in a file of
  // such lines; its bytes stay.
  bool open_end = !text.empty() && text.back() != '\n';
  auto same = [&](size_t in_at, size_t out_at) {
    if (in[in_at] == out[out_at])
      return true;
    return open_end && in_at + 1 == in.size() && out[out_at].size() == in[in_at].size() + 1 &&
           out[out_at].substr(0, in[in_at].size()) == in[in_at] && out[out_at].back() == '\r';
  };
  size_t prefix = 0;
  while (prefix < in.size() && prefix < out.size() && same(prefix, prefix))
    ++prefix;
  size_t suffix = 0;
  while (suffix < in.size() - prefix && suffix < out.size() - prefix &&
         same(in.size() - 1 - suffix, out.size() - 1 - suffix))
    ++suffix;
  size_t in_changed = in.size() - prefix - suffix;
  size_t out_changed = out.size() - prefix - suffix;
  Require(in_changed <= 1 && out_changed <= 3);
  if (in_changed == 1)
    Require(IsEntryOf(in[prefix], key));
  std::string entry = key + "=" + orvane::EscapeSettingValue(value);
  for (size_t at = prefix; at < prefix + out_changed; ++at) {
    std::string_view line = WithoutCarriageReturn(out[at]);
    Require(line == entry || line == "[Orvane]" || line.empty());
  }
}

void CheckRemove(std::string_view text, const ParsedSettings& before, const std::string& key) {
  std::optional<std::string> edited = EditSettingsText(text, key, std::nullopt);
  Require(edited.has_value() == orvane::IsStorableSettingKey(key));
  if (!edited)
    return;
  ParsedSettings after = ParseSettingsText(*edited);
  Require(after.values.count(key) == 0);
  RequireSameValuesExcept(before, after, key);

  // The output is the input without some entries of the key.
  std::vector<std::string_view> in = Lines(text), out = Lines(*edited);
  size_t next = 0;
  for (std::string_view line : in) {
    if (next < out.size() && out[next] == line)
      ++next;
    else
      Require(IsEntryOf(line, key));
  }
  Require(next == out.size());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  // The first byte picks the key and how many of the following bytes are the
  // value; the rest is the file.
  std::string key = kKeys[0];
  std::string value;
  if (!input.empty()) {
    uint8_t choice = uint8_t(input[0]);
    input.remove_prefix(1);
    key = kKeys[choice % (sizeof kKeys / sizeof kKeys[0])];
    size_t length = std::min<size_t>(choice >> 3, input.size());
    value = std::string(input.substr(0, length));
    input.remove_prefix(length);
  }
  std::string_view text = input;

  ParsedSettings first = ParseSettingsText(text);
  ParsedSettings second = ParseSettingsText(text);
  Require(first.values == second.values && first.bad_lines == second.bad_lines);
  size_t line_count = Lines(text).size();
  for (size_t number : first.bad_lines)
    Require(number >= 1 && number <= line_count);

  CheckSet(text, first, key, value);
  CheckRemove(text, first, key);

  // An escaped value reads back as itself.
  if (orvane::IsStorableSettingValue(value)) {
    std::optional<std::string> back =
        orvane::UnescapeSettingValue(orvane::EscapeSettingValue(value));
    Require(back && *back == value);
  }
  return 0;
}
