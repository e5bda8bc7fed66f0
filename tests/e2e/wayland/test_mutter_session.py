"""The headless mutter session: a Wayland desktop for which Orvane has no
backend (no KWin, no portals), with one virtual monitor of 1600 x 1000."""

from __future__ import annotations

import re
import shutil
import subprocess

from wayland_harness import RUN_IN_MUTTER_SESSION, pids_with_env


def test_the_mutter_wrapper_runs_a_command_in_a_gnome_wayland_session_and_ends_it():
    script = (
        'echo "env|$WAYLAND_DISPLAY|${DISPLAY-none}|$XDG_CURRENT_DESKTOP|$XDG_SESSION_TYPE|'
        '$ORVANE_WAYLAND_SESSION"; '
        'for name in org.gnome.Mutter.DisplayConfig org.kde.KWin org.freedesktop.portal.Desktop; do '
        'echo "name|$name|$(gdbus call --session --dest org.freedesktop.DBus '
        '--object-path /org/freedesktop/DBus --method org.freedesktop.DBus.NameHasOwner $name)"; '
        'done; '
        'gdbus call --session --dest org.gnome.Mutter.DisplayConfig '
        '--object-path /org/gnome/Mutter/DisplayConfig '
        '--method org.gnome.Mutter.DisplayConfig.GetCurrentState; '
        'exit 3')
    result = subprocess.run([str(RUN_IN_MUTTER_SESSION), "sh", "-c", script], capture_output=True,
                            text=True, timeout=120, stdin=subprocess.DEVNULL)
    assert result.returncode == 3, result.stderr
    env_line = next(line for line in result.stdout.splitlines() if line.startswith("env|"))
    _, wayland, display, desktop, session_type, marker = env_line.split("|")
    assert wayland.startswith("wayland-orvane-mutter-")
    assert (display, desktop, session_type) == ("none", "GNOME", "wayland")
    names = dict(line.split("|")[1:] for line in result.stdout.splitlines() if line.startswith("name|"))
    assert names == {"org.gnome.Mutter.DisplayConfig": "(true,)", "org.kde.KWin": "(false,)",
                     "org.freedesktop.portal.Desktop": "(false,)"}
    # One virtual monitor, 1600 x 1000, the current mode.
    assert re.search(r"\('1600x1000@[\d.]+', 1600, 1000, [\d.]+, [\d.]+, \[[^]]*\], \{'is-current': <true>",
                     result.stdout), result.stdout
    assert pids_with_env(f"ORVANE_WAYLAND_SESSION={marker}") == []
    kept = re.search(r"logs are kept in (\S+)", result.stderr)
    assert kept, result.stderr
    shutil.rmtree(kept.group(1), ignore_errors=True)


def test_a_native_window_shows_in_the_mutter_session(mutter_session, wayland_clients):
    native = wayland_clients.native_window(mutter_session, focused=False)
    assert native.info["backend"] == "GdkWaylandDisplay"
    assert native.info["pid"] == native.pid
    assert not mutter_session.name_has_owner("org.kde.KWin")
