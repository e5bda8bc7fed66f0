#include "desktop/DesktopChooser.h"

#include "base/GObjectPtr.h"
#include "base/Settings.h"
#include "base/Text.h"
#include "desktop/gnome/GnomeBackend.h"
#include "desktop/kwin/KWinBackend.h"
#include "desktop/session/BusNames.h"
#include "desktop/wayland/WaylandWithoutMeans.h"
#include "desktop/x11/ClipboardServer.h"
#include "desktop/x11/X11Backend.h"

#include <X11/Xlib.h>
#include <cstring>
#include <gdk/gdk.h>
#include <gio/gio.h>

namespace orvane {

namespace {

std::string Variable(const char* name) {
  const char* value = g_getenv(name);
  return value ? value : "";
}

// XDG_CURRENT_DESKTOP is a colon-separated list ("ubuntu:GNOME").
bool NamesDesktop(const std::string& list, const char* desktop) {
  size_t start = 0;
  while (start <= list.size()) {
    size_t end = list.find(':', start);
    if (end == std::string::npos)
      end = list.size();
    if (g_ascii_strcasecmp(list.substr(start, end - start).c_str(), desktop) == 0)
      return true;
    start = end + 1;
  }
  return false;
}

// The desktop's name as the log gives it.
std::string DesktopName(const std::string& current_desktop) {
  if (NamesDesktop(current_desktop, "KDE"))
    return "KDE Plasma";
  if (NamesDesktop(current_desktop, "GNOME"))
    return "GNOME";
  if (NamesDesktop(current_desktop, "sway"))
    return "sway";
  std::string first = current_desktop.substr(0, current_desktop.find(':'));
  // From the environment: short and printable before it reaches the log.
  first = ShortenedText(first, 40);
  return first.empty() ? "an unnamed desktop" : first;
}

bool IsWaylandSession(const SessionFacts& facts) {
  return !facts.wayland_display.empty();
}

} // namespace

DesktopChoice ChooseDesktop(const SessionFacts& facts, const std::string& setting) {
  DesktopChoice choice;
  if (setting == "x11") {
    choice.kind = DesktopKind::kX11;
    return choice;
  }
  bool kde = NamesDesktop(facts.current_desktop, "KDE");
  bool gnome = NamesDesktop(facts.current_desktop, "GNOME");
  if (setting == "gnome") {
    if (IsWaylandSession(facts) && facts.gnome_answers) {
      choice.kind = DesktopKind::kGnome;
      choice.desktop_name = "GNOME";
      return choice;
    }
    choice.setting_note =
        IsWaylandSession(facts)
            ? "the setting asks for GNOME, but GNOME Shell does not answer on the bus"
            : "the setting asks for GNOME, but this is not a Wayland session";
  } else if (setting == "kwin") {
    if (IsWaylandSession(facts) && facts.kwin_answers) {
      choice.kind = DesktopKind::kKWin;
      choice.desktop_name = "KDE Plasma";
      return choice;
    }
    choice.setting_note = IsWaylandSession(facts)
                              ? "the setting asks for KWin, but KWin does not answer on the bus"
                              : "the setting asks for KWin, but this is not a Wayland session";
  } else if (setting != "auto" && !setting.empty()) {
    choice.setting_note =
        "the setting \"" + ShortenedText(setting, 40) +
        "\" names no desktop backend (auto, x11, kwin, gnome) — choosing by the session";
  }
  if (!IsWaylandSession(facts)) {
    choice.kind = DesktopKind::kX11;
    return choice;
  }
  choice.desktop_name = DesktopName(facts.current_desktop);
  if (kde && facts.kwin_answers)
    choice.kind = DesktopKind::kKWin;
  else if (gnome && facts.gnome_answers)
    choice.kind = DesktopKind::kGnome;
  else
    choice.kind = DesktopKind::kWaylandWithoutMeans;
  return choice;
}

SessionFacts ReadSessionFacts() {
  SessionFacts facts;
  facts.wayland_display = Variable("WAYLAND_DISPLAY");
  facts.x_display = Variable("DISPLAY");
  facts.session_type = Variable("XDG_SESSION_TYPE");
  facts.current_desktop = Variable("XDG_CURRENT_DESKTOP");
  if (!facts.wayland_display.empty()) {
    auto bus =
        GObjectPtr<GDBusConnection>::adopt(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr));
    facts.kwin_answers = BusNameHasOwner(bus.get(), "org.kde.KWin", 2000);
    facts.gnome_answers = BusNameHasOwner(bus.get(), "org.gnome.Shell", 2000);
  }
  return facts;
}

DesktopChoice ChooseDesktopAtStart() {
  // Before any other Xlib or GDK call: on X11 the selection conversations
  // run on a thread of their own with an X connection of their own, so two
  // threads use Xlib. (libX11 1.8 and later does this by itself.)
  XInitThreads();
  std::string setting = Settings::standard().stringForKey(kDesktopSettingKey).value_or("auto");
  DesktopChoice choice = ChooseDesktop(ReadSessionFacts(), setting);
  // GDK_BACKEND would override the allowed backends and could leave GDK no
  // display to open, so it goes, for this process and the programs it
  // starts. Orvane's windows are native on a Wayland session.
  g_unsetenv("GDK_BACKEND");
  gdk_set_allowed_backends(choice.kind == DesktopKind::kX11 ? "x11" : "wayland");
  return choice;
}

std::unique_ptr<DesktopBackend> MakeDesktopBackend(const DesktopChoice& choice) {
  switch (choice.kind) {
  case DesktopKind::kX11:
    return std::make_unique<X11Backend>();
  case DesktopKind::kKWin:
    return std::make_unique<KWinBackend>();
  case DesktopKind::kGnome:
    return std::make_unique<GnomeBackend>();
  case DesktopKind::kWaylandWithoutMeans:
    break;
  }
  return std::make_unique<WaylandWithoutMeans>(choice.desktop_name);
}

std::string NoDisplayText(const DesktopChoice& choice) {
  if (choice.kind == DesktopKind::kX11) {
    std::string display = Variable("DISPLAY");
    display = display.empty() ? "unset" : ShortenedText(display, 80);
    return "no X display could be opened (DISPLAY=" + display +
           "); Orvane needs an X11 session or XWayland";
  }
  std::string display = Variable("WAYLAND_DISPLAY");
  display = display.empty() ? "unset" : ShortenedText(display, 80);
  return "no Wayland display could be opened (WAYLAND_DISPLAY=" + display + ")";
}

bool IsClipboardKeeperArgument(int argc, char** argv) {
  return argc == 3 && argv[1] && std::strcmp(argv[1], kKeepClipboardArgument) == 0;
}

int RunClipboardKeeperMode(const char* path) {
  // The keeper serves an X11 CLIPBOARD, whatever the session.
  gdk_set_allowed_backends("x11");
  return RunClipboardKeeper(path);
}

} // namespace orvane
