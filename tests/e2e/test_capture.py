"""End-to-end checks of selection capture, the ⌥B summon and the capture
modes, with real X clients in front: a GTK text view that owns PRIMARY, one
that only copies to the CLIPBOARD, an xterm whose shell traps SIGINT, a
second Orvane on another bus, and a display without a window manager.

Keys are pressed through XTest (`xdotool key alt+b`), exactly as a user's
hands press them; what Orvane did is read from the pages, the log, the
hand-off files, the selections and the stand-in services.
"""

from __future__ import annotations

import os
import re
import stat
import urllib.parse

from harness import (
    CAPTURE_FIXTURES,
    PYTHON,
    Home,
    NotificationService,
    Orvane,
    TextWindow,
    holds_for,
    run_orvane,
    wait_until,
)

HOTKEYS_OK = "hotkeys: \u2325B registered, \u2325C registered, \u2325Q registered, \u2325V registered"
HOTKEYS_FAILED = "hotkeys: \u2325B FAILED, \u2325C FAILED, \u2325Q FAILED, \u2325V FAILED"
# The text window's WM_CLASS class (GDK capitalises the program name).
TEXT_CLASS = "Orvane-e2e-text"
# Blanks, "&", "=", "/", "?", "%", quotes, non-ASCII letters, a line break.
AWKWARD = 'Entangled \u00e9tats & "quotes" = 100% / sure? ~ok_-.\nline two \u00fc'
RICH_TARGETS = {
    "text/plain;charset=utf-8": "what the user had copied \u00e9 \U0001f600".encode("utf-8"),
    "application/x-orvane-test": bytes(range(256)) * 4,
}


def query_escape(text: str) -> str:
    """Every UTF-8 byte outside A-Z a-z 0-9 - . _ ~ as %XX."""
    return urllib.parse.quote(text.encode("utf-8"), safe="-._~")


def add_load(site, text: str | None = None, exclude=()):
    """The next page load on "/?add=..." (with exactly this text when given)."""
    def matches(record):
        parts = urllib.parse.urlsplit(record.href)
        if record.page in exclude or not parts.query.startswith("add="):
            return False
        return text is None or parts.query == "add=" + query_escape(text)
    return site.wait_for_load(matches)


def started(home, site, launch):
    """Orvane on the fixture site with its hotkeys registered, the library
    page loaded."""
    home.write_settings(AppURL=site.url)
    orvane = launch()
    home.wait_for_log(HOTKEYS_OK)
    library = site.wait_for_load("/")
    orvane.wait_for_window("library")
    return orvane, library


def keys_on(site, page: str) -> list[str]:
    return [r.data["key"] for r in site.records("key") if r.page == page and r.data.get("isTrusted")]


def assert_clipboard_restored(desktop, targets: dict[str, bytes]) -> None:
    wait_until(lambda: set(targets) <= set(desktop.selection_targets("clipboard")),
               what="the CLIPBOARD to offer the saved targets again")
    for name, data in targets.items():
        assert desktop.read_selection("clipboard", name) == data, f"target {name} was not restored byte for byte"


# --------------------------------------------------------------------------
# the summon



def non_modifier_keys(window) -> list:
    """The key presses a fixture window saw, leaving out bare modifiers."""
    return [k for k in window.keys() if k["key"] not in MODIFIER_KEYS]


MODIFIER_KEYS = {"Alt_L", "Alt_R", "Meta_L", "Meta_R", "Control_L", "Control_R", "Shift_L",
                 "Shift_R", "Super_L", "Super_R", "ISO_Level3_Shift"}

def test_alt_b_opens_the_panel_on_add_with_the_selection_and_the_focus_in_the_page(
        home, site, desktop, launch, clients):
    orvane, library = started(home, site, launch)
    window = clients.text_window("before " + AWKWARD + " after", select=(7, 7 + len(AWKWARD)))
    assert window.selected_text == AWKWARD
    # The panel's web process starts at launch on an empty page: the site
    # sees only the library's page until the first summon.
    assert [r.page for r in site.loads()] == [library.page], site.describe()

    desktop.press("alt+b")
    panel_win = orvane.wait_for_window("quick-panel")
    panel = add_load(site)
    assert panel.href == f"{site.url}/?add={query_escape(AWKWARD)}"
    home.wait_for_log(f"hotkey: {len(AWKWARD)} chars from {TEXT_CLASS}")
    home.wait_for_log(f"panel opens with a {len(AWKWARD)}-char selection")
    # One page load and one showing for the press, though the activation
    # and the fallback timer both come by after the page started loading.
    assert holds_for(lambda: len(site.loads()) == 2, 1.0), site.describe()
    assert sum(m.startswith("panel shown:") for m in home.log_messages()) == 1
    hotkey_line = home.log_messages().index(f"hotkey: {len(AWKWARD)} chars from {TEXT_CLASS}")
    assert home.log_messages()[hotkey_line + 1] == f"panel opens with a {len(AWKWARD)}-char selection"
    # The direct read: the text view owns PRIMARY, so no copy was sent to it,
    # and the grab kept Alt+B itself away from it. (The Alt press comes
    # before the grab on B fires, so the window may see that alone.)
    assert non_modifier_keys(window) == [], window.keys()

    # The keyboard focus is in the panel's page: typing reaches it.
    wait_until(lambda: desktop.focused_window() == panel_win, what="the panel to have the keyboard focus")
    desktop.type_text("zq")
    wait_until(lambda: keys_on(site, panel.page)[-2:] == ["z", "q"], what="typed keys to reach the panel page")
    assert non_modifier_keys(window) == []
    assert keys_on(site, library.page) == []


