"""Orvane's GNOME Shell extension in a real headless gnome-shell 43: its D-Bus
interface as the owner of com.tarnwick.orvane sees it, as any other caller
sees it, and with real native Wayland GTK windows and keys pressed through
org.gnome.Mutter.RemoteDesktop."""

from __future__ import annotations

import json
import os
import signal
import subprocess
import time

import pytest
from gi.repository import Gio, GLib

from pathlib import Path

from conftest import HERE, ORVANE_NAME, PYTHON, REPO, NativeWindow, Peer, pump
from harness import wait_until
from sessions import GnomeSession

NOT_ALLOWED = "com.tarnwick.orvane.Shell.Error.NotAllowed"
UNKNOWN_ID = 987654321
XML = REPO / "gnome-shell" / "com.tarnwick.orvane.Shell.xml"


def remote_error(exc: GLib.Error) -> str:
    return Gio.DBusError.get_remote_error(exc) or ""


def shell_alive(gnome: GnomeSession) -> bool:
    return gnome.shell is not None and gnome.shell.poll() is None


def interface_methods() -> list[tuple[str, str]]:
    """(method, in-signature) of every method of the interface."""
    node = Gio.DBusNodeInfo.new_for_xml(XML.read_text(encoding="utf-8"))
    (interface,) = node.interfaces
    return [(m.name, "".join(a.signature for a in m.in_args)) for m in interface.methods]


DUMMY = {"t": 1, "i": 0, "u": 0, "s": "ctrl-c", "a(say)": [("text/plain", b"x")]}


def dummy_args(signature: str) -> tuple:
    args = []
    for code in GLib.Variant.split_signature(f"({signature})"):
        args.append(DUMMY[code])
    return tuple(args)


def saved_clipboard(owner) -> dict[str, bytes]:
    saved = owner.save_clipboard()
    types = [mimetype for mimetype, _ in saved]
    assert len(types) == len(set(types)), types
    return dict(saved)


def frame(window: dict) -> tuple[int, int, int, int]:
    return (window["x"], window["y"], window["width"], window["height"])


def test_version_and_the_four_hotkeys_bound(owner):
    assert owner.call("Version") == (2,)
    assert owner.call("BindHotkeys") == (
        {"summon": True, "quote": True, "friend-quote": True, "talk": True},)
    # Asked again, they stay bound (and are not bound twice).
    assert owner.call("BindHotkeys") == (
        {"summon": True, "quote": True, "friend-quote": True, "talk": True},)


def test_every_method_refuses_a_caller_that_does_not_own_the_name(gnome, owner, stranger):
    methods = interface_methods()
    assert len(methods) == 18, methods
    for method, signature in methods:
        with pytest.raises(GLib.Error) as caught:
            stranger.call(method, f"({signature})" if signature else None,
                          *dummy_args(signature))
        assert remote_error(caught.value) == NOT_ALLOWED, (method, caught.value.message)
    line = (f"Orvane: refused {methods[0][0]} from {stranger.unique_name}: "
            f"it does not own {ORVANE_NAME}")
    assert line in gnome.compositor_log.read_text(errors="replace")
    # Logged once per caller, not once per call.
    assert gnome.compositor_log.read_text(errors="replace").count(
        f"from {stranger.unique_name}:") == 1
    # The stranger got no signal either, and the owner is still answered.
    assert stranger.hotkeys() == []
    assert owner.call("Version") == (2,)


def test_the_four_hotkeys_reach_the_owner_and_not_the_native_window(gnome, owner, stranger, native):
    assert owner.call("BindHotkeys")[0]["summon"] is True
    window = native(title="Orvane GNOME hotkeys")
    before = len(owner.hotkeys())
    for chord in ("alt+b", "alt+c", "alt+q", "alt+v"):
        gnome.press(chord)
    wait_until(lambda: len(owner.hotkeys()) >= before + 4, timeout=10,
               what="four HotkeyPressed signals at the owner")
    got = owner.hotkeys()[before:]
    assert [name for name, _ in got] == ["summon", "quote", "friend-quote", "talk"]
    assert all(timestamp > 0 for _, timestamp in got)
    # The window saw the Alt presses, none of the letters.
    pump(0.3)
    assert not {"b", "c", "q", "v", "B", "C", "Q", "V"} & set(window.keys()), window.keys()
    assert "Alt_L" in window.keys()
    # A unicast signal: a bystander on the bus saw none of them.
    assert stranger.hotkeys() == []


