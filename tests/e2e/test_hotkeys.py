"""The global hotkeys: the launch's hotkeys line, a second instance that
cannot grab the chords, ⌥B from the keyboard (with Caps Lock on too), and the
"send-quote-to-friend" action reached from outside with `gapplication`."""

from __future__ import annotations

import contextlib
import os

import pytest

from harness import APP_ID, Orvane, holds_for, wait_until

ALL_REGISTERED = "hotkeys: ⌥B registered, ⌥C registered, ⌥Q registered, ⌥V registered"


def _launch_and_wait(home, site, launch) -> Orvane:
    home.write_settings(AppURL=site.url)
    orvane = launch()
    orvane.wait_for_window("library")
    home.wait_for_log(lambda m: m.startswith("hotkeys:"))
    return orvane


def _lock_state(desktop, name: str) -> str:
    out = desktop.run_tool("xset", "q").stdout
    after = out.split(f"{name}:", 1)[1].split()
    return after[0]


@contextlib.contextmanager
def _lock_on(desktop, key: str, name: str):
    """Turns a lock key on for the block and off again afterwards (the
    display is shared by the whole session)."""
    # Pressed without clearing modifiers, so the lock state travels with
    # the presses made in the block.
    if _lock_state(desktop, name) != "on":
        desktop.press(key)
    wait_until(lambda: _lock_state(desktop, name) == "on", 10, what=f"{name} on")
    try:
        yield
    finally:
        if _lock_state(desktop, name) == "on":
            desktop.press(key)
        wait_until(lambda: _lock_state(desktop, name) == "off", 10, what=f"{name} off")


def test_hotkeys_line_is_written_right_after_the_accessibility_line(home, site, launch):
    _launch_and_wait(home, site, launch)
    messages = home.log_messages()
    assert messages[0].startswith("=== Orvane "), messages
    assert messages[1].startswith("accessibility trusted: "), messages
    assert messages[2] == ALL_REGISTERED, messages
    assert sum(m.startswith("hotkeys:") for m in messages) == 1


def test_alt_b_shows_the_panel_with_the_keyboard_and_again_hides_it(home, site, desktop, launch):
    orvane = _launch_and_wait(home, site, launch)
    desktop.press("alt+b")
    panel = orvane.wait_for_window("quick-panel")
    home.wait_for_log(lambda m: m.startswith("panel shown:"))
    # Presented with the key press's time, so openbox gives it the focus.
    wait_until(lambda: desktop.focused_window() == panel, 10,
               what="the quick panel to have the keyboard focus")
    # No selection is captured yet, so no "hotkey:" line and no "add=".
    assert not [m for m in home.log_messages() if m.startswith("hotkey: ")]
    # Above other windows and on every workspace.
    state = desktop.window_property(panel, "_NET_WM_STATE") or ""
    assert "_NET_WM_STATE_ABOVE" in state, state
    assert desktop.window_property(panel, "_NET_WM_DESKTOP") == "4294967295"

    # Pressed again while the panel has the keyboard: hidden, once; the
    # menu's Alt+B does not fire as well and show it again.
    shown = sum(m.startswith("panel shown:") for m in home.log_messages())
    desktop.press("alt+b")
    orvane.wait_window_hidden(panel)
    assert holds_for(lambda: not orvane.windows("quick-panel"), 1.5)
    assert sum(m.startswith("panel shown:") for m in home.log_messages()) == shown


@pytest.mark.parametrize("lock_key, lock_name", [("Caps_Lock", "Caps Lock"),
                                                 ("Num_Lock", "Num Lock")])
def test_alt_b_fires_with_a_lock_key_on(home, site, desktop, launch, lock_key, lock_name):
    orvane = _launch_and_wait(home, site, launch)
    with _lock_on(desktop, lock_key, lock_name):
        desktop.press("alt+b")
        orvane.wait_for_window("quick-panel")
        home.wait_for_log(lambda m: m.startswith("panel shown:"))


def test_send_quote_to_friend_action_quotes_the_clipboard(home, site, desktop, launch, clients):
    _launch_and_wait(home, site, launch)
    text = "a “quoted” line"
    clients.clipboard_owner({"UTF8_STRING": text.encode(), "text/plain;charset=utf-8": text.encode()})
    wait_until(lambda: desktop.read_selection("clipboard") == text.encode(),
               10, what="the clipboard to hold the text")
    result = desktop.run_tool("gapplication", "action", APP_ID, "send-quote-to-friend")
    assert result.returncode == 0, result.stderr
    home.wait_for_log(f"friend-quote: {len(text)} chars via the Services menu")
    # No PDF viewer is open, so there is no focused document.
    home.wait_for_log("friend-quote: focused document (none) is not a library PDF")


