#include "desktop/x11/WindowFrames.h"

#include "desktop/session/GdkScreens.h"

#include <X11/Xatom.h>
#include <cmath>
#include <gdk/gdkx.h>
#include <vector>

namespace orvane {

namespace {
constexpr char kOnScreenKey[] = "orvane-on-screen";
constexpr char kDecorationsKey[] = "orvane-decorations";

struct Decorations {
  int extra_width = 0, extra_height = 0;
};

constexpr char kWaitingKey[] = "orvane-waiting-for-frame";
constexpr guint kFrameWaitLimitMs = 1000;

// Whether the window manager has published the frame around the window.
bool HasFrameExtents(GtkWindow* window) {
  GdkWindow* gdk = gtk_widget_get_window(GTK_WIDGET(window));
  if (!gdk || !GDK_IS_X11_WINDOW(gdk))
    return true;
  Display* display = GDK_WINDOW_XDISPLAY(gdk);
  Atom type = None;
  int format = 0;
  unsigned long items = 0, after = 0;
  unsigned char* data = nullptr;
  int status = XGetWindowProperty(
      display, GDK_WINDOW_XID(gdk),
      gdk_x11_get_xatom_by_name_for_display(gdk_window_get_display(gdk), "_NET_FRAME_EXTENTS"), 0,
      4, False, XA_CARDINAL, &type, &format, &items, &after, &data);
  if (data)
    XFree(data);
  return status == Success && type == XA_CARDINAL && items == 4;
}

// Only after the X server has mapped the window, and the window manager has
// framed it, do its frame extents mean anything.
bool OnScreen(GtkWindow* window) {
  return GPOINTER_TO_INT(g_object_get_data(G_OBJECT(window), kOnScreenKey)) != 0 &&
         gtk_widget_get_window(GTK_WIDGET(window));
}

// Tasks waiting for the window to be on screen and framed.
struct FrameWaiters {
  std::vector<std::function<void()>> tasks;
  guint timeout = 0;
};

void RunWaiters(GtkWindow* window) {
  auto* waiters = static_cast<FrameWaiters*>(g_object_steal_data(G_OBJECT(window), kWaitingKey));
  if (!waiters)
    return;
  if (waiters->timeout)
    g_source_remove(waiters->timeout);
  for (auto& task : waiters->tasks)
    task();
  delete waiters;
}

// Mapped and framed, or mapped with no frame coming in time (a window
// manager that publishes none): the waiting tasks run.
void MaybeRunWaiters(GtkWindow* window) {
  if (!OnScreen(window) || !g_object_get_data(G_OBJECT(window), kWaitingKey))
    return;
  if (HasFrameExtents(window)) {
    RunWaiters(window);
    return;
  }
  auto* waiters = static_cast<FrameWaiters*>(g_object_get_data(G_OBJECT(window), kWaitingKey));
  if (!waiters->timeout)
    waiters->timeout = g_timeout_add(
        kFrameWaitLimitMs,
        [](gpointer data) -> gboolean {
          auto* w = GTK_WINDOW(data);
          auto* pending = static_cast<FrameWaiters*>(g_object_get_data(G_OBJECT(w), kWaitingKey));
          if (pending)
            pending->timeout = 0;
          RunWaiters(w);
          return G_SOURCE_REMOVE;
        },
        window);
  if (waiters->timeout)
    g_source_set_name_by_id(waiters->timeout, "[orvane] frame extents wait");
}

bool ServerFrame(GtkWindow* window, GdkRectangle* outer, Decorations* decorations) {
  if (!OnScreen(window))
    return false;
  GdkWindow* gdk = gtk_widget_get_window(GTK_WIDGET(window));
  gdk_window_get_frame_extents(gdk, outer);
  if (outer->width <= 1 || outer->height <= 1)
    return false;
  decorations->extra_width = outer->width - gdk_window_get_width(gdk);
  decorations->extra_height = outer->height - gdk_window_get_height(gdk);
  return true;
}

// The decorations as last seen on screen; none before the first showing.
Decorations KnownDecorations(GtkWindow* window) {
  GdkRectangle outer;
  Decorations now;
  if (ServerFrame(window, &outer, &now))
    return now;
  auto* cached = static_cast<Decorations*>(g_object_get_data(G_OBJECT(window), kDecorationsKey));
  return cached ? *cached : Decorations{};
}

void RememberDecorations(GtkWindow* window) {
  GdkRectangle outer;
  Decorations now;
  if (ServerFrame(window, &outer, &now))
    g_object_set_data_full(G_OBJECT(window), kDecorationsKey, new Decorations(now),
                           [](gpointer data) { delete static_cast<Decorations*>(data); });
}
} // namespace

void TrackWindowFrame(GtkWindow* window) {
  gtk_widget_add_events(GTK_WIDGET(window), GDK_PROPERTY_CHANGE_MASK);
  g_signal_connect(window, "map-event", G_CALLBACK(+[](GtkWidget* widget, GdkEvent*, gpointer) {
                     g_object_set_data(G_OBJECT(widget), kOnScreenKey, GINT_TO_POINTER(1));
                     RememberDecorations(GTK_WINDOW(widget));
                     MaybeRunWaiters(GTK_WINDOW(widget));
                     return FALSE;
                   }),
                   nullptr);
  g_signal_connect(window, "property-notify-event",
                   G_CALLBACK(+[](GtkWidget* widget, GdkEventProperty* event, gpointer) {
                     if (event->atom == gdk_atom_intern_static_string("_NET_FRAME_EXTENTS")) {
                       RememberDecorations(GTK_WINDOW(widget));
                       MaybeRunWaiters(GTK_WINDOW(widget));
                     }
                     return FALSE;
                   }),
                   nullptr);
  g_signal_connect(window, "unmap-event", G_CALLBACK(+[](GtkWidget* widget, GdkEvent*, gpointer) {
                     RememberDecorations(GTK_WINDOW(widget));
                     g_object_set_data(G_OBJECT(widget), kOnScreenKey, GINT_TO_POINTER(0));
                     return FALSE;
                   }),
                   nullptr);
}

void WhenOnScreen(GtkWindow* window, std::function<void()> task) {
  if (OnScreen(window) && HasFrameExtents(window)) {
    task();
    return;
  }
  auto* waiters = static_cast<FrameWaiters*>(g_object_get_data(G_OBJECT(window), kWaitingKey));
  if (!waiters) {
    waiters = new FrameWaiters;
    g_object_set_data(G_OBJECT(window), kWaitingKey, waiters);
  }
  waiters->tasks.push_back(std::move(task));
  MaybeRunWaiters(window);
}

Rect WindowFrame(GtkWindow* window) {
  Rect primary = PrimaryMonitorTopLeft();
  GdkRectangle outer;
  Decorations decorations;
  if (ServerFrame(window, &outer, &decorations))
    return DesktopRectFromTopLeft(
        {double(outer.x), double(outer.y), double(outer.width), double(outer.height)}, primary);
  // Not on screen: what GTK will ask for, with the decorations last seen.
  decorations = KnownDecorations(window);
  int x = 0, y = 0, width = 0, height = 0;
  gtk_window_get_position(window, &x, &y);
  gtk_window_get_size(window, &width, &height);
  return DesktopRectFromTopLeft({double(x), double(y), double(width + decorations.extra_width),
                                 double(height + decorations.extra_height)},
                                primary);
}

namespace {
constexpr double kFrameTolerance = 1.0;

bool FrameIs(GtkWindow* window, const Rect& frame) {
  if (!OnScreen(window))
    return false;
  Rect now = WindowFrame(window);
  return std::fabs(now.x - frame.x) <= kFrameTolerance &&
         std::fabs(now.y - frame.y) <= kFrameTolerance &&
         std::fabs(now.width - frame.width) <= kFrameTolerance &&
         std::fabs(now.height - frame.height) <= kFrameTolerance;
}

// One wait for a frame: the configure handler and the time limit, whichever
// ends it removes the other.
struct FrameWait {
  GtkWindow* window;
  Rect frame;
  std::function<void()> task;
  gulong handler = 0;
  guint timeout = 0;
};

void EndFrameWait(FrameWait* wait) {
  if (wait->handler)
    g_signal_handler_disconnect(wait->window, wait->handler);
  if (wait->timeout)
    g_source_remove(wait->timeout);
  g_object_unref(wait->window);
  delete wait;
}
} // namespace

void WhenFrameIs(GtkWindow* window, const Rect& frame, unsigned limit_ms,
                 std::function<void()> task) {
  if (FrameIs(window, frame)) {
    task();
    return;
  }
  auto* wait = new FrameWait{GTK_WINDOW(g_object_ref(window)), frame, std::move(task)};
  wait->handler = g_signal_connect_after(
      window, "configure-event",
      G_CALLBACK(+[](GtkWidget* widget, GdkEvent*, gpointer data) -> gboolean {
        auto* wait = static_cast<FrameWait*>(data);
        if (FrameIs(GTK_WINDOW(widget), wait->frame)) {
          std::function<void()> task = std::move(wait->task);
          EndFrameWait(wait);
          task();
        }
        return FALSE;
      }),
      wait);
  wait->timeout = g_timeout_add(
      limit_ms,
      [](gpointer data) -> gboolean {
        auto* wait = static_cast<FrameWait*>(data);
        wait->timeout = 0;
        EndFrameWait(wait);
        return G_SOURCE_REMOVE;
      },
      wait);
  g_source_set_name_by_id(wait->timeout, "[orvane] window frame wait");
}

Size ContentSizeOfFrame(GtkWindow* window, const Rect& frame) {
  Decorations d = KnownDecorations(window);
  return {double(std::max(1, int(std::lround(frame.width)) - d.extra_width)),
          double(std::max(1, int(std::lround(frame.height)) - d.extra_height))};
}

void SetWindowFrame(GtkWindow* window, const Rect& frame) {
  Rect x11 = TopLeftRectFromDesktop(frame, PrimaryMonitorTopLeft());
  Size content = ContentSizeOfFrame(window, frame);
  // With the default north-west gravity the window manager puts the frame's
  // top-left corner where we ask.
  gtk_window_move(window, int(std::lround(x11.x)), int(std::lround(x11.y)));
  gtk_window_resize(window, int(content.width), int(content.height));
}

bool IsOnActiveWorkspace(GtkWindow* window) {
  GdkWindow* gdk = gtk_widget_get_window(GTK_WIDGET(window));
  if (!gdk || !GDK_IS_X11_WINDOW(gdk))
    return true;
  guint32 desktop = gdk_x11_window_get_desktop(gdk);
  if (desktop == 0xFFFFFFFF) // on every workspace
    return true;
  return desktop == gdk_x11_screen_get_current_desktop(gdk_window_get_screen(gdk));
}

} // namespace orvane
