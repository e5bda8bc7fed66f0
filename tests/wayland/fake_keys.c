/* orvane_fake_keys: presses key chords in a KWin Wayland session through
 * KWin's fake-input protocol (org_kde_kwin_fake_input), for tests.
 *
 *   orvane_fake_keys [--delay-ms N] CHORD...
 *   orvane_fake_keys --stdin
 *
 * A chord is keys joined by '+', pressed in order and released in reverse
 * order: "alt+b", "ctrl+a", "ctrl+shift+c", "b", "enter". Each argument is
 * one chord; the chords are pressed one after the other. Key names: the
 * letters a-z, the digits 0-9, alt, ctrl, shift, super, enter, escape, tab,
 * space, backspace, delete, left, right, up, down, home, end, f1-f12, or
 * "code:N" for any evdev key code.
 *
 * KWin offers the interface only to clients it trusts (in tests: to every
 * client when it runs with KWIN_WAYLAND_NO_PERMISSION_CHECKS=1). Before it
 * exits the tool waits for a round trip, so KWin has handled every key (and
 * sent it on to the focused client) when it returns.
 *
 * With --stdin it reads one chord a line until the end of its input, and
 * after each prints the time (epoch milliseconds) at which the chord's key
 * presses were flushed to the compositor, for benchmarks that time what a
 * key press sets off without the cost of starting a process.
 *
 * Exit status: 0 when every chord was sent, 1 when the compositor could not
 * be reached or does not offer fake-input, 2 for a bad command line. */

#define _POSIX_C_SOURCE 200809L

#include <linux/input-event-codes.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <time.h>
#include <wayland-client.h>

#include "fake-input-client-protocol.h"

enum { MAX_CHORD_KEYS = 8 };

struct key_name {
  const char* name;
  unsigned code;
};

static const struct key_name KEY_NAMES[] = {
    {"alt", KEY_LEFTALT},
    {"ctrl", KEY_LEFTCTRL},
    {"control", KEY_LEFTCTRL},
    {"shift", KEY_LEFTSHIFT},
    {"super", KEY_LEFTMETA},
    {"meta", KEY_LEFTMETA},
    {"enter", KEY_ENTER},
    {"return", KEY_ENTER},
    {"escape", KEY_ESC},
    {"esc", KEY_ESC},
    {"tab", KEY_TAB},
    {"space", KEY_SPACE},
    {"backspace", KEY_BACKSPACE},
    {"delete", KEY_DELETE},
    {"left", KEY_LEFT},
    {"right", KEY_RIGHT},
    {"up", KEY_UP},
    {"down", KEY_DOWN},
    {"home", KEY_HOME},
    {"end", KEY_END},
    {"a", KEY_A},
    {"b", KEY_B},
    {"c", KEY_C},
    {"d", KEY_D},
    {"e", KEY_E},
    {"f", KEY_F},
    {"g", KEY_G},
    {"h", KEY_H},
    {"i", KEY_I},
    {"j", KEY_J},
    {"k", KEY_K},
    {"l", KEY_L},
    {"m", KEY_M},
    {"n", KEY_N},
    {"o", KEY_O},
    {"p", KEY_P},
    {"q", KEY_Q},
    {"r", KEY_R},
    {"s", KEY_S},
    {"t", KEY_T},
    {"u", KEY_U},
    {"v", KEY_V},
    {"w", KEY_W},
    {"x", KEY_X},
    {"y", KEY_Y},
    {"z", KEY_Z},
    {"1", KEY_1},
    {"2", KEY_2},
    {"3", KEY_3},
    {"4", KEY_4},
    {"5", KEY_5},
    {"6", KEY_6},
    {"7", KEY_7},
    {"8", KEY_8},
    {"9", KEY_9},
    {"0", KEY_0},
    {"f1", KEY_F1},
    {"f2", KEY_F2},
    {"f3", KEY_F3},
    {"f4", KEY_F4},
    {"f5", KEY_F5},
    {"f6", KEY_F6},
    {"f7", KEY_F7},
    {"f8", KEY_F8},
    {"f9", KEY_F9},
    {"f10", KEY_F10},
    {"f11", KEY_F11},
    {"f12", KEY_F12},
};

