// Questions to KWin through its scripting interface over D-Bus. Each query
// is a small JavaScript program written to a private file, loaded with
// org.kde.kwin.Scripting.loadScript and run; the program sends its answer
// back with callDBus to an object this process registers on the session
// bus for the length of the query. An answer counts only when it comes from
// the unique name owning org.kde.KWin and carries the query's random token;
// it is JSON, checked field by field. Every wait is bounded and runs none of
// the main loop's other sources; the script is unloaded afterwards.
//
// KWin's coordinates have their origin at the top left of the whole desktop
// with y down; Orvane's desktop space has it at the bottom left of the
// primary screen with y up. The primary screen is KWin's first screen
// (scripting screen 0), which each answer reports. Main thread only.
#pragma once

#include "base/GObjectPtr.h"
#include "base/LogThrottle.h"
#include "desktop/Geometry.h"

#include <functional>
#include <gio/gio.h>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace orvane {

// A value as JavaScript source: strings JSON-encoded with every character
// outside ASCII escaped (so no line separator can end a literal), numbers
// only when finite.
std::string ScriptString(const std::string& text);
std::optional<std::string> ScriptNumber(double value);

// The whole program for one query: `body` is the body of a JavaScript
// function whose value is the answer; the program adds helpers
// (describe(window), find(id), windows(), active(), activate(window),
// outputs(), area(kind, output), rect(geometry)), which use KWin 5.27's
// scripting names and Plasma 6's where those are missing, and sends
// {ok, result, screens} to `service` with `token`.
std::string KWinScriptText(const std::string& service, const std::string& token,
                           const std::string& body);

// What a query answered.
struct ScriptAnswer {
  nlohmann::json result;     // the body's value (null when it had none)
  std::vector<Rect> screens; // KWin's screens in KWin's coordinates, screen 0 first
};

// The most bytes of an answer looked at; a longer one is refused.
inline constexpr size_t kMaxScriptAnswer = 1024 * 1024;

// Parses an answer's text; nothing (and the reason) when it is not JSON of
// the expected shape or the script reported an error.
std::optional<ScriptAnswer> ParseScriptAnswer(const std::string& text, std::string& why);

// A window as a script's describe() reports it, in KWin's coordinates.
struct KWinWindow {
  std::string internal_id;
  int pid = 0;
  std::string caption;
  std::string resource_class;
  std::string resource_name;
  std::string desktop_file_name;
  bool normal = false;
  bool full_screen = false;
  std::optional<Rect> frame;
};

// Checks one described window; nothing (and the reason) when a field is
// missing, of the wrong type or out of range.
std::optional<KWinWindow> ParseKWinWindow(const nlohmann::json& value, std::string& why);
// A rectangle {x, y, width, height} of finite numbers in range.
std::optional<Rect> ParseKWinRect(const nlohmann::json& value);

// Between KWin's coordinates and the desktop space, given the primary
// screen in KWin's coordinates.
Rect DesktopRectFromKWin(const Rect& kwin, const Rect& primary);
Rect KWinRectFromDesktop(const Rect& desktop, const Rect& primary);

class KWinScripting {
public:
  struct Options {
    double answer_seconds = 2;                 // each D-Bus call and the answer's wait
    std::string kwin_service = "org.kde.KWin"; // whose owner may answer
    std::function<std::string()> new_token;    // tests fix it; random otherwise
  };

  // `session_bus` may be null: every query then answers nothing.
  explicit KWinScripting(GDBusConnection* session_bus);
  KWinScripting(GDBusConnection* session_bus, Options options);
  ~KWinScripting();
  KWinScripting(const KWinScripting&) = delete;
  KWinScripting& operator=(const KWinScripting&) = delete;

  // Runs one query; nothing when KWin could not be asked or gave no usable
  // answer in time (logged, at most once a second).
  std::optional<ScriptAnswer> query(const std::string& body);

  // Orvane's number for a KWin window (its internalId), the same for the
  // life of the process; and back.
  unsigned long idFor(const std::string& internal_id);
  std::optional<std::string> internalIdOf(unsigned long id) const;

  // The path and interface of the object that receives the answers.
  static constexpr const char* kAnswerPath = "/com/tarnwick/orvane/KWinScript";
  static constexpr const char* kAnswerInterface = "com.tarnwick.orvane.KWinScript";

private:
  struct Pending;
  void fail(const std::string& why);
  static void OnAnswer(GDBusConnection*, const gchar* sender, const gchar* path,
                       const gchar* interface, const gchar* method, GVariant* parameters,
                       GDBusMethodInvocation* invocation, gpointer data);

  GObjectPtr<GDBusConnection> bus_;
  Options options_;
  std::string folder_; // private folder for the script files
  unsigned long queries_ = 0;
  std::map<std::string, unsigned long> ids_;
  std::map<unsigned long, std::string> internal_ids_;
  LogThrottle throttle_;
};

} // namespace orvane
