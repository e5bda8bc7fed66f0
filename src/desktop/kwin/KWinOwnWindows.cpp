#include "desktop/kwin/KWinOwnWindows.h"

#include <cmath>
#include <memory>
#include <unistd.h>

namespace orvane {

namespace {

constexpr unsigned kFramePollMs = 40;

bool SameFrame(const Rect& a, const Rect& b) {
  return std::fabs(a.x - b.x) <= 1 && std::fabs(a.y - b.y) <= 1 &&
         std::fabs(a.width - b.width) <= 1 && std::fabs(a.height - b.height) <= 1;
}

} // namespace

std::optional<WindowInfo> KWinOwnWindows::kwinWindowOf(GtkWindow* window) {
  if (!gtk_widget_get_mapped(GTK_WIDGET(window)))
    return std::nullopt;
  std::optional<std::vector<WindowInfo>> mine = windows_.windowsOfPid(int(getpid()));
  if (!mine)
    return std::nullopt;
  const char* title = gtk_window_get_title(window);
  int width = 0, height = 0;
  gtk_window_get_size(window, &width, &height);
  std::optional<WindowInfo> best;
  double best_distance = 0;
  for (const WindowInfo& candidate : *mine) {
    if (!candidate.normal || candidate.title != (title ? title : ""))
      continue;
    double distance =
        std::fabs(candidate.frame.width - width) + std::fabs(candidate.frame.height - height);
    if (!best || distance < best_distance) {
      best = candidate;
      best_distance = distance;
    }
  }
  return best;
}

Rect KWinOwnWindows::frame(GtkWindow* window) {
  if (std::optional<WindowInfo> found = kwinWindowOf(window))
    return found->frame;
  return gtk_.frame(window);
}

void KWinOwnWindows::setFrame(GtkWindow* window, const Rect& frame) {
  std::optional<WindowInfo> found = kwinWindowOf(window);
  if (!found || !windows_.setFrame(found->id, frame))
    gtk_.setFrame(window, frame);
}

void KWinOwnWindows::whenFrameIs(GtkWindow* window, const Rect& frame, unsigned limit_ms,
                                 std::function<void()> task) {
  // KWin applies a frame once the client has drawn at the new size; it is
  // read back every few dozen milliseconds until it is there or the time
  // is up.
  struct Wait {
    KWinOwnWindows* self;
    GtkWindow* window;
    Rect frame;
    unsigned left_ms;
    std::function<void()> task;
  };
  auto* wait = new Wait{this, GTK_WINDOW(g_object_ref(window)), frame, limit_ms, std::move(task)};
  auto check = +[](gpointer data) -> gboolean {
    auto* w = static_cast<Wait*>(data);
    std::optional<WindowInfo> found = w->self->kwinWindowOf(w->window);
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
  g_source_set_name_by_id(source, "[orvane] own window frame from KWin");
}

void KWinOwnWindows::requestActivation(GtkWindow* window, uint32_t timestamp) {
  gtk_.requestActivation(window, timestamp);
  if (std::optional<WindowInfo> found = kwinWindowOf(window))
    windows_.activate(found->id, timestamp);
}

} // namespace orvane