def set_hotkey(gnome: GnomeSession, name: str, accelerators: str) -> None:
    """Changes a hotkey in the extension's settings as the README says to:
    gsettings, with the installed extension's schemas."""
    schemas = gnome.root / "data" / "gnome-shell" / "extensions" / "orvane@tarnwick.com" / "schemas"
    subprocess.run(["gsettings", "--schemadir", str(schemas), "set",
                    "org.gnome.shell.extensions.orvane", name, accelerators],
                   env=gnome.command_env(), check=True, timeout=10)


def test_a_hotkey_changed_in_the_settings_is_grabbed_anew(gnome, owner, native):
    assert owner.call("BindHotkeys")[0]["summon"] is True
    window = native(title="Orvane GNOME changed hotkey")
    set_hotkey(gnome, "summon", "['<Super>b']")
    try:
        before = len(owner.hotkeys())
        # The old chord is given up: it reaches the window.
        wait_until(lambda: gnome.press("alt+b") and "b" in window.keys(), timeout=10,
                   what="Alt+B to reach the window once the hotkey has moved")
        assert len(owner.hotkeys()) == before
        gnome.press("super+b")
        wait_until(lambda: len(owner.hotkeys()) > before, timeout=10,
                   what="the new chord's HotkeyPressed at the owner")
        assert [name for name, _ in owner.hotkeys()[before:]] == ["summon"]
    finally:
        set_hotkey(gnome, "summon", "['<Alt>b']")
    before = len(owner.hotkeys())
    wait_until(lambda: gnome.press("alt+b") and len(owner.hotkeys()) > before, timeout=10,
               what="Alt+B to summon again once the hotkey is back")
    # Signals of the last presses still on their way land here, not in a
    # later test's count.
    pump(0.5)


def test_front_window_and_the_window_lists(owner, native):
    window = native(title="Orvane GNOME front")
    (front,) = owner.call("FrontWindow")
    assert set(front) == {"id", "pid", "wm_class", "wm_instance", "app_id", "title", "x", "y",
                          "width", "height", "normal", "full_screen", "maximized", "focused",
                          "on_active_workspace"}
    assert front["pid"] == window.pid
    assert front["title"] == "Orvane GNOME front"
    # A Wayland client: no WM_CLASS instance; no desktop file matches it.
    assert front["wm_instance"] == "" and front["app_id"] == ""
    assert front["wm_class"] == "orvane-e2e-native"
    assert front["focused"] is True and front["normal"] is True
    assert front["full_screen"] is False and front["on_active_workspace"] is True
    assert front["width"] > 100 and front["height"] > 20
    assert owner.call("Window", "(t)", front["id"]) == (front,)
    (of_pid,) = owner.call("WindowsOfPid", "(i)", window.pid)
    assert [w["id"] for w in of_pid] == [front["id"]]
    (every,) = owner.call("ListWindows")
    assert front["id"] in [w["id"] for w in every]
    ids = [w["id"] for w in every]
    assert ids == sorted(ids) or len(set(ids)) == len(ids)


def test_activate_gives_another_window_the_keyboard(owner, native):
    first = native(title="Orvane GNOME first")
    second = native(title="Orvane GNOME second")
    (of_first,) = owner.call("WindowsOfPid", "(i)", first.pid)
    wait_until(lambda: owner.call("FrontWindow")[0].get("pid") == second.pid, timeout=10,
               what="the second window in front")
    assert owner.call("Activate", "(tu)", of_first[0]["id"], 0) == (True,)
    wait_until(lambda: owner.call("FrontWindow")[0].get("pid") == first.pid, timeout=10,
               what="the first window in front after Activate")


def test_monitors_are_the_two_virtual_ones(owner):
    monitors, primary = owner.call("Monitors")
    assert [m[:4] for m in monitors] == [(0, 0, 1600, 1000), (1600, 0, 1280, 800)]
    assert primary == 0
    for m in monitors:
        x, y, w, h, wx, wy, ww, wh = m
        assert x <= wx and y <= wy and wx + ww <= x + w and wy + wh <= y + h and ww > 0 and wh > 0
    # The top bar takes the top of the primary monitor only.
    assert monitors[0][5] > 0 and monitors[1][5] == 0
    x, y = owner.call("Pointer")
    assert 0 <= x < 2880 and 0 <= y < 1000


