#include "desktop/gnome/GnomeExtensionSetup.h"

#include "base/GObjectPtr.h"
#include "base/Paths.h"
#include "base/SparLog.h"
#include "base/Text.h"
#include "desktop/Geometry.h"

#include <filesystem>
#include <glib/gstdio.h>
#include <system_error>

namespace orvane {

namespace fs = std::filesystem;

namespace {

// The shell's ExtensionState values (js/misc/extensionUtils.js).
constexpr double kStateEnabled = 1;
constexpr double kStateDisabled = 2;
constexpr double kStateError = 3;
constexpr double kStateOutOfDate = 4;
constexpr double kStateInitialized = 6;
constexpr double kStateDisabling = 7;
constexpr double kStateEnabling = 8;
constexpr double kStateUninstalled = 99;

// Bounds on the ready copy: it is a few small files.
constexpr int kMaxDepth = 8;
constexpr int kMaxEntries = 2000;

std::string ExtensionsUnder(const std::string& data_folder) {
  return JoinPath(data_folder, "gnome-shell/extensions");
}

// What is at a path, without following a final symbolic link.
fs::file_type TypeAt(const std::string& path) {
  std::error_code error;
  return fs::symlink_status(path, error).type();
}

bool Exists(const std::string& path) {
  fs::file_type type = TypeAt(path);
  return type != fs::file_type::not_found && type != fs::file_type::none;
}

// Copies the folder's directories and regular files (nothing else) into
// `to`, which exists.
bool CopyTree(const fs::path& from, const fs::path& to, int depth, int& entries, std::string& why) {
  if (depth > kMaxDepth) {
    why = "the ready copy is nested too deep";
    return false;
  }
  std::error_code error;
  fs::directory_iterator it(from, error), end;
  if (error) {
    why = "cannot read " + from.string() + ": " + error.message();
    return false;
  }
  for (; it != end; it.increment(error)) {
    if (error) {
      why = "cannot read " + from.string() + ": " + error.message();
      return false;
    }
    if (++entries > kMaxEntries) {
      why = "the ready copy holds too many files";
      return false;
    }
    fs::path source = it->path();
    fs::path target = to / source.filename();
    fs::file_type type = it->symlink_status(error).type();
    if (type == fs::file_type::directory) {
      if (!fs::create_directory(target, error) || error) {
        why = "cannot create " + target.string() + ": " + error.message();
        return false;
      }
      if (!CopyTree(source, target, depth + 1, entries, why))
        return false;
    } else if (type == fs::file_type::regular) {
      if (!fs::copy_file(source, target, fs::copy_options::none, error) || error) {
        why = "cannot copy " + source.filename().string() + ": " + error.message();
        return false;
      }
    }
  }
  return true;
}

} // namespace

GnomeExtensionPlaces StandardGnomeExtensionPlaces() {
  GnomeExtensionPlaces places;
  places.user_folder = ExtensionsUnder(DataFolder());
  for (const gchar* const* dir = g_get_system_data_dirs(); dir && *dir; ++dir)
    places.system_folders.push_back(ExtensionsUnder(*dir));
  std::string install = RunningInstallFolder();
  std::string base = !install.empty() ? install : ParentFolder(RunningExecutable());
  places.ready_copy = JoinPath(JoinPath(base, "share/gnome-shell/extensions"), kGnomeExtensionUuid);
  places.ready_copy_module =
      JoinPath(JoinPath(base, "share/orvane/gnome-shell-45"), kGnomeExtensionUuid);
  return places;
}

GnomeExtensionSetup::GnomeExtensionSetup(GDBusConnection* session_bus, GnomeExtensionPlaces places,
                                         Notifications* notifications)
    : GnomeExtensionSetup(session_bus, std::move(places), notifications, Options{}) {}

GnomeExtensionSetup::GnomeExtensionSetup(GDBusConnection* session_bus, GnomeExtensionPlaces places,
                                         Notifications* notifications, Options options)
    : bus_(session_bus), places_(std::move(places)), notifications_(notifications),
      options_(std::move(options)) {}

int ShellMajorVersion(const std::string& version) {
  int major = 0;
  size_t digits = 0;
  while (digits < version.size() && digits < 4 && g_ascii_isdigit(version[digits]))
    major = major * 10 + (version[digits++] - '0');
  return digits > 0 ? major : 0;
}

int GnomeExtensionSetup::shellMajorVersion() {
  GVariantPtr reply(g_dbus_connection_call_sync(
      bus_, options_.service.c_str(), "/org/gnome/Shell", "org.freedesktop.DBus.Properties", "Get",
      g_variant_new("(ss)", "org.gnome.Shell", "ShellVersion"), G_VARIANT_TYPE("(v)"),
      G_DBUS_CALL_FLAGS_NO_AUTO_START, int(options_.call_seconds * 1000), nullptr, nullptr));
  if (!reply)
    return 0;
  GVariantPtr boxed(g_variant_get_child_value(reply.get(), 0));
  GVariantPtr value(g_variant_get_variant(boxed.get()));
  if (!g_variant_is_of_type(value.get(), G_VARIANT_TYPE_STRING))
    return 0;
  return ShellMajorVersion(ShortenedText(g_variant_get_string(value.get(), nullptr), 40));
}

const std::string& GnomeExtensionSetup::readyCopy() const {
  return shell_major_ >= kFirstModuleShell && !places_.ready_copy_module.empty()
             ? places_.ready_copy_module
             : places_.ready_copy;
}

GnomeExtensionState GnomeExtensionSetup::run() {
  note_.clear();
  if (!bus_) {
    log("gnome: the extension could not be checked: no session bus");
    return GnomeExtensionState::kNoShell;
  }
  GErrorPtr error;
  GVariantPtr reply(g_dbus_connection_call_sync(
      bus_, options_.service.c_str(), "/org/gnome/Shell", "org.gnome.Shell.Extensions",
      "GetExtensionInfo", g_variant_new("(s)", kGnomeExtensionUuid), G_VARIANT_TYPE("(a{sv})"),
      G_DBUS_CALL_FLAGS_NO_AUTO_START, int(options_.call_seconds * 1000), nullptr, error.out()));
  if (!reply) {
    log("gnome: the extension could not be checked: %@", ShortenedText(error.message(), 300));
    return GnomeExtensionState::kNoShell;
  }
  shell_major_ = shellMajorVersion();
  GVariantPtr info(g_variant_get_child_value(reply.get(), 0));
  GVariantPtr state_value(g_variant_lookup_value(info.get(), "state", G_VARIANT_TYPE_DOUBLE));
  double state = state_value ? g_variant_get_double(state_value.get()) : kStateUninstalled;
  if (state == kStateUninstalled)
    return install();
  if (state == kStateEnabled || state == kStateEnabling)
    return GnomeExtensionState::kEnabled;
  if (state == kStateDisabled || state == kStateInitialized || state == kStateDisabling) {
    GErrorPtr enable_error;
    GVariantPtr enabled(g_dbus_connection_call_sync(
        bus_, options_.service.c_str(), "/org/gnome/Shell", "org.gnome.Shell.Extensions",
        "EnableExtension", g_variant_new("(s)", kGnomeExtensionUuid), G_VARIANT_TYPE("(b)"),
        G_DBUS_CALL_FLAGS_NO_AUTO_START, int(options_.call_seconds * 1000), nullptr,
        enable_error.out()));
    gboolean ok = FALSE;
    if (enabled)
      g_variant_get(enabled.get(), "(b)", &ok);
    if (ok) {
      log("gnome: the extension %s was disabled; Orvane enabled it", kGnomeExtensionUuid);
      return GnomeExtensionState::kEnabledNow;
    }
    log("gnome: the extension %s is disabled and GNOME Shell did not enable it: %@",
        kGnomeExtensionUuid,
        enabled ? std::string("refused") : ShortenedText(enable_error.message(), 300));
    note_ = "Enable \"Orvane\" in GNOME's Extensions application (and check that user "
            "extensions are not turned off there)";
    return GnomeExtensionState::kNotEnabled;
  }
  // A newer shell refusing the older form of a copy outside the user's
  // folder (the .deb's): the module form goes into the user's folder, which
  // the shell prefers, unless the user has a copy there.
  std::string user_copy = JoinPath(places_.user_folder, kGnomeExtensionUuid);
  if ((state == kStateOutOfDate || state == kStateError) && shell_major_ >= kFirstModuleShell &&
      !places_.user_folder.empty() && !Exists(user_copy)) {
    log("gnome: GNOME Shell %d refuses the extension's older form; installing the form "
        "for GNOME %d and later",
        shell_major_, kFirstModuleShell);
    return installIntoUserFolder();
  }
  GVariantPtr error_value(g_variant_lookup_value(info.get(), "error", G_VARIANT_TYPE_STRING));
  std::string reason = error_value
                           ? ShortenedText(g_variant_get_string(error_value.get(), nullptr), 300)
                           : std::string();
  log("gnome: GNOME Shell reports the extension %s as %@%@", kGnomeExtensionUuid,
      state == kStateOutOfDate ? std::string("made for another GNOME version")
      : state == kStateError   ? std::string("failed")
                               : "in state " + NumberText(state),
      reason.empty() ? std::string() : ": " + reason);
  note_ = state == kStateOutOfDate
              ? "The installed extension does not support this GNOME version; install the "
                "Orvane release made for it"
              : "GNOME Shell could not load the extension; reinstall Orvane, then log out and "
                "back in";
  return GnomeExtensionState::kFailed;
}

GnomeExtensionState GnomeExtensionSetup::install() {
  // A copy anywhere GNOME looks is the user's or the system's: never
  // replaced. GNOME has not loaded it yet, which a new login does.
  std::vector<std::string> folders{places_.user_folder};
  folders.insert(folders.end(), places_.system_folders.begin(), places_.system_folders.end());
  for (const std::string& folder : folders) {
    std::string copy = JoinPath(folder, kGnomeExtensionUuid);
    if (!folder.empty() && Exists(copy)) {
      if (folder == places_.user_folder && TypeAt(copy) != fs::file_type::directory &&
          TypeAt(copy) != fs::file_type::symlink) {
        log("gnome: %@ is not a folder; the extension was not installed — remove it, then "
            "restart Orvane",
            copy);
        note_ = "Something that is not the extension is in the way at " + copy +
                "; remove it and restart Orvane";
        return GnomeExtensionState::kNotInstalled;
      }
      askToLogInAgain("gnome: the extension is in " + folder +
                      " but GNOME Shell has not loaded it yet: " + kGnomeLogInAgain);
      return GnomeExtensionState::kPresent;
    }
  }
  return installIntoUserFolder();
}

GnomeExtensionState GnomeExtensionSetup::installIntoUserFolder() {
  const std::string& ready = readyCopy();
  auto not_installed = [&](const std::string& why) {
    log("gnome: the extension could not be installed into %@: %@", places_.user_folder, why);
    note_ = "Orvane could not install its GNOME Shell extension (" + why +
            "); install it, then log out and back in";
    return GnomeExtensionState::kNotInstalled;
  };
  if (TypeAt(ready) != fs::file_type::directory || !Exists(JoinPath(ready, "metadata.json")))
    return not_installed("no ready copy of it at " + ready);
  fs::file_type user_type = TypeAt(places_.user_folder);
  if (user_type == fs::file_type::symlink)
    return not_installed("the folder is a symbolic link");
  if (user_type != fs::file_type::not_found && user_type != fs::file_type::directory)
    return not_installed("something that is not a folder is in its place");
  if (g_mkdir_with_parents(places_.user_folder.c_str(), 0755) != 0 ||
      TypeAt(places_.user_folder) != fs::file_type::directory)
    return not_installed(std::string("the folder cannot be created: ") + g_strerror(errno));
  // Copied into a folder of its own first, then renamed into place, so
  // that GNOME never sees half a copy and an existing one is never
  // replaced (a rename onto a folder with files, a file or a link fails).
  std::string partial_template =
      JoinPath(places_.user_folder, ".orvane@tarnwick.com.partial-XXXXXX");
  GCharPtr partial(g_mkdtemp_full(g_strdup(partial_template.c_str()), 0755));
  if (!partial)
    return not_installed(std::string("the folder cannot be written: ") + g_strerror(errno));
  std::string why;
  int entries = 0;
  bool copied = CopyTree(ready, partial.str(), 0, entries, why);
  std::string target = JoinPath(places_.user_folder, kGnomeExtensionUuid);
  std::error_code error;
  if (copied && !Exists(target) && g_rename(partial.get(), target.c_str()) == 0) {
    askToLogInAgain("gnome: installed the extension into " + target + "; " + kGnomeLogInAgain);
    return GnomeExtensionState::kInstalled;
  }
  if (copied)
    why = "it appeared meanwhile or cannot be renamed into place";
  fs::remove_all(partial.str(), error);
  return not_installed(why);
}

void GnomeExtensionSetup::write(std::string line) {
  if (options_.hold_log)
    held_lines_.push_back(std::move(line));
  else
    WriteLogLine(line);
}

void GnomeExtensionSetup::askToLogInAgain(const std::string& log_line) {
  log("%@", log_line);
  std::string text = "Orvane's GNOME Shell extension is installed: ";
  text.append(kGnomeLogInAgain, sizeof kGnomeLogInAgain - 1);
  note_ = text;
  if (notifications_)
    notified_ =
        notifications_->notify("Orvane's GNOME extension", text + ". Everything else works now.");
}

} // namespace orvane
