#include "base/MainThread.h"

#include <glib.h>

namespace orvane {

void RunOnMainLoop(std::function<void()> task) {
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
  g_source_attach(source, g_main_context_default());
  g_source_unref(source);
}

} // namespace orvane