def test_move_resize_onto_the_second_monitor(owner, native):
    window = native(title="Orvane GNOME moved")
    (front,) = owner.call("FrontWindow")
    assert front["pid"] == window.pid
    target = (1600 + 120, 90, 700, 450)
    ok, moved = owner.call("MoveResize", "(tiiii)", front["id"], *target)
    assert ok is True
    assert frame(moved) == target
    (read_back,) = owner.call("Window", "(t)", front["id"])
    assert frame(read_back) == target


def test_move_resize_leaves_maximized_and_full_screen_first(gnome, owner, native):
    window = native(title="Orvane GNOME states")
    (front,) = owner.call("FrontWindow")
    assert front["pid"] == window.pid
    window_id = front["id"]

    def state():
        return owner.call("Window", "(t)", window_id)[0]

    gnome.press("super+up")
    wait_until(lambda: state()["maximized"], timeout=10, what="the window maximised")
    target = (200, 150, 600, 400)
    ok, moved = owner.call("MoveResize", "(tiiii)", window_id, *target)
    assert ok is True and moved["maximized"] is False and frame(moved) == target

    gnome.press("super+f")
    wait_until(lambda: state()["full_screen"] and frame(state()) == (0, 0, 1600, 1000),
               timeout=10, what="the window full screen over the first monitor")
    assert owner.call("LeaveFullScreen", "(t)", window_id) == (True,)
    wait_until(lambda: not state()["full_screen"], timeout=10, what="the window out of full screen")

    gnome.press("super+f")
    wait_until(lambda: state()["full_screen"], timeout=10, what="the window full screen again")
    target = (1600 + 40, 300, 500, 300)
    ok, moved = owner.call("MoveResize", "(tiiii)", window_id, *target)
    assert ok is True and moved["full_screen"] is False and frame(moved) == target


def start_held_window(gnome: GnomeSession, state: Path, hold_ms: int, *target: int) -> subprocess.Popen:
    """held_window.py: a window the shell lists some time before it is shown."""
    env = gnome.command_env()
    env["GDK_BACKEND"] = "wayland"
    return subprocess.Popen([PYTHON, str(HERE / "held_window.py"), str(state), str(hold_ms),
                             *map(str, target)], env=env, stdin=subprocess.DEVNULL,
                            start_new_session=True)


def stop_held_window(client: subprocess.Popen) -> None:
    client.terminate()
    try:
        client.wait(5)
    except subprocess.TimeoutExpired:
        client.kill()
        client.wait(5)


def test_a_frame_asked_before_the_shell_shows_a_window_is_where_it_is_shown(gnome, owner, tmp_path):
    # The shell places a window when it first shows it; a frame set before
    # that would be overridden by the shell's own placement.
    client = start_held_window(gnome, tmp_path / "held", 1500)
    try:
        wait_until(lambda: (tmp_path / "held" / "held.json").exists(), timeout=15,
                   what="held_window.py to hold its first frame")
        listed = wait_until(lambda: owner.call("WindowsOfPid", "(i)", client.pid)[0], timeout=5,
                            what="the held window in the shell's list")
        assert (listed[0]["width"], listed[0]["height"]) == (0, 0), "shown before the move"
        target = (1600 + 150, 120, 500, 350)
        ok, moved = owner.call("MoveResize", "(tiiii)", listed[0]["id"], *target)
        assert ok is True and frame(moved) == target
        (read_back,) = owner.call("Window", "(t)", listed[0]["id"])
        assert frame(read_back) == target
    finally:
        stop_held_window(client)


def test_the_callers_own_window_asked_a_frame_before_it_is_shown_is_shown_there(gnome, owner, tmp_path):
    owner.release()
    state = tmp_path / "own"
    target = (1600 + 300, 200, 450, 320)
    client = start_held_window(gnome, state, 1000, *target)
    try:
        moved = wait_until(lambda: json.loads((state / "moved.json").read_text()), timeout=15,
                           what="held_window.py's MoveResize answer")
        assert moved.get("error") is None, moved
        assert moved["pid"] == client.pid and moved["ok"] is True
        shown = wait_until(lambda: tuple(json.loads((state / "frame.json").read_text())) == target,
                           timeout=5, what="the held window shown at the frame it asked for")
        assert shown
        # It stays there: the shell's placement came before the move.
        time.sleep(0.3)
        assert tuple(json.loads((state / "frame.json").read_text())) == target
    finally:
        stop_held_window(client)
        wait_until(lambda: not gnome.name_has_owner(ORVANE_NAME), timeout=5,
                   what="held_window.py to let go of the name")
        owner.own()


