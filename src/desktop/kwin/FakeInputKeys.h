// Keystrokes through KWin's fake-input protocol (org_kde_kwin_fake_input),
// the XTest of a Plasma Wayland session: the copy chord reaches whichever
// window has the keyboard focus. KWin offers the interface only to
// programs whose desktop file lists it in X-KDE-Wayland-Interfaces (or to
// everyone with KWIN_WAYLAND_NO_PERMISSION_CHECKS=1, in tests).
//
// KWin 5.27 checks the desktop file whose Exec is the program's absolute
// path (seen: a bare command name in Exec, or a trailing ';' after the
// interface name, and the interface is not offered).
//
// The object has a Wayland connection of its own, opened on first use on
// the calling thread; every wait on the compositor is bounded and leaves
// the caller's main loop alone (they are short poll()s on that connection).
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

struct wl_display;
struct wl_registry;
struct org_kde_kwin_fake_input;

namespace orvane {

// Linux evdev key codes the chords use.
inline constexpr uint32_t kEvdevLeftCtrl = 29;
inline constexpr uint32_t kEvdevLeftShift = 42;
inline constexpr uint32_t kEvdevLeftAlt = 56;
inline constexpr uint32_t kEvdevRightAlt = 100;
inline constexpr uint32_t kEvdevC = 46;

// One key event of a chord: pressed or released.
struct KeyEvent {
  uint32_t key = 0;
  bool pressed = false;
  bool operator==(const KeyEvent&) const = default;
};

// The events that send a chord: first a release of every key in
// `release_first` (modifiers the user may still hold from a hotkey), then
// the chord's keys pressed in order and released in reverse order.
std::vector<KeyEvent> ChordEvents(const std::vector<uint32_t>& chord,
                                  const std::vector<uint32_t>& release_first);

class FakeInputKeys {
public:
  // `wait`: how long connecting or one round trip may take.
  explicit FakeInputKeys(std::chrono::milliseconds wait = std::chrono::milliseconds(1000));
  ~FakeInputKeys();
  FakeInputKeys(const FakeInputKeys&) = delete;
  FakeInputKeys& operator=(const FakeInputKeys&) = delete;

  // Connects, binds the fake-input interface and authenticates as Orvane;
  // a working connection is kept, a failed or broken one is tried anew at
  // the next call. False when there is no Wayland display, KWin does not
  // offer the interface to this program, or the compositor did not answer
  // in time.
  bool connect();
  // Sends the events and waits (bounded) until KWin has taken them. False
  // when they could not be sent.
  bool send(const std::vector<KeyEvent>& events);

private:
  bool connectOnce();
  void disconnect();
  bool roundtrip();

  std::chrono::milliseconds wait_;
  wl_display* display_ = nullptr;
  wl_registry* registry_ = nullptr;
  org_kde_kwin_fake_input* fake_input_ = nullptr;
  uint32_t version_ = 0;
};

} // namespace orvane
