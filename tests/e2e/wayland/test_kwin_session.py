"""The headless KWin session the Wayland tests run on: the session wrapper,
the application scope, key presses through fake-input reaching a native
Wayland client, a GlobalShortcuts portal shortcut firing while that client
is in front (and the client not seeing the key), and a KWin script
reporting the active window back over D-Bus."""

from __future__ import annotations

import os
import re
import shutil
import subprocess

import pytest

from wayland_harness import (
    APP_ID,
    IN_APP_SCOPE,
    PYTHON,
    REPO_ROOT,
    RUN_IN_KWIN_SESSION,
    fake_keys_binary,
    pids_with_env,
    wait_until,
)

SESSIONS_DIR = REPO_ROOT / "tests" / "wayland"


def _run(argv, timeout=120, **kwargs):
    return subprocess.run(argv, capture_output=True, text=True, timeout=timeout,
                          stdin=subprocess.DEVNULL, **kwargs)


# --------------------------------------------------------------------------
# the wrapper and the scope


def test_the_wrapper_runs_a_command_in_a_kwin_session_with_portals_and_ends_it_all():
    script = (
        'echo "env|$WAYLAND_DISPLAY|$DISPLAY|$XDG_CURRENT_DESKTOP|$XDG_SESSION_TYPE|'
        '$XDG_RUNTIME_DIR|$ORVANE_WAYLAND_SESSION|$DBUS_SESSION_BUS_ADDRESS"; '
        'for name in org.kde.KWin org.freedesktop.portal.Desktop '
        'org.freedesktop.impl.portal.desktop.kde org.kde.kglobalaccel; do '
        'echo "name|$name|$(gdbus call --session --dest org.freedesktop.DBus '
        '--object-path /org/freedesktop/DBus --method org.freedesktop.DBus.NameHasOwner $name)"; '
        'done; '
        'echo "x11|$(xdpyinfo >/dev/null 2>&1 && echo up)"; '
        'exit 7')
    result = _run([str(RUN_IN_KWIN_SESSION), "sh", "-c", script])
    assert result.returncode == 7, result.stderr
    env_line = next(line for line in result.stdout.splitlines() if line.startswith("env|"))
    _, wayland, display, desktop, session_type, runtime, marker, bus = env_line.split("|")
    assert wayland.startswith("wayland-orvane-kwin-")
    assert re.fullmatch(r":\d+", display)
    assert (desktop, session_type) == ("KDE", "wayland")
    assert runtime.startswith(marker) and bus.startswith("unix:")
    names = dict(line.split("|")[1:] for line in result.stdout.splitlines() if line.startswith("name|"))
    assert names == {name: "(true,)" for name in (
        "org.kde.KWin", "org.freedesktop.portal.Desktop",
        "org.freedesktop.impl.portal.desktop.kde", "org.kde.kglobalaccel")}
    assert "x11|up" in result.stdout, "XWayland did not answer on DISPLAY"
    # Everything the session started has been ended and its folder removed;
    # the failed run kept its logs and said where.
    assert not os.path.exists(marker)
    assert pids_with_env(f"ORVANE_WAYLAND_SESSION={marker}") == []
    assert pids_with_env(f"DBUS_SESSION_BUS_ADDRESS={bus}") == []
    kept = re.search(r"logs are kept in (\S+) \(compositor: (\S+)\)", result.stderr)
    assert kept, result.stderr
    try:
        assert os.path.getsize(kept.group(2)) > 0
    finally:
        shutil.rmtree(kept.group(1), ignore_errors=True)


def test_the_wrapper_ends_a_command_that_runs_past_its_time_out():
    result = _run([str(RUN_IN_KWIN_SESSION), "--timeout", "1", "--",
                   "sh", "-c", 'echo "marker|$ORVANE_WAYLAND_SESSION"; exec sleep 60'])
    assert result.returncode == 124, result.stderr
    marker = result.stdout.split("marker|", 1)[1].strip()
    assert pids_with_env(f"ORVANE_WAYLAND_SESSION={marker}") == []
    kept = re.search(r"logs are kept in (\S+)", result.stderr)
    assert kept, result.stderr
    shutil.rmtree(kept.group(1), ignore_errors=True)