def test_primary_text_after_ctrl_a_in_a_native_entry(gnome, owner, native):
    native(text="primary words from GTK", title="Orvane GNOME primary")
    gnome.press("ctrl+a")
    wait_until(lambda: owner.call("PrimaryText") == (True, "primary words from GTK"), timeout=10,
               what="PRIMARY to hold the entry's text")


def test_send_copy_chord_copies_from_a_native_entry_and_the_clipboard_round_trips(gnome, owner, native):
    window = native(text="copied by the shell's keyboard", title="Orvane GNOME copy")
    gnome.press("ctrl+a")
    (count_before,) = owner.call("ClipboardChangeCount")
    assert owner.call("SendCopyChord", "(s)", "ctrl-c") == (True,)
    wait_until(lambda: owner.call("ClipboardText") == (True, "copied by the shell's keyboard"),
               timeout=10, what="the CLIPBOARD to hold the copied text")
    assert owner.call("ClipboardChangeCount")[0] > count_before
    # The keys reached the window as a Ctrl+C.
    assert any(k == "c" for k in window.keys())

    # Save what GTK put there, overwrite it, restore it.
    saved = saved_clipboard(owner)
    assert saved.get("text/plain;charset=utf-8") == "copied by the shell's keyboard".encode()
    assert owner.restore_clipboard([("text/plain;charset=utf-8", b"something else")]) == (True,)
    wait_until(lambda: owner.call("ClipboardText") == (True, "something else"), timeout=5,
               what="the overwritten CLIPBOARD")
    assert owner.restore_clipboard(list(saved.items())) == (True,)
    wait_until(lambda: owner.call("ClipboardText") == (True, "copied by the shell's keyboard"),
               timeout=5, what="the restored CLIPBOARD")
    again = saved_clipboard(owner)
    # What survives on GNOME 43: the text, byte for byte, as one type (the
    # shell's own selection source offers a single MIME type).
    assert list(again) == ["text/plain;charset=utf-8"]
    assert again["text/plain;charset=utf-8"] == saved["text/plain;charset=utf-8"]


def test_send_copy_chord_types_ctrl_shift_c_for_terminals(owner, native):
    window = native(title="Orvane GNOME terminal-like")
    assert owner.call("SendCopyChord", "(s)", "ctrl-shift-c") == (True,)
    wait_until(lambda: [k for k in window._lines("keys.jsonl")
                        if k["key"] in ("c", "C") and k["ctrl"] and k["shift"] and not k["alt"]],
               timeout=10, what="Ctrl+Shift+C at the window")


def test_send_copy_chord_waits_for_held_modifiers_and_gives_up(gnome, owner, native):
    window = native(title="Orvane GNOME held Alt")
    gnome.press("down alt")
    try:
        started = time.monotonic()
        assert owner.call("SendCopyChord", "(s)", "ctrl-c") == (False,)
        assert time.monotonic() - started >= 0.4
    finally:
        gnome.press("up alt")
    assert "Orvane: SendCopyChord: a modifier key is still held; not typing" in \
        gnome.compositor_log.read_text(errors="replace")
    pump(0.2)
    assert "c" not in window.keys()
    # With Alt let go, the same call types the chord.
    assert owner.call("SendCopyChord", "(s)", "ctrl-c") == (True,)
    wait_until(lambda: "c" in window.keys(), timeout=10, what="Ctrl+C at the window")


