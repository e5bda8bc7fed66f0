#!/usr/bin/python3
"""A native Wayland GTK window that the shell lists before it is shown, for
the extension's tests of frames asked that early.

Usage: held_window.py STATE_DIR HOLD_MS [X Y WIDTH HEIGHT]

Maps a window titled "Orvane GNOME held" and keeps it from drawing for
HOLD_MS milliseconds: the shell lists it from the start but shows it only
with its first frame. With a frame given it owns com.tarnwick.orvane (the
test releases it first) and, while it holds, asks MoveResize for its own
window as soon as the shell lists it, writing STATE_DIR/moved.json
({"pid", "id", "ok"} or {"error"}); once drawn it writes the frame the shell
gives it to STATE_DIR/frame.json ([x, y, width, height]) every 50 ms.
Otherwise it writes STATE_DIR/held.json ({"pid"}) once it holds. Runs until
SIGTERM.
"""
import json
import os
import signal
import sys
import time

import gi

gi.require_version("Gtk", "3.0")
gi.require_version("Gdk", "3.0")
from gi.repository import Gdk, Gio, GLib, Gtk  # noqa: E402

SHELL = ("org.gnome.Shell", "/com/tarnwick/orvane/Shell", "com.tarnwick.orvane.Shell")


def main() -> int:
    state, hold_ms = sys.argv[1], int(sys.argv[2])
    target = tuple(int(v) for v in sys.argv[3:7]) if len(sys.argv) >= 7 else None
    os.makedirs(state, exist_ok=True)
    bus = Gio.bus_get_sync(Gio.BusType.SESSION, None)

    def write(name: str, value) -> None:
        with open(os.path.join(state, name + ".tmp"), "w", encoding="utf-8") as fh:
            json.dump(value, fh)
        os.replace(os.path.join(state, name + ".tmp"), os.path.join(state, name))

    def call(method, params):
        return bus.call_sync(*SHELL, method, params, None, Gio.DBusCallFlags.NONE, 10000,
                             None).unpack()

    if target:
        (owned,) = bus.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                 "org.freedesktop.DBus", "RequestName",
                                 GLib.Variant("(su)", ("com.tarnwick.orvane", 4)), None,
                                 Gio.DBusCallFlags.NONE, 10000, None).unpack()
        if owned != 1:
            write("moved.json", {"error": f"RequestName answered {owned}"})
            return 1

    window = Gtk.Window(title="Orvane GNOME held")
    window.set_default_size(400, 300)
    window.connect("destroy", lambda *_: Gtk.main_quit())
    GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signal.SIGTERM, lambda: Gtk.main_quit() or False)
    window.show()
    # The toplevel reaches the shell now; its first frame waits for the
    # main loop, which this process keeps from running while it holds.
    Gdk.Display.get_default().flush()
    held_until = time.monotonic() + hold_ms / 1000
    window_id = None
    if target:
        try:
            while window_id is None and time.monotonic() < held_until:
                (windows,) = call("WindowsOfPid", GLib.Variant("(i)", (os.getpid(),)))
                if windows:
                    window_id = windows[0]["id"]
                else:
                    time.sleep(0.02)
            if window_id is None:
                write("moved.json", {"error": "the shell did not list the window while it held"})
            else:
                ok, _ = call("MoveResize", GLib.Variant("(tiiii)", (window_id, *target)))
                write("moved.json", {"pid": os.getpid(), "id": window_id, "ok": ok})
        except GLib.Error as exc:
            write("moved.json", {"error": exc.message})
    else:
        write("held.json", {"pid": os.getpid()})
    time.sleep(max(0.0, held_until - time.monotonic()))

    def report_frame():
        try:
            (listed,) = call("Window", GLib.Variant("(t)", (window_id,)))
            if listed:
                write("frame.json", [listed["x"], listed["y"], listed["width"], listed["height"]])
        except GLib.Error:
            pass
        return True

    if window_id is not None:
        GLib.timeout_add(50, report_frame)
    Gtk.main()
    return 0


if __name__ == "__main__":
    sys.exit(main())