struct chord {
  unsigned codes[MAX_CHORD_KEYS];
  size_t count;
};

struct state {
  struct org_kde_kwin_fake_input* fake_input;
  uint32_t version;
};

static bool key_code(const char* name, size_t length, unsigned* code) {
  if (length > 5 && strncasecmp(name, "code:", 5) == 0) {
    char digits[16];
    if (length - 5 >= sizeof digits) {
      return false;
    }
    memcpy(digits, name + 5, length - 5);
    digits[length - 5] = '\0';
    char* end = NULL;
    unsigned long value = strtoul(digits, &end, 10);
    if (*end != '\0' || value == 0 || value > KEY_MAX) {
      return false;
    }
    *code = (unsigned)value;
    return true;
  }
  for (size_t i = 0; i < sizeof KEY_NAMES / sizeof KEY_NAMES[0]; ++i) {
    if (strlen(KEY_NAMES[i].name) == length && strncasecmp(KEY_NAMES[i].name, name, length) == 0) {
      *code = KEY_NAMES[i].code;
      return true;
    }
  }
  return false;
}

/* Parses "ctrl+shift+c"; reports the offending part on failure. */
static bool parse_chord(const char* text, struct chord* chord) {
  chord->count = 0;
  const char* part = text;
  for (;;) {
    const char* plus = strchr(part, '+');
    size_t length = plus ? (size_t)(plus - part) : strlen(part);
    unsigned code = 0;
    if (length == 0 || !key_code(part, length, &code)) {
      fprintf(stderr, "orvane_fake_keys: unknown key \"%.*s\" in chord \"%s\"\n", (int)length, part,
              text);
      return false;
    }
    if (chord->count == MAX_CHORD_KEYS) {
      fprintf(stderr, "orvane_fake_keys: chord \"%s\" has more than %d keys\n", text,
              MAX_CHORD_KEYS);
      return false;
    }
    chord->codes[chord->count++] = code;
    if (!plus) {
      return true;
    }
    part = plus + 1;
  }
}

static void on_global(void* data, struct wl_registry* registry, uint32_t name,
                      const char* interface, uint32_t version) {
  struct state* state = data;
  if (strcmp(interface, org_kde_kwin_fake_input_interface.name) == 0 && !state->fake_input) {
    state->version = version < 4 ? version : 4;
    state->fake_input =
        wl_registry_bind(registry, name, &org_kde_kwin_fake_input_interface, state->version);
  }
}

static void on_global_remove(void* data, struct wl_registry* registry, uint32_t name) {
  (void)data;
  (void)registry;
  (void)name;
}

static const struct wl_registry_listener REGISTRY_LISTENER = {on_global, on_global_remove};

static void sleep_ms(long ms) {
  if (ms <= 0) {
    return;
  }
  struct timespec pause = {ms / 1000, (ms % 1000) * 1000000L};
  nanosleep(&pause, NULL);
}

static int usage(void) {
  fprintf(stderr, "usage: orvane_fake_keys [--delay-ms N] CHORD...   (e.g. alt+b ctrl+shift+c)\n"
                  "       orvane_fake_keys --stdin\n");
  return 2;
}

static double epoch_ms(void) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return (double)now.tv_sec * 1000.0 + (double)now.tv_nsec / 1e6;
}

/* Presses the chord's keys, flushes them, releases them and waits for a
 * round trip; `pressed_ms` gets the time of the flush of the presses. */
