// A client of Orvane's GNOME Shell extension: the interface
// com.tarnwick.orvane.Shell that the shell exports at
// /com/tarnwick/orvane/Shell on its own session-bus connection
// (gnome-shell/com.tarnwick.orvane.Shell.xml). Every call is bounded and
// blocks without running any main loop's sources; every answer is checked
// before it is used (types, ranges, the length of lists and texts). A call
// that fails or gets a malformed answer is logged, at most once a second,
// and answers nothing. Main thread only.
//
// The shell's coordinates have their origin at the top left of the whole
// desktop with y down; the seams convert them into the desktop space with
// the primary monitor, as every other backend does.
#pragma once

#include "base/GObjectPtr.h"
#include "base/LogThrottle.h"
#include "desktop/Geometry.h"
#include "desktop/Selections.h"

#include <cstdint>
#include <gio/gio.h>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace orvane {

// Bounds on what an answer may hold; more is refused as malformed.
inline constexpr double kShellMaxCoordinate = 1e6;
inline constexpr size_t kShellMaxWindows = 10000;
inline constexpr size_t kShellMaxMonitors = 64;
inline constexpr size_t kShellMaxNameBytes = 64 * 1024;
inline constexpr size_t kShellMaxSelectionBytes = 16 * 1024 * 1024;
inline constexpr size_t kShellMaxClipboardTypes = 256;
inline constexpr size_t kShellMaxClipboardBytes = 64 * 1024 * 1024;
inline constexpr size_t kShellMaxHotkeys = 64;

// A window as the extension describes it, in the shell's coordinates.
struct ShellWindow {
  uint64_t id = 0;
  int pid = 0;
  std::string wm_class;
  std::string wm_instance;
  std::string app_id;
  std::string title;
  Rect frame; // top-left origin, y down
  bool normal = false;
  bool full_screen = false;
  bool maximized = false;
  bool focused = false;
  bool on_active_workspace = false;
  bool operator==(const ShellWindow&) const = default;
};

// The monitors as the extension reports them, in the shell's coordinates.
struct ShellMonitors {
  std::vector<Rect> frames;
  std::vector<Rect> work_areas;
  size_t primary = 0;
  const Rect& primaryFrame() const { return frames[primary]; }
};

// Why a window without area (a width or height of 0) is refused: a window
// not shown yet, which a list leaves out without counting it.
inline constexpr char kShellWindowWithoutArea[] = "a window without area";

// Checks one window dictionary (a{sv}). Nothing, and the reason, when a
// field is missing, of the wrong type or out of range, or the value is not
// a dictionary at all. An empty dictionary is not a window either; callers
// that take it for "no such window" test for it first.
std::optional<ShellWindow> ParseShellWindow(GVariant* dictionary, std::string& why);
// The windows of a list (aa{sv}): nothing when it is no such list or longer
// than kShellMaxWindows. A malformed window is left out and counted in
// `left_out` (`why` keeps the last reason), so one hostile window hides no
// other; a window without area is left out uncounted.
std::optional<std::vector<ShellWindow>> ParseShellWindowList(GVariant* list, size_t& left_out,
                                                             std::string& why);
// The answer of Monitors, "(a(iiiiiiii)i)": nothing when there is no
// monitor, too many, one without area or out of range, or the primary's
// index names none.
std::optional<ShellMonitors> ParseShellMonitors(GVariant* reply, std::string& why);
// The answer of SaveClipboard, "(a(say))": nothing when it holds too many
// types, too many bytes, or a type name that is empty or longer than 255.
std::optional<ClipboardContents> ParseShellClipboard(GVariant* reply, std::string& why);
// The answer of BindHotkeys, "(a{sb})": each name that is bound. Nothing
// when it holds more than kShellMaxHotkeys entries.
std::optional<std::map<std::string, bool>> ParseShellBoundHotkeys(GVariant* reply,
                                                                  std::string& why);

