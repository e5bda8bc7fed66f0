// The activity log: one plain-text line per notable event, appended to
// $XDG_STATE_HOME/orvane/Orvane.log as "HH:MM:SS  message". It is the
// program's only diagnostic channel and may be called from any thread.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

namespace orvane {

// One argument of a log format, kept by value so that formatting needs no
// varargs. Strings print as themselves, a missing value as "(null)".
class LogArg {
public:
  enum class Kind { Missing, Text, Signed, Unsigned, Real };

  LogArg(std::nullptr_t) {}
  LogArg(const std::string& text) : kind_(Kind::Text), text_(text) {}
  LogArg(std::string_view text) : kind_(Kind::Text), text_(text) {}
  LogArg(const char* text) : kind_(text ? Kind::Text : Kind::Missing), text_(text ? text : "") {}
  LogArg(const std::optional<std::string>& text)
      : kind_(text ? Kind::Text : Kind::Missing), text_(text.value_or("")) {}
  template <typename N, std::enable_if_t<std::is_integral_v<N> && std::is_signed_v<N>, int> = 0>
  LogArg(N value) : kind_(Kind::Signed), signed_(value) {}
  template <typename N, std::enable_if_t<std::is_integral_v<N> && std::is_unsigned_v<N> &&
                                             !std::is_same_v<N, bool>,
                                         int> = 0>
  LogArg(N value) : kind_(Kind::Unsigned), unsigned_(value) {}
  LogArg(double value) : kind_(Kind::Real), real_(value) {}
  LogArg(bool) = delete; // say "YES"/"NO" or "1"/"0" explicitly

  Kind kind() const { return kind_; }
  // The argument as "%@" prints it.
  std::string describe() const;
  long long asSigned() const;
  unsigned long long asUnsigned() const;
  double asReal() const;

private:
  Kind kind_ = Kind::Missing;
  std::string text_;
  long long signed_ = 0;
  unsigned long long unsigned_ = 0;
  double real_ = 0;
};

// Expands a printf-style format with "%@" for strings and objects, "%s",
// "%d %ld %lu %lld %llu %u", "%f" with a precision such as "%.0f" or
// "%.3f", and "%%". Text in the arguments is never interpreted, and is
// written as LogEscapedText shows it: a control character, a line or
// paragraph separator or a byte that is not UTF-8 becomes a visible escape
// and a backslash is doubled, so every message stays one line that no
// argument can forge. The format itself is the program's own text.
std::string FormatLogMessage(std::string_view format, std::initializer_list<LogArg> args);

// Appends "HH:MM:SS  message\n" to the log in one write. Missing folders on
// the way (the state folder of a fresh account, the log's own) are made with
// mode 0700; the line is dropped only when the file still cannot be opened.
// The file is opened per line, so deleting it while the program runs simply
// starts a new one.
void WriteLogLine(std::string_view message);

// The log file's path, computed once per process.
const std::string& LogFilePath();

// Tests point the log elsewhere; empty restores the default.
void SetLogFilePathForTesting(const std::string& path);

template <typename... Args> void SparLog(std::string_view format, const Args&... args) {
  WriteLogLine(FormatLogMessage(format, {LogArg(args)...}));
}

} // namespace orvane
