// Where Orvane keeps things on Linux: the XDG base folders under the user's
// home, read once from the environment as GLib does.
#pragma once

#include <string>

namespace orvane {

std::string HomeFolder();
// $XDG_CONFIG_HOME, default ~/.config
std::string ConfigFolder();
// $XDG_STATE_HOME, default ~/.local/state
std::string StateFolder();
// $XDG_CACHE_HOME, default ~/.cache
std::string CacheFolder();
// $XDG_DATA_HOME, default ~/.local/share
std::string DataFolder();
// The XDG documents folder, else ~/Documents.
std::string DocumentsFolder();

// The settings key file: $XDG_CONFIG_HOME/orvane/settings.ini.
std::string SettingsFilePath();
// Web site data (cookies, local storage) that must survive a restart.
std::string WebsiteDataFolder();
std::string WebsiteCacheFolder();

// The install folder an executable at this path belongs to: the parent of
// its bin/ folder when that parent holds share/orvane/; else empty (a run
// from the build tree).
std::string InstallFolderOf(const std::string& executable);
// This running program's executable, from /proc/self/exe ("" if unreadable).
std::string RunningExecutable();
// The install folder of this running program, found from /proc/self/exe so
// that a copy works wherever its folder was unpacked; empty in a build tree.
std::string RunningInstallFolder();
// The bundled reference site: <install folder>/share/orvane/site for an
// installed copy, else the site folder of the source tree it was built from.
std::string BundledSiteFolder();

// The last path component: what follows the last "/" (all of a path
// without one).
std::string FileName(const std::string& path);
// The folder a path lies in (g_path_get_dirname: "." for a bare name).
std::string ParentFolder(const std::string& path);
// The extension of a path's file name, lower-cased ("" when none; a leading
// dot marks a hidden file, not an extension).
std::string LowerExtension(const std::string& path);

// Joins two path pieces with exactly one "/" between them.
std::string JoinPath(const std::string& folder, const std::string& name);

} // namespace orvane
