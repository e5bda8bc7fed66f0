#include "desktop/kwin/FakeInputKeys.h"

#include "base/SparLog.h"

#include "fake-input-client-protocol.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <wayland-client.h>

namespace orvane {

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kKeyReleased = 0; // WL_KEYBOARD_KEY_STATE_RELEASED
constexpr uint32_t kKeyPressed = 1;  // WL_KEYBOARD_KEY_STATE_PRESSED
// keyboard_key came with version 4 of the interface.
constexpr uint32_t kKeyboardKeyVersion = 4;

} // namespace

std::vector<KeyEvent> ChordEvents(const std::vector<uint32_t>& chord,
                                  const std::vector<uint32_t>& release_first) {
  std::vector<KeyEvent> events;
  for (uint32_t key : release_first)
    events.push_back({key, false});
  for (uint32_t key : chord)
    events.push_back({key, true});
  for (auto key = chord.rbegin(); key != chord.rend(); ++key)
    events.push_back({*key, false});
  return events;
}

FakeInputKeys::FakeInputKeys(std::chrono::milliseconds wait) : wait_(wait) {}

FakeInputKeys::~FakeInputKeys() {
  disconnect();
}

// A round trip that gives up at its deadline: the compositor is another
// process, and the caller's main loop must not wait on it for long.
bool FakeInputKeys::roundtrip() {
  bool done = false;
  wl_callback* callback = wl_display_sync(display_);
  static const wl_callback_listener listener = {
      [](void* data, wl_callback*, uint32_t) { *static_cast<bool*>(data) = true; }};
  wl_callback_add_listener(callback, &listener, &done);
  Clock::time_point deadline = Clock::now() + wait_;
  bool ok = true;
  while (!done) {
    while (wl_display_prepare_read(display_) != 0) {
      if (wl_display_dispatch_pending(display_) < 0) {
        ok = false;
        break;
      }
    }
    if (!ok || done) {
      if (ok)
        wl_display_cancel_read(display_);
      break;
    }
    if (wl_display_flush(display_) < 0 && errno != EAGAIN) {
      wl_display_cancel_read(display_);
      ok = false;
      break;
    }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) {
      wl_display_cancel_read(display_);
      ok = false;
      break;
    }
    pollfd fd = {wl_display_get_fd(display_), POLLIN, 0};
    int ready = poll(&fd, 1, int(left.count()));
    if (ready > 0) {
      if (wl_display_read_events(display_) < 0 || wl_display_dispatch_pending(display_) < 0) {
        ok = false;
        break;
      }
    } else {
      wl_display_cancel_read(display_);
      if (ready < 0 && errno == EINTR)
        continue;
      if (ready < 0) {
        ok = false;
        break;
      }
    }
  }
  // Done or not, the callback's listener must not outlive `done`.
  wl_callback_destroy(callback);
  return ok && done;
}

void FakeInputKeys::disconnect() {
  if (fake_input_)
    org_kde_kwin_fake_input_destroy(fake_input_);
  fake_input_ = nullptr;
  if (registry_)
    wl_registry_destroy(registry_);
  registry_ = nullptr;
  if (display_) {
    wl_display_flush(display_);
    wl_display_disconnect(display_);
  }
  display_ = nullptr;
}

bool FakeInputKeys::connect() {
  if (fake_input_ && display_ && wl_display_get_error(display_) == 0)
    return true;
  // A failed or broken connection is dropped and made anew: KWin decides
  // which globals a client sees when it connects.
  disconnect();
  if (!connectOnce()) {
    disconnect();
    return false;
  }
  return true;
}

bool FakeInputKeys::connectOnce() {
  display_ = wl_display_connect(nullptr);
  if (!display_) {
    SparLog("fake-input: no Wayland display to connect to");
    return false;
  }
  registry_ = wl_display_get_registry(display_);
  static const wl_registry_listener listener = {
      [](void* data, wl_registry* registry, uint32_t name, const char* interface,
         uint32_t version) {
        auto* self = static_cast<FakeInputKeys*>(data);
        if (strcmp(interface, org_kde_kwin_fake_input_interface.name) != 0 || self->fake_input_)
          return;
        self->version_ = std::min<uint32_t>(version, kKeyboardKeyVersion);
        self->fake_input_ = static_cast<org_kde_kwin_fake_input*>(
            wl_registry_bind(registry, name, &org_kde_kwin_fake_input_interface, self->version_));
      },
      [](void*, wl_registry*, uint32_t) {}};
  wl_registry_add_listener(registry_, &listener, this);
  if (!roundtrip()) {
    SparLog("fake-input: the compositor did not answer");
    return false;
  }
  if (!fake_input_) {
    // KWin 5.27 offers it to a program whose desktop file lists it in
    // X-KDE-Wayland-Interfaces and names the program by its absolute path in
    // Exec (a bare command name is not matched).
    SparLog("fake-input: KWin does not offer org_kde_kwin_fake_input to this program (its desktop "
            "file must list it in X-KDE-Wayland-Interfaces, with Exec the program's absolute "
            "path)");
    return false;
  }
  if (version_ < kKeyboardKeyVersion) {
    SparLog("fake-input: the compositor's fake-input (version %u) cannot send keys", version_);
    return false;
  }
  org_kde_kwin_fake_input_authenticate(fake_input_, "Orvane", "copy the selection");
  if (!roundtrip()) {
    SparLog("fake-input: the compositor did not answer");
    return false;
  }
  return true;
}

bool FakeInputKeys::send(const std::vector<KeyEvent>& events) {
  if (!connect())
    return false;
  for (const KeyEvent& event : events)
    org_kde_kwin_fake_input_keyboard_key(fake_input_, event.key,
                                         event.pressed ? kKeyPressed : kKeyReleased);
  if (!roundtrip()) {
    SparLog("fake-input: the compositor did not take the keys in time");
    return false;
  }
  return true;
}

} // namespace orvane
