// Global hotkeys as passive key grabs on the X root window, through
// keybinder (which grabs each chord also with Caps Lock, Num Lock and Scroll
// Lock on, so the lock keys do not disarm it).
#pragma once

#include "desktop/Hotkeys.h"

#include <memory>
#include <string>
#include <vector>

namespace orvane {

class KeybinderHotkeys final : public Hotkeys {
public:
  KeybinderHotkeys();
  ~KeybinderHotkeys() override;
  KeybinderHotkeys(const KeybinderHotkeys&) = delete;
  KeybinderHotkeys& operator=(const KeybinderHotkeys&) = delete;

  bool bind(const std::string& accelerator, Handler handler) override;

private:
  struct Binding {
    std::string accelerator;
    Handler handler;
  };
  std::vector<std::unique_ptr<Binding>> bindings_;
};

} // namespace orvane