def test_second_alt_b_hides_the_key_panel_and_another_front_application_summons_it_afresh(
        home, site, desktop, launch, clients):
    orvane, _ = started(home, site, launch)
    clients.text_window("the first passage")
    desktop.press("alt+b")
    panel_win = orvane.wait_for_window("quick-panel")
    first = add_load(site, "the first passage")
    wait_until(lambda: desktop.focused_window() == panel_win, what="the panel to have the keyboard focus")

    desktop.press("alt+b")
    orvane.wait_window_hidden(panel_win)
    assert orvane.running()
    assert holds_for(lambda: len([r for r in site.loads() if "add=" in r.href]) == 1, 0.5), site.describe()

    # Shown again from another application: a fresh capture, a fresh page.
    clients.text_window("the second passage")
    desktop.press("alt+b")
    assert orvane.wait_for_window("quick-panel") == panel_win
    add_load(site, "the second passage", exclude=(first.page,))
    # Visible but not key (another text window is in front): ⌥B shows it
    # again with a new capture instead of hiding it. (The first window lost
    # its selection when the second took PRIMARY, as GTK text views do.)
    clients.text_window("the third passage")
    desktop.press("alt+b")
    third = add_load(site, "the third passage", exclude=(first.page,))
    assert third.page != first.page
    assert orvane.windows("quick-panel") == [panel_win]


def test_application_without_primary_gets_a_copy_and_its_clipboard_is_restored(
        home, site, desktop, launch, clients):
    orvane, _ = started(home, site, launch)
    owner = clients.clipboard_owner(RICH_TARGETS)
    window = clients.text_window(AWKWARD, no_primary=True)

    desktop.press("alt+b")
    orvane.wait_for_window("quick-panel")
    add_load(site, AWKWARD)
    # One plain Ctrl+C, sent once Alt was released.
    copies = [k for k in window.keys() if k["key"] in ("c", "C")]
    assert copies == [{"key": "c", "ctrl": True, "shift": False, "alt": False}], window.keys()
    assert owner.lost(), "the copy took the CLIPBOARD from its owner"
    assert_clipboard_restored(desktop, RICH_TARGETS)


def test_a_page_is_answered_while_the_capture_waits_on_a_clipboard_owner_that_never_converts(
        home, site, desktop, launch, clients):
    orvane, library = started(home, site, launch)
    # Four hundred targets listed, not one of them ever converted.
    hostile = clients.program([PYTHON, str(CAPTURE_FIXTURES / "hostile_clipboard_owner.py"), "400"],
                              ready="ready")
    clients.text_window("nothing is selected here", select=(0, 0), no_primary=True)

    desktop.press("alt+b")
    # The capture is saving the CLIPBOARD and waits on the owner now.
    wait_until(lambda: "asked " in hostile.output(), what="the capture to ask the hostile owner")
    site.run_in_page([{"mark": "hello sent"}, {"post": {"action": "hello", "account": "alice"}},
                      {"waitEvent": "claudeStatus"}], page=library.page)
    home.wait_for_log(lambda m: m.startswith("clipboard: its owner stopped answering"))
    orvane.wait_for_window("quick-panel")

    messages = home.log_messages()
    assert messages.index("message: hello") < messages.index(
        "clipboard: its owner stopped answering, 0 of 400 targets saved"), messages
    sent = next(r.time for r in site.records("mark") if r.data == "hello sent")
    answered = next(r.time for r in site.event_records()
                    if r.page == library.page and r.data.get("type") == "claudeStatus")
    print(f"figure: hello answered {answered - sent:.3f} s after it was sent during the capture")
    assert orvane.running()


