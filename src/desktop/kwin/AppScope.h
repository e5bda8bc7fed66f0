// The desktop portal learns which application calls it from the caller's
// systemd user scope (a cgroup named app-<application id>-<anything>.scope).
// A desktop launcher starts Orvane in one; started from a terminal it is
// not, so it moves itself into a new transient scope of the user's systemd
// before it speaks to the portal.
#pragma once

#include <cstdint>
#include <gio/gio.h>
#include <string>

namespace orvane {

// The application id the scope's name starts with.
inline constexpr const char* kAppScopeId = "com.tarnwick.orvane";

// Whether the text of /proc/PID/cgroup places the process in a scope of
// the application ("…/app-com.tarnwick.orvane-….scope" as the last element
// of a cgroup path).
bool CgroupIsAppScope(const std::string& cgroup_text);

// "app-com.tarnwick.orvane-<suffix>.scope"
std::string AppScopeUnitName(const std::string& suffix);

// The arguments of systemd's StartTransientUnit for a scope named `unit`
// holding the process `pid`: mode "fail", properties PIDs and Description,
// no auxiliary units. A floating reference.
GVariant* TransientScopeParameters(const std::string& unit, uint32_t pid);

// Makes sure this process runs in an app scope of Orvane: answers at once
// when /proc/self/cgroup already names one; otherwise asks the user's
// systemd (org.freedesktop.systemd1 on `session_bus`, which may be null) to
// start a transient scope holding this process, waits a bounded time (about
// two seconds in all) for the move, and logs one line when it cannot.
// Answers whether the process is in an app scope afterwards.
bool EnsureAppScope(GDBusConnection* session_bus,
                    const std::string& cgroup_file = "/proc/self/cgroup");

} // namespace orvane