def test_a_frozen_selection_owner_costs_a_bounded_wait(gnome, owner, native):
    window = native(text="frozen owner", title="Orvane GNOME frozen")
    gnome.press("ctrl+a")
    assert owner.call("SendCopyChord", "(s)", "ctrl-c") == (True,)
    wait_until(lambda: owner.call("ClipboardText") == (True, "frozen owner"), timeout=10,
               what="the CLIPBOARD to hold the copied text")
    wait_until(lambda: owner.call("PrimaryText") == (True, "frozen owner"), timeout=10,
               what="PRIMARY to hold the selected text")
    os.kill(window.pid, signal.SIGSTOP)
    try:
        started = time.monotonic()
        assert owner.call("ClipboardText", timeout_ms=20000) == (False, "")
        assert owner.call("PrimaryText", timeout_ms=20000) == (False, "")
        assert owner.save_clipboard() == []
        assert time.monotonic() - started < 15
        assert owner.call("Version") == (2,)
    finally:
        os.kill(window.pid, signal.SIGCONT)
    log = gnome.compositor_log.read_text(errors="replace")
    assert "Orvane: reading a selection took too long; answering without text" in log
    assert "Orvane: SaveClipboard: text/plain;charset=utf-8 took too long; left out" in log
    # Thawed, the owner answers again.
    wait_until(lambda: owner.call("ClipboardText") == (True, "frozen owner"), timeout=10,
               what="the thawed owner's CLIPBOARD")


def test_clipboard_restores_binary_data_byte_for_byte(owner):
    blob = bytes(range(256)) * 4096 + b"\x00end"
    assert owner.restore_clipboard([("application/x-orvane-test", blob)]) == (True,)
    assert saved_clipboard(owner) == {"application/x-orvane-test": blob}
    assert owner.call("ClipboardText") == (False, "")


def test_hostile_input_is_refused_and_the_shell_stays_up(gnome, owner, native):
    window = native(title="Orvane GNOME hostile")
    (front,) = owner.call("FrontWindow")
    assert front["pid"] == window.pid
    assert owner.restore_clipboard([("text/plain;charset=utf-8", b"kept")]) == (True,)
    (count,) = owner.call("ClipboardChangeCount")

    assert owner.call("SendCopyChord", "(s)", "ctrl-alt-delete") == (False,)
    assert owner.call("SendCopyChord", "(s)", "") == (False,)
    assert owner.call("SendCopyChord", "(s)", "ctrl-c" * 10000) == (False,)
    assert owner.call("Window", "(t)", UNKNOWN_ID) == ({},)
    assert owner.call("Window", "(t)", 0) == ({},)
    assert owner.call("Window", "(t)", 2**64 - 1) == ({},)
    assert owner.call("MoveResize", "(tiiii)", UNKNOWN_ID, 0, 0, 100, 100) == (False, {})
    for bad in [(0, 0, 0, 100), (0, 0, 100, -5), (0, 0, 2**31 - 1, 100), (-2**31, 0, 100, 100)]:
        assert owner.call("MoveResize", "(tiiii)", front["id"], *bad) == (False, {}), bad
    assert owner.call("Activate", "(tu)", UNKNOWN_ID, 0) == (False,)
    assert owner.call("LeaveFullScreen", "(t)", UNKNOWN_ID) == (False,)
    assert owner.call("MakePanel", "(t)", UNKNOWN_ID) == (False,)
    # Not the caller's window: the native window belongs to another process.
    assert owner.call("MakePanel", "(t)", front["id"]) == (False,)
    assert owner.call("WindowsOfPid", "(i)", -5) == ([],)
    assert owner.call("WindowsOfPid", "(i)", 0) == ([],)

    restore = owner.restore_clipboard
    assert restore([]) == (False,)
    assert restore([(f"application/x-type-{n}", b"x") for n in range(5000)]) == (False,)
    assert restore([("application/x-huge", b"\xab" * (40 * 1024 * 1024))]) == (False,)
    assert restore([("text/plain\nX-Evil: 1", b"x")]) == (False,)
    assert restore([("", b"x")]) == (False,)
    assert restore([("text/plain", b"a"), ("text/plain", b"b")]) == (False,)
    assert restore([("x/" + "y" * 300, b"x")]) == (False,)

    assert shell_alive(gnome)
    assert owner.call("Version") == (2,)
    # None of the refused restores took the CLIPBOARD.
    assert owner.call("ClipboardChangeCount") == (count,)
    assert owner.call("ClipboardText") == (True, "kept")


def test_make_panel_for_the_callers_own_window(gnome, owner, tmp_path):
    owner.release()
    env = gnome.command_env()
    env["GDK_BACKEND"] = "wayland"
    state = tmp_path / "panel"
    client = subprocess.Popen([PYTHON, str(HERE / "panel_client.py"), str(state)], env=env,
                              stdin=subprocess.DEVNULL, start_new_session=True)
    try:
        result = wait_until(lambda: json.loads((state / "panel.json").read_text()), timeout=15,
                            what="panel_client.py's MakePanel answer")
        assert result.get("error") is None, result
        assert result["pid"] == client.pid and result["ok"] is True
    finally:
        client.terminate()
        client.wait(5)
        wait_until(lambda: not gnome.name_has_owner(ORVANE_NAME), timeout=5,
                   what="panel_client.py to let go of the name")
        owner.own()
    assert owner.call("BindHotkeys")[0]["summon"] is True


