#!/usr/bin/python3
"""Presses key chords in a GNOME Shell (or mutter) Wayland session through
org.gnome.Mutter.RemoteDesktop, for tests: one long-lived client, because a
remote-desktop session lives as long as the D-Bus connection that made it.

  gnome_keys.py [--delay-ms N] CHORD...
  gnome_keys.py --stdin

A chord is keys joined by '+', pressed in order and released in reverse
order: "alt+b", "ctrl+a", "ctrl+shift+c", "b", "enter" (the names of
orvane_fake_keys: a-z, 0-9, alt, ctrl, shift, super, enter, escape, tab,
space, backspace, delete, left, right, up, down, home, end, f1-f12, or
"keysym:0xNNNN" for any X keysym).

With --stdin it prints "ready" once the remote-desktop session runs, then
reads one chord a line until the end of its input and after each prints the
time (epoch milliseconds) at which the chord's presses were sent, or
"error: ..." for a line it cannot press. A line "down CHORD" only presses
the chord's keys (they stay held), "up CHORD" only releases them. The session bus is
DBUS_SESSION_BUS_ADDRESS. Exit status: 0 when every chord was sent, 1 when
the remote-desktop service could not be reached, 2 for a bad chord or
command line.
"""
import sys
import time

from gi.repository import Gio, GLib

KEYSYMS = {
    "alt": 0xFFE9, "ctrl": 0xFFE3, "control": 0xFFE3, "shift": 0xFFE1, "super": 0xFFEB,
    "meta": 0xFFEB, "enter": 0xFF0D, "return": 0xFF0D, "escape": 0xFF1B, "esc": 0xFF1B,
    "tab": 0xFF09, "space": 0x20, "backspace": 0xFF08, "delete": 0xFFFF, "left": 0xFF51,
    "up": 0xFF52, "right": 0xFF53, "down": 0xFF54, "home": 0xFF50, "end": 0xFF57,
}
for _n in range(1, 13):
    KEYSYMS[f"f{_n}"] = 0xFFBE + _n - 1
MAX_CHORD_KEYS = 8
RD_NAME = "org.gnome.Mutter.RemoteDesktop"


def parse_chord(text: str) -> list[int]:
    names = text.strip().lower().split("+")
    if not text.strip() or len(names) > MAX_CHORD_KEYS:
        raise ValueError(f"bad chord {text!r}")
    keys = []
    for name in names:
        if name in KEYSYMS:
            keys.append(KEYSYMS[name])
        elif len(name) == 1 and (name.isascii() and name.isalnum()):
            keys.append(ord(name))
        elif name.startswith("keysym:"):
            value = int(name[7:], 0)
            if not 0 < value < 0x2000000:
                raise ValueError(f"bad keysym in {text!r}")
            keys.append(value)
        else:
            raise ValueError(f"unknown key {name!r} in {text!r}")
    return keys


class Presser:
    def __init__(self) -> None:
        self.bus = Gio.bus_get_sync(Gio.BusType.SESSION, None)
        self._start()

    def _start(self) -> None:
        reply = self.bus.call_sync(RD_NAME, "/org/gnome/Mutter/RemoteDesktop", RD_NAME,
                                   "CreateSession", None, GLib.VariantType("(o)"),
                                   Gio.DBusCallFlags.NONE, 10000, None)
        self.path = reply.unpack()[0]
        self._session_call("Start", None)
        # The shell adds the keyboard to its seat with the first key event;
        # until then Wayland clients get no keyboard (nor the focus), and that
        # first event itself reaches no client. A lone Shift does it.
        self._press([KEYSYMS["shift"]])

    def _session_call(self, method: str, params) -> None:
        self.bus.call_sync(RD_NAME, self.path, RD_NAME + ".Session", method, params, None,
                           Gio.DBusCallFlags.NONE, 10000, None)

    def key(self, keysym: int, pressed: bool) -> None:
        self._session_call("NotifyKeyboardKeysym", GLib.Variant("(ub)", (keysym, pressed)))

    def _press(self, keys: list[int]) -> int:
        for keysym in keys:
            self.key(keysym, True)
        sent = int(time.time() * 1000)
        for keysym in reversed(keys):
            self.key(keysym, False)
        return sent

    def chord(self, keys: list[int]) -> int:
        try:
            return self._press(keys)
        except GLib.Error as exc:
            # The shell may close a remote-desktop session on its own (seen
            # on a loaded machine); a new one presses the whole chord again.
            print(f"gnome_keys.py: the session ended ({exc.message}); starting another",
                  file=sys.stderr, flush=True)
            self._start()
            return self._press(keys)

    def stop(self) -> None:
        try:
            self._session_call("Stop", None)
        except GLib.Error:
            pass


def main(argv: list[str]) -> int:
    args = argv[1:]
    from_stdin = args == ["--stdin"]
    delay = 0.0
    if args[:1] == ["--delay-ms"] and len(args) >= 2:
        try:
            delay = int(args[1]) / 1000
        except ValueError:
            print(__doc__, file=sys.stderr)
            return 2
        args = args[2:]
    if not from_stdin and not args:
        print(__doc__, file=sys.stderr)
        return 2
    chords = []
    if not from_stdin:
        try:
            chords = [parse_chord(a) for a in args]
        except ValueError as exc:
            print(f"gnome_keys.py: {exc}", file=sys.stderr)
            return 2
    try:
        presser = Presser()
    except GLib.Error as exc:
        print(f"gnome_keys.py: no remote desktop: {exc.message}", file=sys.stderr)
        return 1
    status = 0
    try:
        if from_stdin:
            print("ready", flush=True)
            for line in sys.stdin:
                action, _, rest = line.strip().partition(" ")
                if action not in ("down", "up"):
                    action, rest = "chord", line
                try:
                    keys = parse_chord(rest)
                except ValueError as exc:
                    print(f"error: {exc}", flush=True)
                    status = 2
                    continue
                if action == "chord":
                    print(presser.chord(keys), flush=True)
                else:
                    for keysym in keys if action == "down" else reversed(keys):
                        presser.key(keysym, action == "down")
                    print(int(time.time() * 1000), flush=True)
        else:
            for i, keys in enumerate(chords):
                if i and delay:
                    time.sleep(delay)
                presser.chord(keys)
    except GLib.Error as exc:
        print(f"gnome_keys.py: {exc.message}", file=sys.stderr)
        status = 1
    finally:
        presser.stop()
    return status


if __name__ == "__main__":
    sys.exit(main(sys.argv))
