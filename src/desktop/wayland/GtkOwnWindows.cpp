#include "desktop/wayland/GtkOwnWindows.h"

#include "desktop/session/GdkScreens.h"

#include <cmath>
#include <memory>
#include <utility>

namespace orvane {

namespace {

// The top-left geometry of the monitor the window is on (the first one
// before it is on screen).
GdkRectangle MonitorOf(GtkWindow* window) {
  GdkRectangle geometry{0, 0, 0, 0};
  GdkDisplay* display = gdk_display_get_default();
  if (!display)
    return geometry;
  GdkWindow* gdk = gtk_widget_get_window(GTK_WIDGET(window));
  GdkMonitor* monitor = gdk ? gdk_display_get_monitor_at_window(display, gdk) : nullptr;
  if (!monitor && gdk_display_get_n_monitors(display) > 0)
    monitor = gdk_display_get_monitor(display, 0);
  if (monitor)
    gdk_monitor_get_geometry(monitor, &geometry);
  return geometry;
}

bool SizeIs(GtkWindow* window, const Rect& frame) {
  int width = 0, height = 0;
  gtk_window_get_size(window, &width, &height);
  return std::fabs(width - frame.width) <= 1 && std::fabs(height - frame.height) <= 1;
}

// A task run at most once, by whichever of a signal and a timeout comes
// first; the other is dropped with it.
struct PendingTask {
  GtkWindow* window;
  std::function<void()> task;
  gulong handler = 0;
  guint timeout = 0;
  std::function<bool()> ready;
};

void Finish(PendingTask* pending, bool run) {
  if (pending->handler)
    g_signal_handler_disconnect(pending->window, pending->handler);
  if (pending->timeout)
    g_source_remove(pending->timeout);
  std::function<void()> task = std::move(pending->task);
  g_object_unref(pending->window);
  delete pending;
  if (run && task)
    task();
}

void RunWhen(GtkWindow* window, const char* signal, std::function<bool()> ready, unsigned limit_ms,
             std::function<void()> task) {
  auto* pending =
      new PendingTask{GTK_WINDOW(g_object_ref(window)), std::move(task), 0, 0, std::move(ready)};
  pending->handler = g_signal_connect_after(
      window, signal, G_CALLBACK(+[](GtkWidget*, GdkEvent*, gpointer data) -> gboolean {
        auto* p = static_cast<PendingTask*>(data);
        if (p->handler && p->ready()) {
          g_signal_handler_disconnect(p->window, std::exchange(p->handler, 0));
          // Not from inside the handler: the task may show or move the window.
          guint idle = g_idle_add(
              +[](gpointer d) -> gboolean {
                Finish(static_cast<PendingTask*>(d), true);
                return G_SOURCE_REMOVE;
              },
              p);
          g_source_set_name_by_id(idle, "[orvane] own window ready");
        }
        return FALSE;
      }),
      pending);
  pending->timeout = g_timeout_add(
      limit_ms,
      +[](gpointer data) -> gboolean {
        auto* p = static_cast<PendingTask*>(data);
        p->timeout = 0;
        if (p->handler)
          Finish(p, false);
        return G_SOURCE_REMOVE;
      },
      pending);
  g_source_set_name_by_id(pending->timeout, "[orvane] own window wait");
}

} // namespace

void GtkOwnWindows::track(GtkWindow*) {
  // GTK follows the window's size itself; there is no position to follow.
}

void GtkOwnWindows::whenOnScreen(GtkWindow* window, std::function<void()> task) {
  if (gtk_widget_get_mapped(GTK_WIDGET(window))) {
    task();
    return;
  }
  RunWhen(
      window, "map-event", [] { return true; }, 10000, std::move(task));
}

Rect GtkOwnWindows::frame(GtkWindow* window) {
  int width = 0, height = 0;
  gtk_window_get_size(window, &width, &height);
  GdkRectangle monitor = MonitorOf(window);
  Rect top_left{double(monitor.x), double(monitor.y), double(width), double(height)};
  return DesktopRectFromTopLeft(top_left, PrimaryMonitorTopLeft());
}

void GtkOwnWindows::whenFrameIs(GtkWindow* window, const Rect& frame, unsigned limit_ms,
                                std::function<void()> task) {
  if (gtk_widget_get_mapped(GTK_WIDGET(window)) && SizeIs(window, frame)) {
    task();
    return;
  }
  RunWhen(
      window, "configure-event", [window, frame] { return SizeIs(window, frame); }, limit_ms,
      std::move(task));
}

void GtkOwnWindows::setFrame(GtkWindow* window, const Rect& frame) {
  gtk_window_resize(window, std::max(1, int(std::lround(frame.width))),
                    std::max(1, int(std::lround(frame.height))));
}

Size GtkOwnWindows::contentSizeOfFrame(GtkWindow*, const Rect& frame) {
  return frame.size();
}

bool GtkOwnWindows::isOnActiveWorkspace(GtkWindow*) {
  // A Wayland client cannot tell; the compositor shows a presented window.
  return true;
}

bool GtkOwnWindows::hasInputFocus(GtkWindow* window) {
  return gtk_window_is_active(window);
}

void GtkOwnWindows::requestActivation(GtkWindow* window, uint32_t timestamp) {
  gtk_window_present_with_time(window, timestamp ? timestamp : GDK_CURRENT_TIME);
}

} // namespace orvane
