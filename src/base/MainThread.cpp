#include "base/MainThread.h"

#include <algorithm>
#include <glib.h>

namespace orvane {

void RunOnMainLoop(std::function<void()> task) {
  RunOnContext(g_main_context_default(), std::move(task));
}

void RunOnContext(GMainContext* context, std::function<void()> task) {
  auto* heap = new std::function<void()>(std::move(task));
  // An idle source at default priority keeps tasks in the order queued.
  GSource* source = g_idle_source_new();
  g_source_set_priority(source, G_PRIORITY_DEFAULT);
  g_source_set_callback(
      source,
      [](gpointer data) -> gboolean {
        (*static_cast<std::function<void()>*>(data))();
        return G_SOURCE_REMOVE;
      },
      heap, [](gpointer data) { delete static_cast<std::function<void()>*>(data); });
  g_source_set_name(source, "[orvane] task for the main thread");
  g_source_attach(source, context);
  g_source_unref(source);
}

void RunMainContextFor(std::chrono::milliseconds duration) {
  GMainContext* context = g_main_context_ref_thread_default();
  bool done = false;
  GSource* timer = g_timeout_source_new(guint(std::max<long long>(duration.count(), 0)));
  g_source_set_callback(
      timer,
      [](gpointer data) -> gboolean {
        *static_cast<bool*>(data) = true;
        return G_SOURCE_REMOVE;
      },
      &done, nullptr);
  g_source_set_name(timer, "[orvane] pause");
  g_source_attach(timer, context);
  while (!done)
    g_main_context_iteration(context, TRUE);
  g_source_destroy(timer);
  g_source_unref(timer);
  g_main_context_unref(context);
}

} // namespace orvane
