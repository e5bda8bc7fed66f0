#include "desktop/wayland/LayerShellPanels.h"

#include "base/SparLog.h"
#include "desktop/session/GdkScreens.h"

#include <cmath>
#include <gtk-layer-shell/gtk-layer-shell.h>

namespace orvane {

namespace {

Rect GeometryOf(GdkMonitor* monitor) {
  GdkRectangle geometry;
  gdk_monitor_get_geometry(monitor, &geometry);
  return {double(geometry.x), double(geometry.y), double(geometry.width), double(geometry.height)};
}

// The monitor whose desktop rectangle holds the point; the first one when
// none does.
GdkMonitor* MonitorAt(Point point) {
  GdkDisplay* display = gdk_display_get_default();
  if (!display || gdk_display_get_n_monitors(display) < 1)
    return nullptr;
  Rect primary = PrimaryMonitorTopLeft();
  for (int i = 0; i < gdk_display_get_n_monitors(display); ++i) {
    GdkMonitor* monitor = gdk_display_get_monitor(display, i);
    if (DesktopRectFromTopLeft(GeometryOf(monitor), primary).contains(point))
      return monitor;
  }
  return gdk_display_get_monitor(display, 0);
}

Size PanelSize(GtkWindow* window) {
  int width = 0, height = 0;
  gtk_widget_get_size_request(GTK_WIDGET(window), &width, &height);
  if (width <= 0 || height <= 0)
    gtk_window_get_size(window, &width, &height);
  return {double(width), double(height)};
}

} // namespace

LayerShellPanels::LayerShellPanels(std::unique_ptr<OwnWindows> others)
    : others_(std::move(others)) {}

void LayerShellPanels::track(GtkWindow* window) {
  others_->track(window);
}

void LayerShellPanels::makePanel(GtkWindow* window) {
  if (!gtk_layer_is_supported()) {
    SparLog("panel: the compositor has no layer-shell — the panel is an ordinary window");
    others_->makePanel(window);
    return;
  }
  gtk_layer_init_for_window(window);
  gtk_layer_set_namespace(window, "orvane-panel");
  gtk_layer_set_layer(window, GTK_LAYER_SHELL_LAYER_OVERLAY);
  // No anchors: the compositor centres the surface on its monitor.
  gtk_layer_set_keyboard_mode(window, GTK_LAYER_SHELL_KEYBOARD_MODE_EXCLUSIVE);
  // A layer surface takes its natural size, not the default size.
  int width = 0, height = 0;
  gtk_window_get_default_size(window, &width, &height);
  if (width > 0 && height > 0)
    gtk_widget_set_size_request(GTK_WIDGET(window), width, height);
  panels_.insert(window);
  g_object_weak_ref(
      G_OBJECT(window),
      +[](gpointer data, GObject* gone) {
        static_cast<LayerShellPanels*>(data)->panels_.erase(reinterpret_cast<GtkWindow*>(gone));
      },
      this);
}

void LayerShellPanels::whenOnScreen(GtkWindow* window, std::function<void()> task) {
  others_->whenOnScreen(window, std::move(task));
}

Rect LayerShellPanels::frame(GtkWindow* window) {
  if (!isPanel(window))
    return others_->frame(window);
  GdkMonitor* monitor = gtk_layer_get_monitor(window);
  if (!monitor) {
    GdkDisplay* display = gdk_display_get_default();
    GdkWindow* gdk = gtk_widget_get_window(GTK_WIDGET(window));
    monitor = display && gdk ? gdk_display_get_monitor_at_window(display, gdk) : nullptr;
  }
  if (!monitor)
    return others_->frame(window);
  Rect screen = GeometryOf(monitor);
  Size size = PanelSize(window);
  Rect top_left{std::round(screen.x + (screen.width - size.width) / 2),
                std::round(screen.y + (screen.height - size.height) / 2), size.width, size.height};
  return DesktopRectFromTopLeft(top_left, PrimaryMonitorTopLeft());
}

void LayerShellPanels::whenFrameIs(GtkWindow* window, const Rect& frame, unsigned limit_ms,
                                   std::function<void()> task) {
  if (isPanel(window) && gtk_widget_get_mapped(GTK_WIDGET(window))) {
    // The compositor places the surface itself; its size is ours.
    task();
    return;
  }
  others_->whenFrameIs(window, frame, limit_ms, std::move(task));
}

void LayerShellPanels::setFrame(GtkWindow* window, const Rect& frame) {
  if (!isPanel(window)) {
    others_->setFrame(window, frame);
    return;
  }
  Point centre{frame.x + frame.width / 2, frame.y + frame.height / 2};
  if (GdkMonitor* monitor = MonitorAt(centre))
    gtk_layer_set_monitor(window, monitor);
  gtk_widget_set_size_request(GTK_WIDGET(window), std::max(1, int(std::lround(frame.width))),
                              std::max(1, int(std::lround(frame.height))));
}

Size LayerShellPanels::contentSizeOfFrame(GtkWindow* window, const Rect& frame) {
  return isPanel(window) ? frame.size() : others_->contentSizeOfFrame(window, frame);
}

bool LayerShellPanels::isOnActiveWorkspace(GtkWindow* window) {
  // An overlay surface is shown on every workspace.
  return isPanel(window) || others_->isOnActiveWorkspace(window);
}

bool LayerShellPanels::hasInputFocus(GtkWindow* window) {
  if (isPanel(window))
    return gtk_window_is_active(window);
  return others_->hasInputFocus(window);
}

void LayerShellPanels::requestActivation(GtkWindow* window, uint32_t timestamp) {
  // A shown panel holds the keyboard by its keyboard mode.
  if (!isPanel(window))
    others_->requestActivation(window, timestamp);
}

} // namespace orvane