def test_text_copied_in_an_orvane_page_is_on_the_clipboard_again_after_a_capture(
        home, site, desktop, launch, clients):
    orvane, library = started(home, site, launch)
    # The user copies in one of Orvane's own pages: the CLIPBOARD belongs to
    # Orvane's process now.
    desktop.activate_and_focus(orvane.wait_for_window("library"))
    desktop.press("ctrl+a")
    desktop.press("ctrl+c")
    copied = wait_until(lambda: desktop.read_selection("clipboard", "UTF8_STRING"),
                        what="the page's text on the CLIPBOARD")
    assert b"Orvane fixture library" in copied, copied

    clients.text_window(AWKWARD, no_primary=True)
    desktop.press("alt+b")
    orvane.wait_for_window("quick-panel")
    add_load(site, AWKWARD)
    wait_until(lambda: desktop.read_selection("clipboard", "UTF8_STRING") == copied,
               what="the page's copy back on the CLIPBOARD")
    assert "clipboard: held by this program outside a restore, not saved" not in home.log_messages()


def test_application_whose_copy_changes_nothing_leaves_the_clipboard_alone(
        home, site, desktop, launch, clients):
    orvane, library = started(home, site, launch)
    owner = clients.clipboard_owner(RICH_TARGETS)
    # Nothing selected and no PRIMARY: Ctrl+C copies nothing.
    clients.text_window("nothing is selected here", select=(0, 0), no_primary=True)

    desktop.press("alt+b")
    orvane.wait_for_window("quick-panel")
    panel = site.wait_for_load(lambda r: r.page != library.page)
    assert panel.href == site.url + "/", panel.href
    assert not owner.lost(), "the clipboard must be untouched when the copy changed nothing"
    assert_clipboard_restored(desktop, RICH_TARGETS)
    assert not any(m.startswith("hotkey: ") and " chars from " in m for m in home.log_messages())


def test_xterm_in_front_with_nothing_selected_receives_no_keystroke(
        home, site, desktop, launch, clients):
    orvane, library = started(home, site, launch)
    terminal = clients.trap_terminal()

    desktop.press("alt+b")
    orvane.wait_for_window("quick-panel")
    panel = site.wait_for_load(lambda r: r.page != library.page)
    assert panel.href == site.url + "/", "nothing was selected, so the panel opens without add="
    desktop.activate_and_focus(terminal.window)
    desktop.press("alt+c")  # no chat open: the ask path, which captures too
    home.wait_for_log(lambda m: m.startswith("ask: the front window is not a pdf"))

    assert holds_for(lambda: terminal.interrupts() == [] and terminal.typed() == b"", 1.0), \
        (terminal.interrupts(), terminal.typed())
    assert terminal.running()
    assert not any(" chars from " in m for m in home.log_messages()), home.log_messages()


def test_unknown_terminal_in_front_gets_no_copy_keystroke_and_its_shell_no_sigint(
        home, site, desktop, launch, clients):
    orvane, library = started(home, site, launch)
    terminal = clients.pty_terminal()

    desktop.press("alt+b")
    orvane.wait_for_window("quick-panel")
    panel = site.wait_for_load(lambda r: r.page != library.page)

    def ctrl_c_keys():
        return [k for k in terminal.keys() if k["ctrl"] and k["key"] in ("c", "C")]
    assert holds_for(lambda: ctrl_c_keys() == [] and terminal.interrupts() == [], 1.0), \
        (terminal.keys(), terminal.interrupts())
    assert terminal.running()
    assert panel.href == site.url + "/", "nothing was captured, so the panel opens without add="
    home.wait_for_log(f"capture: {terminal.WM_CLASS} has no copy chord \u2014 nothing sent")

    # The fixture is a real terminal: Ctrl+C typed into it does interrupt.
    desktop.activate_and_focus(terminal.window)
    desktop.press("ctrl+c")
    wait_until(lambda: terminal.interrupts() == ["SIGINT"], what="the typed Ctrl+C to reach the shell")


