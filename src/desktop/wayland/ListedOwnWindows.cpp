#include "desktop/wayland/ListedOwnWindows.h"

#include "base/SparLog.h"

#include <cmath>
#include <gdk/gdkwayland.h>
#include <memory>
#include <unistd.h>
#include <wayland-client.h>

namespace orvane {

namespace {

constexpr unsigned kFramePollMs = 40;
// The most a listed frame may differ from the GTK window's size in either
// dimension and still be that window.
constexpr double kMaxDecoration = 128;
// The longest a frame waits for the window's next commit.
constexpr unsigned kCommitWaitMs = 300;

// A frame waiting for the window's next frame to be committed and read by
// the compositor. Whichever comes first ends it: the display sync after the
// commit, or the time limit.
struct PendingFrame {
  std::weak_ptr<int> alive;
  std::function<void()> apply;
  GtkWindow* window = nullptr;    // a reference
  GdkFrameClock* clock = nullptr; // a reference
  gulong after_paint = 0;
  guint timeout = 0;
  wl_callback* sync = nullptr;
};

void FinishPendingFrame(PendingFrame* pending) {
  std::unique_ptr<PendingFrame> done(pending);
  if (done->after_paint)
    g_signal_handler_disconnect(done->clock, done->after_paint);
  if (done->timeout)
    g_source_remove(done->timeout);
  if (done->sync)
    wl_callback_destroy(done->sync);
  if (!done->alive.expired())
    done->apply();
  g_object_unref(done->clock);
  g_object_unref(done->window);
}

void OnSyncDone(void* data, wl_callback* callback, uint32_t) {
  auto* pending = static_cast<PendingFrame*>(data);
  wl_callback_destroy(callback);
  pending->sync = nullptr;
  FinishPendingFrame(pending);
}

const wl_callback_listener kSyncListener = {OnSyncDone};

// GDK commits the painted frame (with the window's new hints) in its own
// "after-paint" handler, connected before this one; the sync that follows
// is answered once the compositor has read that commit.
void OnAfterPaint(GdkFrameClock* clock, gpointer data) {
  auto* pending = static_cast<PendingFrame*>(data);
  g_signal_handler_disconnect(clock, pending->after_paint);
  pending->after_paint = 0;
  wl_display* display = gdk_wayland_display_get_wl_display(gdk_display_get_default());
  pending->sync = wl_display_sync(display);
  wl_callback_add_listener(pending->sync, &kSyncListener, pending);
  wl_display_flush(display);
}

bool SameFrame(const Rect& a, const Rect& b) {
  return std::fabs(a.x - b.x) <= 1 && std::fabs(a.y - b.y) <= 1 &&
         std::fabs(a.width - b.width) <= 1 && std::fabs(a.height - b.height) <= 1;
}

} // namespace

void ListedOwnWindows::track(GtkWindow* window) {
  gtk_.track(window);
  struct Forget {
    std::weak_ptr<int> alive;
    ListedOwnWindows* self;
  };
  auto forget = +[](GtkWidget* widget, gpointer data) {
    auto* f = static_cast<Forget*>(data);
    if (!f->alive.expired())
      f->self->listed_ids_.erase(GTK_WINDOW(widget));
  };
  g_signal_connect_data(
      window, "unmap", G_CALLBACK(forget), new Forget{alive_, this},
      +[](gpointer data, GClosure*) { delete static_cast<Forget*>(data); }, GConnectFlags(0));
  g_signal_connect_data(
      window, "destroy", G_CALLBACK(forget), new Forget{alive_, this},
      +[](gpointer data, GClosure*) { delete static_cast<Forget*>(data); }, GConnectFlags(0));
}

std::optional<WindowInfo> ListedOwnWindows::listedWindowOf(GtkWindow* window) {
  if (!gtk_widget_get_mapped(GTK_WIDGET(window)))
    return std::nullopt;
  std::optional<std::vector<WindowInfo>> mine = windows_.windowsOfPid(int(getpid()));
  if (!mine)
    return std::nullopt;
  auto known = listed_ids_.find(window);
  if (known != listed_ids_.end()) {
    for (const WindowInfo& candidate : *mine)
      if (candidate.id == known->second)
        return candidate;
    listed_ids_.erase(known);
  }
  const char* title = gtk_window_get_title(window);
  int width = 0, height = 0;
  gtk_window_get_size(window, &width, &height);
  std::optional<WindowInfo> best;
  double best_distance = 0;
  for (const WindowInfo& candidate : *mine) {
    if (!candidate.normal || candidate.title != (title ? title : ""))
      continue;
    // Another GTK window's listed window is not this one's.
    bool taken = false;
    for (const auto& [other, id] : listed_ids_)
      taken = taken || (other != window && id == candidate.id);
    if (taken)
      continue;
    // A frame far from the GTK window's size (decorations differ by a title
    // bar and borders) is another window of the same title, such as the
    // library window while the panel is not listed yet.
    double dw = std::fabs(candidate.frame.width - width);
    double dh = std::fabs(candidate.frame.height - height);
    if (dw > kMaxDecoration || dh > kMaxDecoration)
      continue;
    double distance = dw + dh;
    if (!best || distance < best_distance) {
      best = candidate;
      best_distance = distance;
    }
  }
  if (best)
    listed_ids_[window] = best->id;
  return best;
}

Rect ListedOwnWindows::frame(GtkWindow* window) {
  if (std::optional<WindowInfo> found = listedWindowOf(window))
    return found->frame;
  return gtk_.frame(window);
}

void ListedOwnWindows::setFrame(GtkWindow* window, const Rect& frame) {
  GdkDisplay* display = gdk_display_get_default();
  GdkWindow* gdk = gtk_widget_get_mapped(GTK_WIDGET(window))
                       ? gtk_widget_get_window(GTK_WIDGET(window))
                       : nullptr;
  GdkFrameClock* clock = gdk ? gdk_window_get_frame_clock(gdk) : nullptr;
  if (!clock || !display || !GDK_IS_WAYLAND_DISPLAY(display)) {
    applyFrame(window, frame);
    return;
  }
  auto* pending = new PendingFrame;
  pending->alive = alive_;
  pending->window = GTK_WINDOW(g_object_ref(window));
  pending->clock = GDK_FRAME_CLOCK(g_object_ref(clock));
  pending->apply = [this, window, frame] { applyFrame(window, frame); };
  pending->after_paint = g_signal_connect(clock, "after-paint", G_CALLBACK(OnAfterPaint), pending);
  pending->timeout = g_timeout_add(
      kCommitWaitMs,
      +[](gpointer data) -> gboolean {
        auto* p = static_cast<PendingFrame*>(data);
        p->timeout = 0;
        FinishPendingFrame(p);
        return G_SOURCE_REMOVE;
      },
      pending);
  g_source_set_name_by_id(pending->timeout, "[orvane] own window frame after its commit");
  // A frame is painted (and committed) even when nothing else changed.
  gtk_widget_queue_draw(GTK_WIDGET(window));
}

void ListedOwnWindows::applyFrame(GtkWindow* window, const Rect& frame) {
  std::optional<WindowInfo> found = listedWindowOf(window);
  if (!found && gtk_widget_get_mapped(GTK_WIDGET(window))) {
    // A window just mapped may not be listed yet (a busy compositor lists
    // it some frames later): it is placed once it is.
    whenListed(window, [this, window, frame](std::optional<WindowInfo> listed) {
      if (!listed || !windows_.setFrame(listed->id, frame))
        gtk_.setFrame(window, frame);
    });
    return;
  }
  if (!found || !windows_.setFrame(found->id, frame))
    gtk_.setFrame(window, frame);
}

void ListedOwnWindows::whenFrameIs(GtkWindow* window, const Rect& frame, unsigned limit_ms,
                                   std::function<void()> task) {
  // The compositor applies a frame once the client has drawn at the new
  // size; it is read back every few dozen milliseconds until it is there or the time
  // is up.
  struct Wait {
    ListedOwnWindows* self;
    GtkWindow* window;
    Rect frame;
    unsigned left_ms;
    std::function<void()> task;
  };
  auto* wait = new Wait{this, GTK_WINDOW(g_object_ref(window)), frame, limit_ms, std::move(task)};
  auto check = +[](gpointer data) -> gboolean {
    auto* w = static_cast<Wait*>(data);
    std::optional<WindowInfo> found = w->self->listedWindowOf(w->window);
    bool there = found && SameFrame(found->frame, w->frame);
    if (!there && w->left_ms >= kFramePollMs) {
      w->left_ms -= kFramePollMs;
      return G_SOURCE_CONTINUE;
    }
    std::unique_ptr<Wait> done(w);
    g_object_unref(done->window);
    if (there)
      done->task();
    return G_SOURCE_REMOVE;
  };
  guint source = g_timeout_add(kFramePollMs, check, wait);
  g_source_set_name_by_id(source, "[orvane] own window frame from the desktop");
}

void ListedOwnWindows::requestActivation(GtkWindow* window, uint32_t timestamp) {
  gtk_.requestActivation(window, timestamp);
  if (std::optional<WindowInfo> found = listedWindowOf(window)) {
    windows_.activate(found->id, timestamp);
    return;
  }
  // A window just mapped may not be listed yet.
  if (gtk_widget_get_mapped(GTK_WIDGET(window)))
    whenListed(window, [this, timestamp](std::optional<WindowInfo> found) {
      if (found)
        windows_.activate(found->id, timestamp);
    });
}

void ListedOwnWindows::makePanel(GtkWindow* window) {
  gtk_.makePanel(window);
  if (!options_.make_panel)
    return;
  // Every map is a new window for a Wayland compositor. The handler holds
  // the alive token, so a map after this object went does nothing.
  struct Handler {
    std::weak_ptr<int> alive;
    ListedOwnWindows* self;
  };
  g_signal_connect_data(
      window, "map", G_CALLBACK(+[](GtkWidget* widget, gpointer data) {
        auto* handler = static_cast<Handler*>(data);
        if (!handler->alive.expired())
          handler->self->makePanelWhenListed(GTK_WINDOW(widget));
      }),
      new Handler{alive_, this},
      +[](gpointer data, GClosure*) { delete static_cast<Handler*>(data); }, GConnectFlags(0));
}

void ListedOwnWindows::makePanelWhenListed(GtkWindow* window) {
  whenListed(window, [this](std::optional<WindowInfo> found) {
    if (!found)
      SparLog("panel: the desktop did not list the panel's window in time; it is not kept "
              "above the other windows");
    else if (!options_.make_panel(found->id))
      SparLog("panel: the desktop refused to keep the panel above the other windows");
  });
}

void ListedOwnWindows::whenListed(GtkWindow* window,
                                  std::function<void(std::optional<WindowInfo>)> task) {
  struct Look {
    std::weak_ptr<int> alive;
    ListedOwnWindows* self;
    GtkWindow* window;
    unsigned left_ms;
    std::function<void(std::optional<WindowInfo>)> task;
  };
  auto* look = new Look{alive_, this, GTK_WINDOW(g_object_ref(window)), options_.panel_wait_ms,
                        std::move(task)};
  auto check = +[](gpointer data) -> gboolean {
    auto* l = static_cast<Look*>(data);
    // A window hidden meanwhile, or an object gone, ends the look quietly.
    if (!l->alive.expired() && gtk_widget_get_mapped(GTK_WIDGET(l->window))) {
      std::optional<WindowInfo> found = l->self->listedWindowOf(l->window);
      if (!found && l->left_ms >= kFramePollMs) {
        l->left_ms -= kFramePollMs;
        return G_SOURCE_CONTINUE;
      }
      l->task(found);
    }
    std::unique_ptr<Look> done(l);
    g_object_unref(done->window);
    return G_SOURCE_REMOVE;
  };
  guint source = g_timeout_add(kFramePollMs, check, look);
  g_source_set_name_by_id(source, "[orvane] own window listed by the desktop");
}

} // namespace orvane