class GnomeShell {
public:
  struct Options {
    double call_seconds = 2;                 // each ordinary call
    double slow_call_seconds = 4;            // MoveResize and SendCopyChord wait in the shell
    std::string service = "org.gnome.Shell"; // the destination, whose owner answers
    // Keep the Monitors answer until the shell says it changed (an
    // extension of interface version 2 or later does).
    bool keep_monitors = true;
  };
  // The first interface version whose extension sends MonitorsChanged.
  static constexpr uint32_t kMonitorsChangedVersion = 2;
  static constexpr const char* kPath = "/com/tarnwick/orvane/Shell";
  static constexpr const char* kInterface = "com.tarnwick.orvane.Shell";

  // `session_bus` may be null: every call then answers nothing.
  explicit GnomeShell(GDBusConnection* session_bus);
  GnomeShell(GDBusConnection* session_bus, Options options);
  ~GnomeShell();
  GnomeShell(const GnomeShell&) = delete;
  GnomeShell& operator=(const GnomeShell&) = delete;

  GDBusConnection* bus() const { return bus_.get(); }
  const Options& options() const { return options_; }

  // The interface's version; nothing when the extension does not answer.
  // Does not log: a missing extension is an expected state, which the
  // trust check reports.
  std::optional<uint32_t> version();
  // Whether the last call reached the extension and got a well-formed
  // answer (false before the first call).
  bool lastCallWorked() const { return last_call_worked_; }

  // Each nothing when the call failed or its answer was malformed (logged).
  // frontWindow's and window's inner nothing is the extension's "no such
  // window".
  std::optional<std::optional<ShellWindow>> frontWindow();
  std::optional<std::vector<ShellWindow>> listWindows();
  std::optional<std::vector<ShellWindow>> windowsOfPid(int pid);
  std::optional<std::optional<ShellWindow>> window(uint64_t id);
  // The frame in the shell's coordinates; whether the shell moved and
  // resized the window.
  std::optional<bool> moveResize(uint64_t id, const Rect& frame);
  std::optional<bool> activate(uint64_t id, uint32_t timestamp);
  std::optional<bool> leaveFullScreen(uint64_t id);
  std::optional<bool> makePanel(uint64_t id);
  // Kept from the last answer while the shell that gave it runs and has
  // not said since that they changed, or a call failed.
  std::optional<ShellMonitors> monitors();
  std::optional<Point> pointer(); // shell coordinates
  // The outer nothing: the call failed; the inner: the selection holds no
  // text.
  std::optional<std::optional<std::string>> primaryText();
  std::optional<std::optional<std::string>> clipboardText();
  std::optional<uint64_t> clipboardChangeCount();
  std::optional<ClipboardContents> saveClipboard();
  std::optional<bool> restoreClipboard(const ClipboardContents& contents);
  std::optional<bool> sendCopyChord(const std::string& chord);
  // Not logged: the caller says why (`why`) in its own line.
  std::optional<std::map<std::string, bool>> bindHotkeys(std::string& why);

  // The unique name that owns the service now ("" when none answers).
  std::string ownerOfService();

  // Logs a failure of the extension's answers ("gnome: WHAT failed: WHY"),
  // or another line about them, at most once a second.
  void fail(const std::string& what, const std::string& why);
  void complain(const std::string& line);

private:
  // One call; the reply when it came in time with exactly `reply_type`.
  // `why`, when given, gets the reason of a failure instead of the log.
  GVariantPtr call(const char* method, GVariant* parameters, const char* reply_type, double seconds,
                   std::string* why = nullptr);
  std::optional<std::optional<ShellWindow>> oneWindow(const char* method, GVariant* parameters);
  std::optional<std::vector<ShellWindow>> windowList(const char* method, GVariant* parameters);
  std::optional<bool> okCall(const char* method, GVariant* parameters, double seconds);
  std::optional<std::optional<std::string>> selectionText(const char* method);

  static void OnMonitorsChanged(GDBusConnection*, const gchar* sender, const gchar*, const gchar*,
                                const gchar*, GVariant*, gpointer data);

  GObjectPtr<GDBusConnection> bus_;
  Options options_;
  bool last_call_worked_ = false;
  LogThrottle throttle_;
  // The extension's version as the present owner of the service answered it.
  std::optional<uint32_t> version_;
  std::string owner_; // the service's owner, as watched; "" when none
  std::optional<ShellMonitors> kept_monitors_;
  guint owner_watch_ = 0;
  guint monitors_changed_ = 0;
};

} // namespace orvane
