"""Checks of the other applications that the capture and quote tests use;
they need no Orvane binary.

Each fixture must be able to show the failure its test looks for: the text
window really owns PRIMARY (or really does not), the clipboard owner's
targets read back byte for byte, the xterm's trap really records a SIGINT,
zathura really puts a page's text on PRIMARY, the stand-in services really
record. Otherwise a passing capture test would prove nothing.
"""

from __future__ import annotations

import subprocess

from harness import (
    ASK_SIGNAL,
    QUOTE_SIGNAL,
    SessionBus,
    holds_for,
    text_pdf,
    wait_until,
)

RICH_TARGETS = {
    "text/plain;charset=utf-8": "clipboard before \u00e9\u00e8 \U0001f600".encode("utf-8"),
    "application/x-orvane-test": bytes(range(256)) * 3,
}


def _primary_text(desktop) -> bytes | None:
    return desktop.read_selection("primary", "UTF8_STRING")


def test_text_window_owns_primary_with_its_selection(desktop, clients):
    window = clients.text_window("alpha beta gamma delta", select=(6, 16))
    assert window.selected_text == "beta gamma"
    wait_until(lambda: _primary_text(desktop) == b"beta gamma", what="PRIMARY to hold the selection")
    assert desktop.focused_window() == window.window

    desktop.type_text("x")
    wait_until(lambda: [k["key"] for k in window.keys()] == ["x"], what="the key press to be recorded")


def test_text_window_without_primary_copies_on_ctrl_c(desktop, clients):
    # Someone else owns PRIMARY first, so it cannot be the text window's by chance.
    clients.clipboard_owner({"UTF8_STRING": b"placeholder"})  # takes CLIPBOARD, not PRIMARY
    window = clients.text_window("only a copy gets this out", no_primary=True)
    assert holds_for(lambda: _primary_text(desktop) != b"only a copy gets this out", 0.5)

    desktop.press("ctrl+c")
    wait_until(lambda: desktop.read_selection("clipboard", "UTF8_STRING") == b"only a copy gets this out",
               what="Ctrl+C to copy the selection to the CLIPBOARD")
    assert window.keys()[-1] == {"key": "c", "ctrl": True, "shift": False, "alt": False}


def test_clipboard_owner_serves_every_target_byte_for_byte(desktop, clients):
    owner = clients.clipboard_owner(RICH_TARGETS)
    targets = desktop.selection_targets("clipboard")
    assert set(RICH_TARGETS) <= set(targets), targets
    for name, data in RICH_TARGETS.items():
        assert desktop.read_selection("clipboard", name) == data, name
    assert not owner.lost()

    clients.clipboard_owner({"UTF8_STRING": b"taken"})
    wait_until(owner.lost, what="the first owner to see the CLIPBOARD taken")
    wait_until(lambda: not owner.running(), what="the first owner to exit")


def test_trap_terminal_records_interrupts_and_typing(desktop, clients):
    terminal = clients.trap_terminal()
    assert terminal.interrupts() == [] and terminal.typed() == b""
    desktop.type_text("ab")
    wait_until(lambda: terminal.typed() == b"ab", what="typing to reach the shell")
    desktop.press("ctrl+c")
    wait_until(lambda: terminal.interrupts() == ["SIGINT"], what="the trap to record Ctrl+C")
    assert terminal.running()


def test_zathura_puts_a_selected_line_of_page_two_on_primary(desktop, home, clients):
    pdf = home.path / "three.pdf"
    pdf.write_bytes(text_pdf(["First page opening words", "Second page lattice argument",
                              "Third page closing remark"]))
    viewer = clients.pdf_viewer(pdf, page=2)
    scale = viewer.width / 600
    viewer.select_across(int(190 * scale), int(10 * scale), int(590 * scale))
    text = wait_until(lambda: _primary_text(desktop), what="zathura to put the selection on PRIMARY").decode()
    assert "lattice" in text and "Second" in text, text


def test_notification_service_records_notify(desktop, notification_service):
    call = desktop.run_tool(
        "gdbus", "call", "--session", "--dest", "org.freedesktop.Notifications",
        "--object-path", "/org/freedesktop/Notifications",
        "--method", "org.freedesktop.Notifications.Notify",
        "Orvane", "0", "", "Summary", "Body text", "[]", "{}", "5000")
    assert call.returncode == 0, call.stderr
    assert call.stdout.strip() == "(uint32 1,)"
    calls = notification_service.wait_for_call()
    assert [(c["app_name"], c["summary"], c["body"]) for c in calls] == [("Orvane", "Summary", "Body text")]


def test_signal_recorder_sees_both_signals(desktop, clients):
    recorder = clients.signal_recorder([QUOTE_SIGNAL, ASK_SIGNAL])
    desktop.emit_signal("/com/tarnwick/orvane", QUOTE_SIGNAL, "")
    desktop.emit_signal("/nl/tarnwick/pendrel", ASK_SIGNAL, '{"page":2}')
    desktop.emit_signal("/com/tarnwick/orvane", "com.tarnwick.orvane.spar", "not recorded")
    recorder.wait_for_signal(ASK_SIGNAL)
    assert [(s["path"], s["args"]) for s in recorder.signals(QUOTE_SIGNAL)] == [("/com/tarnwick/orvane", [""])]
    assert [s["args"] for s in recorder.signals(ASK_SIGNAL)] == [['{"page":2}']]
    assert len(recorder.signals()) == 2


def test_bare_desktop_has_no_window_manager(bare_desktop):
    assert bare_desktop.window_property_root("_NET_SUPPORTING_WM_CHECK") is None
    assert bare_desktop.name_has_owner("org.freedesktop.DBus")


def test_other_bus_is_separate(desktop, tmp_path):
    bus = SessionBus(tmp_path / "bus").start()
    try:
        assert bus.address != desktop.bus_address
        env = desktop.tool_env()
        env["DBUS_SESSION_BUS_ADDRESS"] = bus.address
        owner = subprocess.Popen(["gdbus", "call", "--session", "--dest", "org.freedesktop.DBus",
                                  "--object-path", "/org/freedesktop/DBus",
                                  "--method", "org.freedesktop.DBus.GetId"],
                                 env=env, stdout=subprocess.PIPE, text=True)
        other_id = owner.communicate(timeout=10)[0].strip()
        own_id = desktop.run_tool("gdbus", "call", "--session", "--dest", "org.freedesktop.DBus",
                                  "--object-path", "/org/freedesktop/DBus",
                                  "--method", "org.freedesktop.DBus.GetId").stdout.strip()
        assert other_id and own_id and other_id != own_id
    finally:
        assert bus.stop() == []