def test_two_sessions_at_once_do_not_meet(kwin_session):
    # A second session started while one runs gets its own socket, display
    # and bus; the command in it sees only its own.
    mine = kwin_session.env()
    result = _run([str(RUN_IN_KWIN_SESSION), "sh", "-c",
                   'echo "$WAYLAND_DISPLAY|$DISPLAY|$DBUS_SESSION_BUS_ADDRESS"'])
    assert result.returncode == 0, result.stderr
    other = result.stdout.strip().split("|")
    assert other[0] != mine["WAYLAND_DISPLAY"]
    assert other[1] != mine["DISPLAY"]
    assert other[2] != mine["DBUS_SESSION_BUS_ADDRESS"]
    assert kwin_session.name_has_owner("org.kde.KWin")


def test_in_app_scope_runs_the_command_in_a_systemd_style_app_scope():
    probe = ("import os, sys; sys.path.insert(0, sys.argv[1]); import sessions; "
             "print(open('/proc/self/cgroup').read()); "
             "print('unit|%s' % sessions.systemd_unit_of(os.getpid()))")
    result = _run([str(IN_APP_SCOPE), APP_ID, PYTHON, "-c", probe, str(SESSIONS_DIR)])
    assert result.returncode == 0, result.stderr
    unit = re.search(r"unit\|(app-com\.tarnwick\.orvane-(\w+)\.scope)$", result.stdout, re.M)
    assert unit, result.stdout
    # libsystemd (what the portal asks) reads the scope from the cgroup path.
    path = f"/user.slice/user-{os.getuid()}.slice/user@{os.getuid()}.service/app.slice/{unit.group(1)}"
    assert path in result.stdout
    # The scope is gone afterwards.
    for root in ("/sys/fs/cgroup/unified", "/sys/fs/cgroup/systemd", "/sys/fs/cgroup"):
        assert not os.path.exists(root + path)
    # Its exit status is the command's; a bad app id is refused.
    assert _run([str(IN_APP_SCOPE), APP_ID, "sh", "-c", "exit 5"]).returncode == 5
    refused = _run([str(IN_APP_SCOPE), "../escape", "true"])
    assert refused.returncode == 125 and "unusable app id" in refused.stderr


# --------------------------------------------------------------------------
# keys, the portal, KWin scripting


def test_fake_keys_typing_reaches_the_native_window_in_front(kwin_session, wayland_clients):
    native = wayland_clients.native_window(kwin_session, text="start")
    assert native.info["backend"] == "GdkWaylandDisplay"
    kwin_session.press("end", "x", "shift+y", "space", "7")
    wait_until(lambda: native.texts() and native.texts()[-1] == "startxY 7",
               what="the typed text in the native window")
    assert native.key_names() == ["End", "x", "Shift_L", "Y", "space", "7"]


def test_the_native_window_owns_primary_with_its_selected_text(kwin_session, wayland_clients):
    wayland_clients.native_window(kwin_session, text="primary from a native window")
    result = kwin_session.run_tool("wl-paste", "--primary", "--no-newline", timeout=10)
    assert result.returncode == 0, result.stderr
    assert result.stdout == "primary from a native window"


def test_fake_keys_refuses_what_it_cannot_press(kwin_session):
    binary = str(fake_keys_binary())
    bad = kwin_session.run_tool(binary, "alt+bogus")
    assert bad.returncode == 2 and 'unknown key "bogus"' in bad.stderr
    env = kwin_session.tool_env()
    env["WAYLAND_DISPLAY"] = "wayland-orvane-no-such-socket"
    unreachable = subprocess.run([binary, "a"], env=env, capture_output=True, text=True, timeout=10)
    assert unreachable.returncode == 1 and "cannot connect" in unreachable.stderr


