#include "desktop/x11/KeybinderHotkeys.h"

#include <gdk/gdk.h>
#include <gdk/gdkx.h>
#include <keybinder.h>

namespace orvane {

namespace {
void RunBinding(const char*, void* data) {
  auto* handler = static_cast<Hotkeys::Handler*>(data);
  (*handler)(keybinder_get_current_event_time());
}
} // namespace

KeybinderHotkeys::KeybinderHotkeys() {
  // keybinder keeps one filter on the root window for the whole process.
  static const bool initialised = [] {
    keybinder_init();
    // Raw matching (key code and modifiers with the lock keys masked out).
    // The "cooked" default translates the key with the event's state first,
    // so with Caps Lock on the key reads as "B" and matches no binding of
    // "<Alt>b".
    keybinder_set_use_cooked_accelerators(FALSE);
    return true;
  }();
  (void)initialised;
}

KeybinderHotkeys::~KeybinderHotkeys() {
  for (const auto& binding : bindings_)
    keybinder_unbind(binding->accelerator.c_str(), RunBinding);
}

bool KeybinderHotkeys::bind(const std::string& accelerator, Handler handler) {
  GdkDisplay* display = gdk_display_get_default();
  if (!display || !GDK_IS_X11_DISPLAY(display) || !keybinder_supported())
    return false;
  auto binding = std::make_unique<Binding>(Binding{accelerator, std::move(handler)});
  // The handler lives in this object; keybinder only points at it.
  if (!keybinder_bind_full(accelerator.c_str(), RunBinding, &binding->handler, nullptr))
    return false;
  bindings_.push_back(std::move(binding));
  return true;
}

} // namespace orvane