def test_second_orvane_on_another_bus_fails_the_four_hotkeys_and_still_starts(
        home, site, desktop, launch, other_bus, tmp_path, clients):
    first, _ = started(home, site, launch)
    second_home = Home(tmp_path / "second-home", desktop)
    second_home.install_fixture_apps()
    second_home.extra_env["DBUS_SESSION_BUS_ADDRESS"] = other_bus.address
    second_home.write_settings(AppURL=site.url, ProjectDir=str(tmp_path / "no-such-project"))
    second = Orvane(second_home, desktop)
    try:
        second.start(wait_for_free_name=False)
        line = second_home.wait_for_log(lambda m: m.startswith("hotkeys: "))
        assert line == HOTKEYS_FAILED
        messages = second_home.log_messages()
        assert messages[0].startswith("=== Orvane")
        assert messages[1].startswith("accessibility trusted: ")
        assert messages[2] == HOTKEYS_FAILED
        second.wait_for_window("library")
        assert second.running()

        # The keys still belong to the first.
        clients.text_window("still the first one's keys")
        desktop.press("alt+b")
        first.wait_for_window("quick-panel")
        add_load(site, "still the first one's keys")
        assert second.windows("quick-panel") == []
    finally:
        second.stop()
        second_home.end_processes()


# --------------------------------------------------------------------------
# the capture modes


def test_capture_selection_writes_its_files_and_the_restored_clipboard_outlives_it(
        home, desktop, clients):
    clients.clipboard_owner(RICH_TARGETS)
    window = clients.text_window(AWKWARD, no_primary=True)
    result = run_orvane(home, desktop, ["--capture-selection"])
    assert result.returncode == 0, result

    selection = home.handoff_dir / "selection.txt"
    assert selection.read_text(encoding="utf-8") == AWKWARD
    assert stat.S_IMODE(os.stat(selection).st_mode) == 0o600
    screen = (home.handoff_dir / "screen.txt").read_text(encoding="utf-8")
    match = re.fullmatch(r"(-?\d+\.\d{6}) (-?\d+\.\d{6})", screen)
    assert match, screen
    # The centre of the text window's frame, y measured up from the bottom.
    x, y, w, h = desktop.window_frame(window.window)
    assert abs(float(match.group(1)) - (x + w / 2)) <= 1, (screen, (x, y, w, h))
    assert abs(float(match.group(2)) - (desktop.height - (y + h / 2))) <= 1, (screen, (x, y, w, h))
    messages = home.log_messages()
    assert any(re.fullmatch(r"capture: screen hint \{[-\d.]+, [-\d.]+\} from attention", m) for m in messages), messages
    assert f"capture: {len(AWKWARD)} chars from {TEXT_CLASS}" in messages

    # The capture process has exited; the clipboard it restored is still there.
    assert_clipboard_restored(desktop, RICH_TARGETS)
    # Whatever keeps serving it steps aside once another client copies.
    clients.clipboard_owner({"UTF8_STRING": b"a later copy"})
    wait_until(lambda: home.processes() == [], what="nothing of the capture to keep running")
    assert desktop.read_selection("clipboard", "UTF8_STRING") == b"a later copy"


def test_the_clipboard_of_the_front_application_outlives_the_capture_and_the_application(
        home, desktop, clients):
    # The application in front owns the old CLIPBOARD (its own earlier copy)
    # and answers the capture's copy as well.
    window = clients.text_window("old words, then the new ones", select=(0, 9), no_primary=True)
    desktop.press("ctrl+c")
    wait_until(lambda: desktop.read_selection("clipboard", "UTF8_STRING") == b"old words",
               what="the application's own copy on the CLIPBOARD")
    desktop.press("shift+End")
    result = run_orvane(home, desktop, ["--capture-selection"])
    assert result.returncode == 0, result
    assert (home.handoff_dir / "selection.txt").read_text(encoding="utf-8") == ", then the new ones"
    # Served already when the capture process has returned: no moment
    # without an owner in between.
    assert desktop.read_selection("clipboard", "UTF8_STRING") == b"old words"

    # The application goes; what it had copied before stays on the CLIPBOARD.
    window.stop()
    assert desktop.read_selection("clipboard", "UTF8_STRING") == b"old words"
    assert holds_for(lambda: desktop.read_selection("clipboard", "UTF8_STRING") == b"old words", 0.5)
    assert "clipboard: kept by a background process for 600 s" in home.log_messages()

    clients.clipboard_owner({"UTF8_STRING": b"a later copy"})
    home.wait_for_log("clipboard: the background keeper stepped aside for a new copy")
    wait_until(lambda: home.processes() == [], what="the keeper to end")


def test_capture_quote_writes_the_quote_and_signals(home, desktop, clients):
    recorder = clients.signal_recorder(["com.tarnwick.orvane.quote"])
    clients.text_window(AWKWARD)
    result = run_orvane(home, desktop, ["--capture-quote"])
    assert result.returncode == 0, result
    assert (home.handoff_dir / "quote.txt").read_text(encoding="utf-8") == AWKWARD
    signals = recorder.wait_for_signal("com.tarnwick.orvane.quote")
    assert [(s["path"], s["args"]) for s in signals] == [("/com/tarnwick/orvane", [""])]
    assert f"quote: {len(AWKWARD)} chars from {TEXT_CLASS}" in home.log_messages()


