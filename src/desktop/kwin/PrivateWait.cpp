#include "desktop/kwin/PrivateWait.h"

namespace orvane {

PrivateWait::PrivateWait() : context_(g_main_context_new()) {
  g_main_context_push_thread_default(context_.get());
}

PrivateWait::~PrivateWait() {
  g_main_context_pop_thread_default(context_.get());
}

bool PrivateWait::until(const std::function<bool()>& done, double seconds) {
  if (done())
    return true;
  bool expired = false;
  GSource* timer = g_timeout_source_new(guint(seconds > 0 ? seconds * 1000 : 0));
  g_source_set_callback(
      timer,
      [](gpointer data) -> gboolean {
        *static_cast<bool*>(data) = true;
        return G_SOURCE_REMOVE;
      },
      &expired, nullptr);
  g_source_set_name(timer, "[orvane] private wait limit");
  g_source_attach(timer, context_.get());
  while (!done() && !expired)
    g_main_context_iteration(context_.get(), TRUE);
  g_source_destroy(timer);
  g_source_unref(timer);
  return done();
}

void PrivateWait::drain() {
  for (int i = 0; i < 1000 && g_main_context_iteration(context_.get(), FALSE); ++i) {
  }
}

} // namespace orvane