static bool send_chord(struct wl_display* display, struct org_kde_kwin_fake_input* fake_input,
                       const struct chord* chord, double* pressed_ms) {
  for (size_t k = 0; k < chord->count; ++k) {
    org_kde_kwin_fake_input_keyboard_key(fake_input, chord->codes[k],
                                         WL_KEYBOARD_KEY_STATE_PRESSED);
  }
  *pressed_ms = epoch_ms();
  wl_display_flush(display);
  for (size_t k = chord->count; k-- > 0;) {
    org_kde_kwin_fake_input_keyboard_key(fake_input, chord->codes[k],
                                         WL_KEYBOARD_KEY_STATE_RELEASED);
  }
  /* One round trip per chord: KWin has handled it before the next one
   * (a client sees separate chords, not one mixed burst). */
  if (wl_display_roundtrip(display) < 0) {
    fprintf(stderr, "orvane_fake_keys: the compositor closed the connection\n");
    return false;
  }
  return true;
}

int main(int argc, char** argv) {
  long delay_ms = 30;
  int first = 1;
  bool from_stdin = argc == 2 && strcmp(argv[1], "--stdin") == 0;
  if (from_stdin) {
    first = argc;
  } else if (argc > 2 && strcmp(argv[1], "--delay-ms") == 0) {
    char* end = NULL;
    delay_ms = strtol(argv[2], &end, 10);
    if (*end != '\0' || delay_ms < 0 || delay_ms > 10000) {
      return usage();
    }
    first = 3;
  }
  if (first >= argc && !from_stdin) {
    return usage();
  }
  size_t chord_count = (size_t)(argc - first);
  struct chord* chords = calloc(chord_count ? chord_count : 1, sizeof *chords);
  if (!chords) {
    return 1;
  }
  for (size_t i = 0; i < chord_count; ++i) {
    if (!parse_chord(argv[first + (int)i], &chords[i])) {
      free(chords);
      return 2;
    }
  }

  struct wl_display* display = wl_display_connect(NULL);
  if (!display) {
    const char* name = getenv("WAYLAND_DISPLAY");
    fprintf(stderr, "orvane_fake_keys: cannot connect to the Wayland display \"%s\"\n",
            name ? name : "(WAYLAND_DISPLAY not set)");
    free(chords);
    return 1;
  }
  struct state state = {NULL, 0};
  struct wl_registry* registry = wl_display_get_registry(display);
  wl_registry_add_listener(registry, &REGISTRY_LISTENER, &state);
  if (wl_display_roundtrip(display) < 0) {
    fprintf(stderr, "orvane_fake_keys: the compositor closed the connection\n");
    wl_display_disconnect(display);
    free(chords);
    return 1;
  }
  if (!state.fake_input || state.version < 4) {
    fprintf(stderr, "orvane_fake_keys: the compositor does not offer org_kde_kwin_fake_input "
                    "version 4 (KWin offers it to untrusted clients only with "
                    "KWIN_WAYLAND_NO_PERMISSION_CHECKS=1)\n");
    wl_registry_destroy(registry);
    wl_display_disconnect(display);
    free(chords);
    return 1;
  }
  org_kde_kwin_fake_input_authenticate(state.fake_input, "orvane tests",
                                       "presses keys for end-to-end tests");
  int status = 0;
  double pressed_ms = 0;
  for (size_t i = 0; i < chord_count && status == 0; ++i) {
    if (!send_chord(display, state.fake_input, &chords[i], &pressed_ms)) {
      status = 1;
    }
    if (i + 1 < chord_count) {
      sleep_ms(delay_ms);
    }
  }
  char line[256];
  while (from_stdin && status == 0 && fgets(line, sizeof line, stdin)) {
    line[strcspn(line, "\r\n")] = '\0';
    struct chord chord;
    if (!parse_chord(line, &chord)) {
      status = 2;
      break;
    }
    if (!send_chord(display, state.fake_input, &chord, &pressed_ms)) {
      status = 1;
      break;
    }
    printf("%.3f\n", pressed_ms);
    fflush(stdout);
  }
  org_kde_kwin_fake_input_destroy(state.fake_input);
  wl_registry_destroy(registry);
  wl_display_disconnect(display);
  free(chords);
  return status;
}