def test_a_portal_shortcut_fires_while_a_native_window_is_in_front_which_never_sees_the_key(
        kwin_session, wayland_clients, app_scope):
    shortcuts = wayland_clients.shortcuts_client(kwin_session, {"summon": "ALT+b"}, scope=app_scope)
    # The portal knew the app id from the scope: kglobalaccel's component is
    # the app id followed by the session token.
    assert "/component/com_tarnwick_orvaneorvane_e2e" in kwin_session.shortcut_components()
    registered = {sid: props for sid, props in shortcuts.result["created"]["shortcuts"]}
    assert registered["summon"]["trigger_description"] == "Alt+B"
    native = wayland_clients.native_window(kwin_session, text="front")

    kwin_session.press("alt+b")
    shortcuts.wait_for_activation("summon")
    # The window in front was receiving keys all along (it saw the Alt key
    # and sees the next key), but not the B.
    kwin_session.press("x")
    wait_until(lambda: "x" in native.key_names(), what="the next key in the native window")
    names = native.key_names()
    assert "Alt_L" in names
    assert "b" not in names and "B" not in names
    assert native.texts()[-1:] == ["x"]


def test_without_an_app_scope_the_portal_gets_no_app_id(kwin_session, wayland_clients):
    # The control for the test above: the same client outside any scope
    # registers a component named after the token alone.
    wayland_clients.shortcuts_client(kwin_session, {"summon": "ALT+b"}, scope=None)
    components = kwin_session.shortcut_components()
    assert "/component/orvane_e2e" in components
    assert not any("tarnwick" in c for c in components)


def test_a_kwin_script_reports_the_active_window_over_dbus(kwin_session, wayland_clients):
    sink = wayland_clients.script_sink(kwin_session)
    native = wayland_clients.native_window(kwin_session, title="Orvane E2E scripted")
    report = kwin_session.run_script("""
        var c = workspace.activeClient;
        var r = c ? {pid: c.pid, caption: c.caption, resourceClass: String(c.resourceClass),
                     frame: {x: c.frameGeometry.x, y: c.frameGeometry.y,
                             width: c.frameGeometry.width, height: c.frameGeometry.height}}
                  : null;
        callDBus("org.tarnwick.OrvaneE2E.ScriptSink", "/ScriptSink",
                 "org.tarnwick.OrvaneE2E.ScriptSink", "Report", JSON.stringify(r));
    """, sink)
    active = report["value"]
    assert active is not None, "KWin reported no active window"
    assert active["pid"] == native.pid == native.info["pid"]
    assert active["caption"] == "Orvane E2E scripted"
    frame = active["frame"]
    # On one of the two 1600 x 1000 outputs, at least the window's own size.
    assert 0 <= frame["x"] < 3200 and 0 <= frame["y"] < 1000
    assert frame["width"] >= 640 and frame["height"] >= 200
    # The report came from KWin's own connection.
    assert report["sender"] == kwin_session.name_owner("org.kde.KWin")


def test_all_four_chords_can_be_portal_shortcuts_in_one_session(kwin_session, wayland_clients, app_scope):
    # Orvane's four hotkeys as one portal session: each fires, none reaches
    # the native window in front.
    triggers = {"summon": "ALT+b", "copy": "ALT+c", "quote": "ALT+q", "paste": "ALT+v"}
    shortcuts = wayland_clients.shortcuts_client(kwin_session, triggers, scope=app_scope)
    registered = {sid: props["trigger_description"] for sid, props in shortcuts.result["bound"]["shortcuts"]}
    assert registered == {"summon": "Alt+B", "copy": "Alt+C", "quote": "Alt+Q", "paste": "Alt+V"}
    native = wayland_clients.native_window(kwin_session, text="front")
    for chord, shortcut in (("alt+b", "summon"), ("alt+c", "copy"), ("alt+q", "quote"), ("alt+v", "paste")):
        kwin_session.press(chord)
        shortcuts.wait_for_activation(shortcut)
    kwin_session.press("x")
    wait_until(lambda: "x" in native.key_names(), what="the next key in the native window")
    assert not {"b", "c", "q", "v", "B", "C", "Q", "V"} & set(native.key_names()), native.key_names()
    assert [s["shortcut"] for s in shortcuts.signals("Activated")] == ["summon", "copy", "quote", "paste"]