def test_send_quote_to_friend_with_an_empty_clipboard(home, site, desktop, launch):
    _launch_and_wait(home, site, launch)
    result = desktop.run_tool("gapplication", "action", APP_ID, "send-quote-to-friend")
    assert result.returncode == 0, result.stderr
    home.wait_for_log("friend-quote: 0 chars via the Services menu")
    home.wait_for_log("friend-quote: focused document (none) is not a library PDF")


def test_hostile_action_parameters_are_refused_and_the_program_stays_up(home, site, desktop,
                                                                          launch):
    orvane = _launch_and_wait(home, site, launch)
    # The action takes no parameter; a call with one is refused by GIO.
    desktop.run_tool("gapplication", "action", APP_ID, "send-quote-to-friend", "'x' * 3")
    desktop.run_tool("gapplication", "action", APP_ID, "send-quote-to-friend", "[1, 2]")
    desktop.run_tool("gapplication", "action", APP_ID, "no-such-action")
    assert holds_for(orvane.running, 1.0)
    assert not [m for m in home.log_messages() if "via the Services menu" in m]
    result = desktop.run_tool("gapplication", "action", APP_ID, "send-quote-to-friend")
    assert result.returncode == 0, result.stderr
    home.wait_for_log(lambda m: "via the Services menu" in m)


def test_every_summon_gives_the_panel_the_keyboard(home, site, desktop, launch, clients):
    # The user types in another window right before each press, so the
    # window manager's focus-stealing prevention weighs every summon against
    # fresh input elsewhere.
    orvane = _launch_and_wait(home, site, launch)
    window = clients.text_window("where the user was typing")
    for n in range(1, 21):
        desktop.activate_and_focus(window.window)
        desktop.press("shift")
        desktop.press("alt+b")
        panel = orvane.wait_for_window("quick-panel")
        wait_until(lambda: desktop.focused_window() == panel, 10,
                   what=f"the quick panel to have the keyboard after press {n}")
        # And keeps it: the summon's own activation, however late, is not
        # a reopen that brings the library window to the front.
        assert holds_for(lambda: desktop.focused_window() == panel, 0.7), \
            f"press {n}: the keyboard went to {desktop.focused_window()}, not the panel {panel}"
        assert desktop.active_window() == panel
        desktop.press("alt+b")
        orvane.wait_window_hidden(panel)


def _web_processes(orvane: Orvane) -> list[int]:
    """WebKit's web processes among Orvane's children (the network process
    and anything else it started are left out)."""
    found = []
    for name in os.listdir("/proc"):
        if not name.isdigit():
            continue
        try:
            with open(f"/proc/{name}/stat", "rb") as fh:
                fields = fh.read().rsplit(b")", 1)[1].split()
            with open(f"/proc/{name}/comm", "rb") as fh:
                comm = fh.read().strip()
        except OSError:
            continue
        if int(fields[1]) == orvane.proc.pid and fields[0] != b"Z" and comm.startswith(b"WebKitWebProc"):
            found.append(int(name))
    return found


def test_the_panel_page_runs_in_the_library_page_s_web_process(home, site, desktop, launch):
    # The hidden panel starts no web process of its own at launch (one to
    # keep in memory and to wake while idle), and its first page, on the
    # first Alt+B, goes to the library page's process, which is running.
    orvane = _launch_and_wait(home, site, launch)
    library = site.wait_for_load("/")
    assert holds_for(lambda: len(_web_processes(orvane)) == 1, 1.5), _web_processes(orvane)

    desktop.press("alt+b")
    orvane.wait_for_window("quick-panel")
    site.wait_for_load(lambda r: r.page != library.page)
    assert len(_web_processes(orvane)) == 1, _web_processes(orvane)


def test_the_panel_window_is_made_unshown_at_launch(home, site, desktop, launch):
    # Made but not mapped: its page has a display to pace its rendering by
    # before it is first shown, instead of a 60-per-second timer.
    orvane = _launch_and_wait(home, site, launch)
    out = desktop.run_tool("xdotool", "search", "--pid", str(orvane.proc.pid)).stdout
    panels = [int(w) for w in out.split()
              if desktop.window_property(int(w), "WM_WINDOW_ROLE") == "quick-panel"]
    assert len(panels) == 1, out
    assert desktop.window_info(panels[0]).get("map_state") == "IsUnMapped"
    assert not orvane.windows("quick-panel")