def test_hotkeys_are_dropped_when_the_name_has_no_owner(gnome, owner, native):
    assert owner.call("BindHotkeys")[0]["summon"] is True
    window = native(title="Orvane GNOME unbound")
    owner.release()
    try:
        before = len(owner.hotkeys())
        gnome.press("alt+b")
        wait_until(lambda: "b" in window.keys(), timeout=10,
                   what="Alt+B to reach the window once Orvane has gone")
        assert len(owner.hotkeys()) == before
    finally:
        owner.own()
    assert owner.call("BindHotkeys") == (
        {"summon": True, "quote": True, "friend-quote": True, "talk": True},)


# Last of the tests in the shared session: the layout it changes and puts
# back is a reconfiguration of the shell the others need not see.
def test_a_changed_layout_is_told_to_the_owner_alone(owner, stranger):
    before = len(owner.signals_named("MonitorsChanged"))
    owner.move_second_monitor(100)
    try:
        wait_until(lambda: len(owner.signals_named("MonitorsChanged")) > before, timeout=10,
                   what="MonitorsChanged at the owner")
        monitors, _ = owner.call("Monitors")
        assert [m[:4] for m in monitors] == [(0, 0, 1600, 1000), (1600, 100, 1280, 800)]
    finally:
        owner.move_second_monitor(-100)
    wait_until(lambda: [m[:4] for m in owner.call("Monitors")[0]][1] == (1600, 0, 1280, 800),
               timeout=10, what="the second monitor back in its place")
    # A unicast signal: a bystander on the bus saw none.
    assert stranger.signals_named("MonitorsChanged") == []


def test_a_disabled_extension_answers_nothing_until_enabled(tmp_path):
    tmp = tmp_path
    with GnomeSession(enable_extension=False) as session:
        peer = Peer(session)
        try:
            peer.own()
            with pytest.raises(GLib.Error):
                peer.call("Version")
            assert "Orvane" not in session.compositor_log.read_text(errors="replace")
            result = session.shell_call("org.gnome.Shell.Extensions", "EnableExtension",
                                        "orvane@tarnwick.com")
            assert result.returncode == 0 and "true" in result.stdout, result
            assert wait_until(lambda: _answers(peer), timeout=10, what="the enabled extension")

            # Disabled again (as GNOME 43 does when the screen locks), it lets
            # go of its keys and its interface; enabled, it binds them anew.
            assert peer.call("BindHotkeys")[0]["summon"] is True
            window = NativeWindow(session, Path(tmp) / "cycle", "cycle", "Orvane GNOME cycle")
            try:
                result = session.shell_call("org.gnome.Shell.Extensions", "DisableExtension",
                                            "orvane@tarnwick.com")
                assert result.returncode == 0 and "true" in result.stdout, result
                wait_until(lambda: not _answers(peer), timeout=10, what="the disabled extension")
                session.press("alt+b")
                wait_until(lambda: "b" in window.keys(), timeout=10,
                           what="Alt+B at the window while the extension is disabled")
                assert peer.hotkeys() == []
                result = session.shell_call("org.gnome.Shell.Extensions", "EnableExtension",
                                            "orvane@tarnwick.com")
                assert result.returncode == 0 and "true" in result.stdout, result
                wait_until(lambda: _answers(peer), timeout=10, what="the extension enabled again")
                assert peer.call("BindHotkeys") == (
                    {"summon": True, "quote": True, "friend-quote": True, "talk": True},)
                session.press("alt+b")
                wait_until(lambda: peer.hotkeys() == [("summon", peer.hotkeys()[0][1])]
                           if peer.hotkeys() else False, timeout=10, what="summon after the cycle")
                assert window.keys().count("b") == 1
            finally:
                window.stop()
            log = session.compositor_log.read_text(errors="replace")
            assert "JS ERROR" not in log and "Orvane: " not in log, log[-3000:]
        finally:
            peer.close()


def _answers(peer: Peer) -> bool:
    try:
        return peer.call("Version") == (2,)
    except GLib.Error:
        return False