def test_capture_quote_with_nothing_selected_writes_nothing_and_stays_silent(home, desktop, clients):
    recorder = clients.signal_recorder(["com.tarnwick.orvane.quote"])
    home.handoff_dir.mkdir(parents=True, exist_ok=True)
    (home.handoff_dir / "quote.txt").write_text("an old quote", encoding="utf-8")
    clients.text_window("nothing selected", select=(0, 0), no_primary=True)
    result = run_orvane(home, desktop, ["--capture-quote"])
    assert result.returncode == 0, result
    assert not (home.handoff_dir / "quote.txt").exists()
    assert f"quote: nothing selected in {TEXT_CLASS}" in home.log_messages()
    assert holds_for(lambda: recorder.signals() == [], 0.5)


def test_capture_selection_with_orvane_in_front_deletes_the_old_files_and_writes_none(
        home, site, desktop, launch):
    orvane, _ = started(home, site, launch)
    library_win = orvane.wait_for_window("library")
    desktop.activate_and_focus(library_win)
    home.write_selection("an old selection", age_seconds=30)
    (home.handoff_dir / "screen.txt").write_text("1.000000 2.000000", encoding="utf-8")
    result = run_orvane(home, desktop, ["--capture-selection"])
    assert result.returncode == 0, result
    assert sorted(p.name for p in home.handoff_dir.iterdir() if p.name in ("selection.txt", "screen.txt")) == []


def test_capture_modes_survive_a_huge_selection(home, desktop, clients):
    # A megabyte of script-like text with NUL-free control characters. (Its
    # owner sends it in pieces; a read waits at most a second for all of
    # them, so the size stays well inside what a loaded machine moves.)
    chunk = '<script>alert("x")</script>\t\u00e9\r' * 1000
    huge = (chunk * 64)[:1024 * 1024]
    clients.text_window(huge)
    result = run_orvane(home, desktop, ["--capture-selection"], timeout=60)
    assert result.returncode == 0, result
    # Bytes, not text: reading text would turn the "\r"s into newlines.
    written = (home.handoff_dir / "selection.txt").read_bytes()
    assert written == huge.encode("utf-8"), f"{len(written)} bytes written"


# --------------------------------------------------------------------------
# trust: a display without a window manager


def test_untrusted_capture_notifies_once_per_account(bare_desktop, tmp_path):
    home = Home(tmp_path / "bare-home", bare_desktop)
    service = NotificationService(bare_desktop, home.calls_file("notifications")).start()
    try:
        first = run_orvane(home, bare_desktop, ["--capture-selection"])
        assert first.returncode == 0, first
        assert home.log_messages().count("capture: no Accessibility permission") == 1
        marker = home.handoff_dir / "asked-for-accessibility"
        assert marker.read_bytes() == b""
        calls = service.wait_for_call()
        assert len(calls) == 1
        assert calls[0]["summary"] and calls[0]["body"], calls
        assert not (home.handoff_dir / "selection.txt").exists()

        second = run_orvane(home, bare_desktop, ["--capture-selection"])
        assert second.returncode == 0, second
        assert home.log_messages().count("capture: no Accessibility permission") == 2
        assert holds_for(lambda: len(service.calls()) == 1, 1.0), service.calls()

        # Deleting the marker brings the prompt back, once.
        marker.unlink()
        run_orvane(home, bare_desktop, ["--capture-quote"])
        service.wait_for_call(2)
        assert marker.exists()
    finally:
        service.stop()
        home.end_processes()


def test_untrusted_alt_b_still_opens_the_panel_without_a_selection(bare_desktop, tmp_path, make_site):
    site = make_site()
    home = Home(tmp_path / "bare-home", bare_desktop)
    home.install_fixture_apps()
    home.write_settings(AppURL=site.url, ProjectDir=str(tmp_path / "no-such-project"))
    service = NotificationService(bare_desktop, home.calls_file("notifications")).start()
    orvane = Orvane(home, bare_desktop)
    window = TextWindow(bare_desktop, tmp_path / "text", "selected but not readable")
    try:
        orvane.start()
        home.wait_for_log("accessibility trusted: NO")
        library = site.wait_for_load("/")
        window.start(activate=False)
        bare_desktop.press("alt+b")
        panel = site.wait_for_load(lambda r: r.page != library.page)
        assert panel.href == site.url + "/"
        assert "capture: no Accessibility permission" in home.log_messages()
        assert len(service.wait_for_call()) == 1
    finally:
        window.stop()
        orvane.stop()
        service.stop()
        home.end_processes()

