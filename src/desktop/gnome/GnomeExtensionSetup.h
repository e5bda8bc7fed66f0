// Getting Orvane's GNOME Shell extension to the user, once at start-up on
// GNOME's Wayland session. The shell is asked what it knows of the
// extension (org.gnome.Shell.Extensions.GetExtensionInfo):
// - known and enabled: nothing to do;
// - known but disabled: it is enabled (EnableExtension) and that is logged;
// - unknown: when no copy of it exists in the user's or the system's
//   extension folders, the ready copy beside Orvane's executable is copied
//   into the user's folder. GNOME reads extensions only at login, so the log
//   and a notification then ask the user to log out and back in; everything
//   that does not need the extension keeps working meanwhile.
// GNOME 45 and later load only the extension's ES-module form, and GNOME 43
// and 44 only the older one: the shell's ShellVersion decides which ready
// copy is installed. A copy of the older form that a newer shell refuses
// (the .deb's, in the system's folder) is left in place and the module form
// installed into the user's folder, which the shell prefers.
// A copy the user already has is never overwritten; a file or a symbolic
// link where the folders should be, or a folder that cannot be written, is
// one clear log line and nothing else. Main thread only.
#pragma once

#include "base/SparLog.h"
#include "desktop/Notifications.h"

#include <gio/gio.h>
#include <string>
#include <vector>

namespace orvane {

inline constexpr char kGnomeExtensionUuid[] = "orvane@tarnwick.com";
// What the log and the notification say when the user must log in again.
inline constexpr char kGnomeLogInAgain[] =
    "log out and back in to finish setting up Orvane's GNOME extension";

struct GnomeExtensionPlaces {
  // Where GNOME looks for a user's extensions:
  // $XDG_DATA_HOME/gnome-shell/extensions.
  std::string user_folder;
  // The system's: each $XDG_DATA_DIRS entry's gnome-shell/extensions.
  std::vector<std::string> system_folders;
  // The ready extension folders that come with this copy of Orvane: the
  // form of GNOME 43 and 44, and the ES-module form of GNOME 45 and later.
  std::string ready_copy;
  std::string ready_copy_module;
};

// The first number of a shell's version ("45.2" -> 45); 0 when the text
// does not start with one.
int ShellMajorVersion(const std::string& version);
// The first GNOME Shell that loads only ES-module extensions.
inline constexpr int kFirstModuleShell = 45;

// The places of this process: the ready copy is
// <install folder>/share/gnome-shell/extensions/<uuid> for an installed or
// unpacked copy, and share/gnome-shell/extensions/<uuid> beside the
// executable in a build tree; the module form is share/orvane/gnome-shell-45/
// <uuid> in either.
GnomeExtensionPlaces StandardGnomeExtensionPlaces();

enum class GnomeExtensionState {
  kNoShell,      // the shell did not answer GetExtensionInfo
  kEnabled,      // already enabled
  kEnabledNow,   // was disabled, enabled now
  kNotEnabled,   // disabled, and the shell refused to enable it
  kFailed,       // the shell knows it but reports an error
  kInstalled,    // copied into the user's folder now: log in again
  kPresent,      // a copy exists, but the shell has not loaded it: log in again
  kNotInstalled, // missing, and it could not be installed
};

class GnomeExtensionSetup {
public:
  struct Options {
    std::string service = "org.gnome.Shell";
    double call_seconds = 2;
    // Keeps the log lines for heldLines() instead of writing them: the
    // set-up runs before the launch's first line.
    bool hold_log = false;
  };

  // `notifications` may be null.
  GnomeExtensionSetup(GDBusConnection* session_bus, GnomeExtensionPlaces places,
                      Notifications* notifications);
  GnomeExtensionSetup(GDBusConnection* session_bus, GnomeExtensionPlaces places,
                      Notifications* notifications, Options options);

  GnomeExtensionState run();
  // What is left for the user to do, for the trust dialog ("" when nothing
  // or when it is not known).
  const std::string& noteForUser() const { return note_; }
  // Whether run() told the user through a notification.
  bool notified() const { return notified_; }
  // The lines held back with Options::hold_log.
  const std::vector<std::string>& heldLines() const { return held_lines_; }

private:
  GnomeExtensionState install();
  // Copies the ready copy for this shell into the user's folder.
  GnomeExtensionState installIntoUserFolder();
  // The running shell's major version, 0 when it does not say.
  int shellMajorVersion();
  const std::string& readyCopy() const;
  void askToLogInAgain(const std::string& log_line);
  template <typename... Args> void log(std::string_view format, const Args&... args) {
    write(FormatLogMessage(format, {LogArg(args)...}));
  }
  void write(std::string line);

  GDBusConnection* bus_;
  GnomeExtensionPlaces places_;
  Notifications* notifications_;
  Options options_;
  std::string note_;
  bool notified_ = false;
  std::vector<std::string> held_lines_;
  int shell_major_ = 0;
};

} // namespace orvane
