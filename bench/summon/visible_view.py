#!/usr/bin/python3
"""A visible WebKitGTK window for the summon benchmark's floor.

Usage: visible_view.py FIRST_URL

Shows a 560 x 680 window with a web view, loads FIRST_URL, and prints
"ready" once that load has finished. Then, for each address read from
standard input, prints the epoch time in milliseconds at which it asked
the view to load it, and loads it.
"""
import sys
import time

import gi

gi.require_version("Gtk", "3.0")
gi.require_version("WebKit2", "4.1")
from gi.repository import GLib, Gtk, WebKit2  # noqa: E402


def main() -> int:
    window = Gtk.Window(title="summon floor")
    window.set_default_size(560, 680)
    view = WebKit2.WebView()
    window.add(view)
    window.show_all()
    state = {"ready": False}

    def on_load(_view, event):
        if event == WebKit2.LoadEvent.FINISHED and not state["ready"]:
            state["ready"] = True
            print("ready", flush=True)

    view.connect("load-changed", on_load)

    def on_input(_channel, _condition):
        line = sys.stdin.readline()
        if not line:
            Gtk.main_quit()
            return False
        started = time.time() * 1000
        print(f"{started:.3f}", flush=True)
        view.load_uri(line.strip())
        return True

    GLib.io_add_watch(GLib.IOChannel.unix_new(sys.stdin.fileno()), GLib.PRIORITY_DEFAULT,
                      GLib.IOCondition.IN | GLib.IOCondition.HUP, on_input)
    view.load_uri(sys.argv[1])
    Gtk.main()
    return 0


if __name__ == "__main__":
    sys.exit(main())
