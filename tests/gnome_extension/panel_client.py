#!/usr/bin/python3
"""A native Wayland GTK window whose own process asks Orvane's GNOME Shell
extension to make it a floating panel, for the extension's tests.

Usage: panel_client.py STATE_DIR

Owns com.tarnwick.orvane (the test releases it first), shows a window titled
"Orvane GNOME panel", and once the shell lists a window of its pid calls
MakePanel on it and writes STATE_DIR/panel.json ({"pid", "id", "ok"}), or
{"error": ...}. Runs until SIGTERM.
"""
import json
import os
import signal
import sys

import gi

gi.require_version("Gtk", "3.0")
from gi.repository import Gio, GLib, Gtk  # noqa: E402

SHELL = ("org.gnome.Shell", "/com/tarnwick/orvane/Shell", "com.tarnwick.orvane.Shell")


def main() -> int:
    state = sys.argv[1]
    os.makedirs(state, exist_ok=True)
    bus = Gio.bus_get_sync(Gio.BusType.SESSION, None)

    def write(value) -> None:
        with open(os.path.join(state, "panel.json.tmp"), "w", encoding="utf-8") as fh:
            json.dump(value, fh)
        os.replace(os.path.join(state, "panel.json.tmp"), os.path.join(state, "panel.json"))

    def call(method, params):
        return bus.call_sync(*SHELL, method, params, None, Gio.DBusCallFlags.NONE, 10000,
                             None).unpack()

    (owned,) = bus.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                             "RequestName", GLib.Variant("(su)", ("com.tarnwick.orvane", 4)), None,
                             Gio.DBusCallFlags.NONE, 10000, None).unpack()
    if owned != 1:
        write({"error": f"RequestName answered {owned}"})
    window = Gtk.Window(title="Orvane GNOME panel")
    window.set_default_size(400, 200)
    tries = {"left": 100}

    def try_panel():
        try:
            (windows,) = call("WindowsOfPid", GLib.Variant("(i)", (os.getpid(),)))
            if not windows:
                tries["left"] -= 1
                if tries["left"] <= 0:
                    write({"error": "the shell lists no window of this pid"})
                    return False
                return True
            window_id = windows[0]["id"]
            (ok,) = call("MakePanel", GLib.Variant("(t)", (window_id,)))
            write({"pid": os.getpid(), "id": window_id, "ok": ok})
        except GLib.Error as exc:
            write({"error": exc.message})
        return False

    window.connect("map-event", lambda *_: GLib.timeout_add(50, try_panel) and False)
    window.connect("destroy", lambda *_: Gtk.main_quit())
    GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signal.SIGTERM, lambda: Gtk.main_quit() or False)
    window.show_all()
    Gtk.main()
    return 0


if __name__ == "__main__":
    sys.exit(main())
