// Chooses the desktop backend once, at start-up, from the session (its type,
// the desktop it says it is, and what answers on the session bus) and the
// "Desktop" setting, and prepares GDK for it before GTK opens a display.
#pragma once

#include "desktop/DesktopBackend.h"

#include <memory>
#include <string>

namespace orvane {

enum class DesktopKind {
  kX11,                // an X11 session, or XWayland when the setting asks for it
  kKWin,               // KDE Plasma's Wayland session
  kGnome,              // GNOME's Wayland session (through Orvane's Shell extension)
  kWaylandWithoutMeans // any other Wayland session: Orvane's own windows only
};

// What the chooser looks at.
struct SessionFacts {
  std::string wayland_display; // WAYLAND_DISPLAY
  std::string x_display;       // DISPLAY
  std::string session_type;    // XDG_SESSION_TYPE
  std::string current_desktop; // XDG_CURRENT_DESKTOP ("KDE", "ubuntu:GNOME")
  bool kwin_answers = false;   // org.kde.KWin has an owner on the session bus
  bool gnome_answers = false;  // org.gnome.Shell has an owner on the session bus
};

struct DesktopChoice {
  DesktopKind kind = DesktopKind::kX11;
  // The desktop's name for the log ("KDE Plasma", "GNOME", "sway"); empty on
  // X11, whose window manager the X11 backend names itself.
  std::string desktop_name;
  // Why the setting was not followed, when it was not; logged at launch.
  std::string setting_note;
  bool operator==(const DesktopChoice&) const = default;
};

// The setting "Desktop" is "auto", "x11", "kwin" or "gnome".
inline constexpr char kDesktopSettingKey[] = "Desktop";

DesktopChoice ChooseDesktop(const SessionFacts& facts, const std::string& setting);

// The facts of this process's session; asks the session bus whether KWin
// or GNOME Shell answers only on a Wayland session.
SessionFacts ReadSessionFacts();

// Reads the facts and the setting, chooses, and limits GDK to the backend
// the choice needs (GDK_BACKEND in the environment is dropped, so it never
// keeps Orvane from starting). Called once, first thing in main, before any
// GDK call.
DesktopChoice ChooseDesktopAtStart();

// The backend for the choice, once GTK has opened its display.
std::unique_ptr<DesktopBackend> MakeDesktopBackend(const DesktopChoice& choice);

// The text the launch logs when no display can be opened for the choice.
std::string NoDisplayText(const DesktopChoice& choice);

// The private keeper mode a capture process starts for the CLIPBOARD it
// restored on X11: `orvane --keep-clipboard FILE`.
bool IsClipboardKeeperArgument(int argc, char** argv);
int RunClipboardKeeperMode(const char* path);

} // namespace orvane
