#define WNCK_I_KNOW_THIS_IS_UNSTABLE
#include "desktop/x11/WnckWindows.h"

#include "desktop/ApplicationNames.h"

#include "base/GObjectPtr.h"
#include "desktop/ProcessDocuments.h"
#include "desktop/session/GdkScreens.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <gdk/gdkx.h>
#include <gtk/gtk.h>
#include <libwnck/libwnck.h>
#include <signal.h>
#include <system_error>
#include <unistd.h>

namespace orvane {

namespace {

// One handle for the run. It speaks to the window manager as a pager, so
// that moves and activations count as the user's, as they do when an
// accessibility client asks on the original platform.
WnckScreen* UpdatedScreen() {
  if (!gdk_display_get_default() || !GDK_IS_X11_DISPLAY(gdk_display_get_default()))
    return nullptr;
  static WnckHandle* handle = wnck_handle_new(WNCK_CLIENT_TYPE_PAGER);
  WnckScreen* screen = wnck_handle_get_default_screen(handle);
  if (screen)
    wnck_screen_force_update(screen);
  return screen;
}

WnckWindow* FindWindow(unsigned long id) {
  WnckScreen* screen = UpdatedScreen();
  if (!screen)
    return nullptr;
  for (GList* item = wnck_screen_get_windows(screen); item; item = item->next)
    if (wnck_window_get_xid(WNCK_WINDOW(item->data)) == id)
      return WNCK_WINDOW(item->data);
  return nullptr;
}

std::string Text(const char* text) {
  return text ? text : "";
}

WindowInfo Describe(WnckWindow* window, const Rect& primary) {
  WindowInfo info;
  info.id = wnck_window_get_xid(window);
  info.pid = wnck_window_get_pid(window);
  info.normal = wnck_window_get_window_type(window) == WNCK_WINDOW_NORMAL;
  if (wnck_window_has_name(window))
    info.title = Text(wnck_window_get_name(window));
  info.wm_instance = Text(wnck_window_get_class_instance_name(window));
  info.wm_class = Text(wnck_window_get_class_group_name(window));
  int x = 0, y = 0, width = 0, height = 0;
  wnck_window_get_geometry(window, &x, &y, &width, &height);
  info.frame =
      DesktopRectFromTopLeft({double(x), double(y), double(width), double(height)}, primary);
  info.full_screen = wnck_window_is_fullscreen(window);
  return info;
}

std::vector<WindowInfo> AllWindows(WnckScreen* screen) {
  std::vector<WindowInfo> result;
  Rect primary = PrimaryMonitorTopLeft();
  for (GList* item = wnck_screen_get_windows(screen); item; item = item->next)
    result.push_back(Describe(WNCK_WINDOW(item->data), primary));
  return result;
}

bool ProcessExists(int pid) {
  return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM);
}

} // namespace

std::optional<std::vector<WindowInfo>> WnckWindows::windowsOfPid(int pid) {
  WnckScreen* screen = UpdatedScreen();
  if (!screen || pid <= 0)
    return std::nullopt;
  std::vector<WindowInfo> result;
  for (auto& window : AllWindows(screen))
    if (window.pid == pid)
      result.push_back(std::move(window));
  if (result.empty() && !ProcessExists(pid))
    return std::nullopt;
  return result;
}

std::vector<WindowInfo> WnckWindows::normalWindows() {
  std::vector<WindowInfo> result;
  if (WnckScreen* screen = UpdatedScreen())
    for (auto& window : AllWindows(screen))
      if (window.normal)
        result.push_back(std::move(window));
  return result;
}

std::optional<WindowInfo> WnckWindows::window(unsigned long id) {
  WnckWindow* window = FindWindow(id);
  if (!window)
    return std::nullopt;
  return Describe(window, PrimaryMonitorTopLeft());
}

bool WnckWindows::setFrame(unsigned long id, const Rect& frame) {
  WnckWindow* window = FindWindow(id);
  if (!window)
    return false;
  WnckWindowActions actions = wnck_window_get_actions(window);
  bool accepted = (actions & WNCK_WINDOW_ACTION_MOVE) && (actions & WNCK_WINDOW_ACTION_RESIZE);
  // A maximized window keeps its frame whatever is asked: it is released
  // first, as a user dragging it would.
  if (wnck_window_is_maximized(window) || wnck_window_is_maximized_horizontally(window) ||
      wnck_window_is_maximized_vertically(window))
    wnck_window_unmaximize(window);
  Rect x11 = TopLeftRectFromDesktop(frame, PrimaryMonitorTopLeft());
  int x = int(std::lround(x11.x)), y = int(std::lround(x11.y));
  int width = std::max(1, int(std::lround(x11.width)));
  int height = std::max(1, int(std::lround(x11.height)));
  // Static gravity: the frame lands exactly where asked, decorations
  // included.
  auto position = WnckWindowMoveResizeMask(WNCK_WINDOW_CHANGE_X | WNCK_WINDOW_CHANGE_Y);
  auto size = WnckWindowMoveResizeMask(WNCK_WINDOW_CHANGE_WIDTH | WNCK_WINDOW_CHANGE_HEIGHT);
  wnck_window_set_geometry(window, WNCK_WINDOW_GRAVITY_STATIC, position, x, y, 0, 0);
  wnck_window_set_geometry(window, WNCK_WINDOW_GRAVITY_STATIC, size, 0, 0, width, height);
  wnck_window_set_geometry(window, WNCK_WINDOW_GRAVITY_STATIC, position, x, y, 0, 0);
  gdk_display_flush(gdk_display_get_default());
  return accepted;
}

bool WnckWindows::activate(unsigned long id, uint32_t timestamp) {
  WnckWindow* window = FindWindow(id);
  if (!window)
    return false;
  // Without a timestamp, the event being handled gives one; a pager's
  // request with none is still honoured by the window manager.
  if (timestamp == 0)
    timestamp = gtk_get_current_event_time();
  wnck_window_activate(window, timestamp);
  gdk_display_flush(gdk_display_get_default());
  return true;
}

bool WnckWindows::leaveFullScreen(unsigned long id) {
  WnckWindow* window = FindWindow(id);
  if (!window)
    return false;
  bool allowed = wnck_window_get_actions(window) & WNCK_WINDOW_ACTION_FULLSCREEN;
  wnck_window_set_fullscreen(window, FALSE);
  gdk_display_flush(gdk_display_get_default());
  return allowed;
}

std::vector<int> WnckWindows::pidsOfApplication(const std::string& name) {
  if (name.empty())
    return {};
  std::vector<NamedWindow> named;
  for (const auto& window : normalWindows())
    named.push_back({window.pid, {window.wm_instance, window.wm_class}});
  return PidsOfApplication(name, named);
}

std::vector<std::string> WnckWindows::documentsOfPid(int pid) {
  return PdfFilesOfProcess(pid);
}

} // namespace orvane
