"""Orvane's capture, placement and split on a headless KWin session, with
real native Wayland clients in front (GTK windows on GDK's Wayland backend,
zathura) and keys pressed through KWin's fake-input: the expectations and
log lines of the X11 tests (test_capture.py, test_placement.py,
test_splits.py, test_quotes.py), with every window read back from KWin
itself through a KWin script.

KWin's outputs here: two of 1600 x 1000, side by side (KWin's coordinates:
output 1 at x 0..1600, output 2 at x 1600..3200, y downwards; Orvane's log
writes y upwards from the primary's bottom edge).
"""

from __future__ import annotations

import io
import json
import subprocess
from pathlib import Path

import pytest

from harness import _gvariant_string, holds_for, text_pdf
from kwin_scenarios import (  # noqa: F401  (kwin_extras is a fixture)
    ACCOUNT,
    AWKWARD,
    COPY_WINDOW,
    HOTKEYS_OK,
    NATIVE_CLASS,
    PAGES,
    PAPER_ID,
    KWinView,
    add_load,
    as_logged,
    centred,
    install_native_zathura,
    keys_on,
    kwin_extras,
    query_escape,
    wait_for_value,
)
from wayland_harness import PYTHON, wait_until



def png_bytes() -> bytes:
    import cairo

    surface = cairo.ImageSurface(cairo.FORMAT_ARGB32, 3, 2)
    context = cairo.Context(surface)
    context.set_source_rgba(0.9, 0.1, 0.4, 0.7)
    context.paint()
    out = io.BytesIO()
    surface.write_to_png(out)
    return out.getvalue()


def started(session, wayland_orvane, site, wayland_clients, **settings):
    """Orvane on the fixture site with its hotkeys registered through the
    portal, the library page loaded and its window in KWin's list."""
    sink = wayland_clients.script_sink(session)
    orvane = wayland_orvane(session, AppURL=site.url, **settings)
    orvane.home.wait_for_log(HOTKEYS_OK, timeout=30)
    orvane.home.wait_for_log("desktop: KDE Plasma (Wayland)")
    library = site.wait_for_load("/")
    kwin = KWinView(session, sink)
    library_window = kwin.wait_window_of(orvane.pid, what="Orvane's library window in KWin's list")
    return orvane, library, kwin, library_window


def other_windows(kwin, pid: int, known_ids) -> list[dict]:
    return [w for w in kwin.windows_of(pid) if w["id"] not in known_ids]


def read_clipboard(session, mime: str) -> bytes | None:
    result = subprocess.run(["wl-paste", "--no-newline", "--type", mime], env=session.tool_env(),
                            stdin=subprocess.DEVNULL, capture_output=True, timeout=10)
    return result.stdout if result.returncode == 0 else None


def clipboard_types(session) -> list[str]:
    result = subprocess.run(["wl-paste", "--list-types"], env=session.tool_env(), stdin=subprocess.DEVNULL,
                            capture_output=True, text=True, timeout=10)
    return result.stdout.split() if result.returncode == 0 else []


# --------------------------------------------------------------------------
# the summon


def thread_names(pid: int) -> list[str]:
    names = []
    for task in Path(f"/proc/{pid}/task").iterdir():
        try:
            names.append((task / "comm").read_text().strip())
        except OSError:
            pass  # the thread ended meanwhile
    return names


def test_the_selection_connection_is_made_once_the_library_page_has_loaded_before_any_key_press(
        kwin_session, wayland_orvane, wayland_clients, site):
    # KWin takes most of a second over each new connection of a large
    # executable: made at the first key press, the first panel would wait
    # for it.
    orvane, library, kwin, library_window = started(kwin_session, wayland_orvane, site, wayland_clients)
    wait_until(lambda: "data-control" in thread_names(orvane.pid), 10,
               what="Orvane's data-control thread before any key press")
    assert thread_names(orvane.pid).count("data-control") == 1
    assert not any(m.startswith(("hotkey:", "capture:")) for m in orvane.home.log_messages())
    # Connected without trouble.
    assert not any(m.startswith("data-control: the ") for m in orvane.home.log_messages()), \
        orvane.home.log_messages()


def test_alt_b_over_a_native_window_opens_the_panel_on_its_output_with_the_selection_and_the_keyboard(
        kwin_session, wayland_orvane, wayland_clients, site):
    orvane, library, kwin, library_window = started(kwin_session, wayland_orvane, site, wayland_clients)
    # The native window comes after the library window, on the second
    # output, and is made the active one there.
    native = wayland_clients.native_window(kwin_session, text=AWKWARD)
    screens = kwin.screens()
    assert len(screens) == 2, screens
    kwin.move(native.pid, screens[1][0] + 300, 200)
    kwin.activate(native.pid)
    front = kwin.active()
    assert front["resourceClass"] == NATIVE_CLASS and screens[1][0] <= front["frame"][0] < screens[1][0] + 1600

    kwin_session.press("alt+b")
    panel = add_load(site)
    assert panel.href == f"{site.url}/?add={query_escape(AWKWARD)}"
    home = orvane.home
    home.wait_for_log(f"hotkey: {len(AWKWARD)} chars from {NATIVE_CLASS}")
    home.wait_for_log(f"panel opens with a {len(AWKWARD)}-char selection")
    messages = home.log_messages()
    hotkey_line = messages.index(f"hotkey: {len(AWKWARD)} chars from {NATIVE_CLASS}")
    assert messages[hotkey_line + 1] == f"panel opens with a {len(AWKWARD)}-char selection"
    # One page load and one showing for the press.
    assert holds_for(lambda: len(site.loads()) == 2, 1.0), site.describe()
    assert sum(m.startswith("panel shown:") for m in home.log_messages()) == 1

    # The panel: Orvane's new surface, centred on the native window's output
    # as KWin has it, and the active one (it has the keyboard).
    def panel_window():
        found = other_windows(kwin, orvane.pid, {library_window["id"]})
        return found[0] if found and found[0]["active"] else None
    shown = wait_until(panel_window, what="the panel as KWin's active window")
    frame = tuple(shown["frame"])
    assert frame == centred(screens[1], frame[2:]), (frame, screens)

    # Typing reaches the panel's page, not the native window nor the library.
    kwin_session.press("z", "q")
    wait_until(lambda: keys_on(site, panel.page)[-2:] == ["z", "q"], what="typed keys to reach the panel page")
    assert keys_on(site, library.page) == []
    # The portal kept Alt+B itself away from the native window (which may
    # have seen the Alt press alone), and the typing went to the panel.
    assert not {"b", "B", "z", "q"} & set(native.key_names()), native.keys()
    assert native.texts() == [], native.texts()


# --------------------------------------------------------------------------
# the copy fallback


@pytest.mark.parametrize("primary", ["empty", "an image"])
def test_a_native_window_without_primary_text_gets_one_ctrl_c_and_the_clipboards_mime_types_come_back(
        kwin_session, wayland_orvane, wayland_clients, kwin_extras, site, primary):
    orvane, library, kwin, _ = started(kwin_session, wayland_orvane, site, wayland_clients)
    if primary == "an image":
        # PRIMARY counts as the front window's selection on KWin; one that
        # holds no text leaves the copy to get the text out.
        kwin_extras.selection_owner(kwin_session, {"image/png": png_bytes()}, primary=True)
    rich = {
        "text/plain;charset=utf-8": "what the user had copied \u00e9 \U0001f600".encode("utf-8"),
        "text/html": b"<p>what the <b>user</b> had copied</p>\x00\xff",
        "image/png": png_bytes(),
    }
    owner = kwin_extras.selection_owner(kwin_session, rich)
    assert set(rich) <= set(clipboard_types(kwin_session))
    text = "copied out of a window with no PRIMARY \u00e9"
    window = kwin_extras.copy_window(kwin_session, text)
    assert kwin.active()["pid"] == window.pid

    kwin_session.press("alt+b")
    add_load(site, text)
    orvane.home.wait_for_log(f"hotkey: {len(text)} chars from orvane-e2e-copy")
    # One plain Ctrl+C, sent once Alt was released; the window copied once.
    copies = [k for k in window.keys() if k["key"] in ("c", "C")]
    assert copies == [{"key": "c", "ctrl": True, "shift": False, "alt": False}], window.keys()
    assert window.copies() == [text]
    assert owner.lost(), "the copy took the CLIPBOARD from its owner"
    # Every MIME type is offered again, byte for byte.
    wait_until(lambda: set(rich) <= set(clipboard_types(kwin_session)),
               what="the CLIPBOARD to offer the saved types again")
    for mime, data in rich.items():
        assert read_clipboard(kwin_session, mime) == data, f"{mime} was not restored byte for byte"


# --------------------------------------------------------------------------
# a terminal in front


def test_a_terminal_in_front_gets_no_ctrl_c_and_the_panel_opens_without_a_selection(
        kwin_session, wayland_orvane, wayland_clients, kwin_extras, site):
    orvane, library, kwin, _ = started(kwin_session, wayland_orvane, site, wayland_clients)
    # A native window whose app id (KWin's resourceClass) is xterm's, which
    # copies by selecting: it has no copy keystroke, and nothing selected.
    terminal = kwin_extras.copy_window(kwin_session, "$ sleep 100", title="xterm", app_id="xterm")
    front = kwin.active()
    assert (front["pid"], front["resourceClass"]) == (terminal.pid, "xterm"), front

    kwin_session.press("alt+b")
    panel = site.wait_for_load(lambda r: r.page != library.page)
    assert panel.href == site.url + "/", "nothing was captured, so the panel opens without add="
    orvane.home.wait_for_log("capture: xterm has no copy chord \u2014 nothing sent")

    def ctrl_c_keys():
        return [k for k in terminal.keys() if k["ctrl"] and k["key"] in ("c", "C")]
    assert holds_for(lambda: ctrl_c_keys() == [] and terminal.copies() == [], 1.0), terminal.keys()
    assert terminal.running()
    assert not any(" chars from " in m for m in orvane.home.log_messages()), orvane.home.log_messages()


# --------------------------------------------------------------------------
# placement


def test_a_place_request_moves_a_native_applications_window_onto_the_second_output(
        kwin_session, wayland_orvane, wayland_clients, site, tmp_path):
    orvane, library, kwin, _ = started(kwin_session, wayland_orvane, site, wayland_clients)
    home = orvane.home
    state = tmp_path / "placed-window"
    desktop_file = home.path / ".local" / "share" / "applications" / "orvane-e2e-placed.desktop"
    home.add_app(desktop_file.name, "A native window to place",
                 f'env GDK_BACKEND=wayland {PYTHON} "{COPY_WINDOW}" "{state}" --title "Placed window" '
                 "--app-id orvane-e2e-placed")
    kwin_session.run_tool("gdbus", "emit", "--session", "--object-path", "/com/tarnwick/orvane",
                          "--signal", "com.tarnwick.orvane.place",
                          _gvariant_string(json.dumps({"kind": "app", "path": str(desktop_file), "screen": 1})),
                          check=True)
    home.wait_for_log(f"place: app {desktop_file} on screen 1")
    line = home.wait_for_log(lambda m: m.startswith("place: pid "))
    pid = int(line.split()[2])
    assert " window to " in line and ": placed (attempt " in line, line

    screens = kwin.screens()
    window = kwin.wait_window_of(pid, "Placed window", what="the placed window in KWin's list")
    size = tuple(window["frame"][2:])
    expected = centred(screens[1], size)
    wait_for_value(lambda: kwin.frame_of(pid, "Placed window"), expected, "the window centred on output 2")
    assert line == f"place: pid {pid} window to {as_logged(expected)}: placed (attempt {line.rsplit(' ', 1)[1]}"
    # Raised: KWin made it the active window.
    wait_until(lambda: (kwin.active() or {}).get("pid") == pid, what="the placed window to be active")


# --------------------------------------------------------------------------
# the viewer split


def test_the_viewer_split_puts_native_zathura_left_and_the_chat_right(
        kwin_session, wayland_orvane, wayland_clients, site, tmp_path):
    # zathura on GDK's Wayland backend as the PDF viewer, registered in the
    # home wayland_orvane is about to use (its first, tmp_path/home-0) before
    # Orvane starts.
    home_path = tmp_path / "home-0"
    viewer_app = install_native_zathura(home_path)
    site.set_scenario([{"post": {"action": "hello", "account": ACCOUNT}}, {"waitEvent": "claudeStatus"}])
    orvane, library, kwin, library_window = started(kwin_session, wayland_orvane, site, wayland_clients,
                                                    PdfViewer=viewer_app)
    home = orvane.home
    assert home.path == home_path
    pdf = home.path / "paper.pdf"
    pdf.write_bytes(text_pdf(["A page to read beside the chat"]))

    site.wait_for_record("scenarioDone", lambda r: r.page == library.page)
    site.run_in_page([{"post": {"action": "spar", "id": PAPER_ID}}], page=library.page)
    home.wait_for_log(lambda m: m.startswith("spar window -> screen"))
    chat = wait_until(lambda: (other_windows(kwin, orvane.pid, {library_window["id"]}) or [None])[0],
                      what="the sparring window in KWin's list")

    site.run_in_page([{"post": {"action": "previewSplit", "path": str(pdf)}}], page=library.page)
    line = home.wait_for_log(lambda m: m.startswith("split: preview="))
    screen = kwin.screens()[0]
    left = (screen[0], screen[1], screen[2] // 2, screen[3])
    right = (screen[0] + screen[2] // 2, screen[1], screen[2] // 2, screen[3])
    assert line.startswith(f"split: preview=placed raise=ok, chat asked {as_logged(right)} got "), line
    assert any(m.startswith("split: looking for pid ") for m in home.log_messages())

    def viewer():
        return next((w for w in kwin.windows() if w["caption"] == "paper.pdf" and w["pid"] != orvane.pid), None)
    wait_for_value(lambda: tuple(viewer()["frame"]) if viewer() else None, left, "zathura on the left half")
    assert viewer()["resourceClass"].lower() == "org.pwmt.zathura", viewer()

    def chat_frame():
        return next((tuple(w["frame"]) for w in kwin.windows() if w["id"] == chat["id"]), None)
    wait_for_value(chat_frame, right, "the chat on the right half")
    got = line.split(" got ", 1)[1].rsplit(" (attempt ", 1)[0]
    assert got == as_logged(right), line


# --------------------------------------------------------------------------
# ⌥Q


def test_alt_q_from_native_zathura_on_a_library_pdf_sends_friend_quote_with_the_page(
        kwin_session, wayland_orvane, wayland_clients, kwin_extras, site):
    site.set_scenario([{"post": {"action": "hello", "account": ACCOUNT}}, {"waitEvent": "claudeStatus"}])
    orvane, library, kwin, _ = started(kwin_session, wayland_orvane, site, wayland_clients)
    site.wait_for_record("scenarioDone", lambda r: r.page == library.page)
    pdf = orvane.home.place_pdf(ACCOUNT, PAPER_ID, text_pdf(PAGES), etag="e1")
    viewer = kwin_extras.zathura(kwin_session, pdf, page=2)
    kwin.wait_window_of(viewer.pid, what="zathura's window in KWin's list")
    kwin.activate(viewer.pid)
    # The passage the user selected: on KWin PRIMARY is the selection of the
    # window in front, whoever serves it (zathura selects only with the
    # pointer, which fake-input's key presser does not drive).
    selected = PAGES[1]
    kwin_extras.selection_owner(kwin_session, {"text/plain;charset=utf-8": selected.encode(),
                                               "text/plain": selected.encode()}, primary=True)

    kwin_session.press("alt+q")
    event = site.wait_for_event("friendQuote")
    assert event == {"type": "friendQuote", "id": PAPER_ID, "text": selected, "page": 2}
    orvane.home.wait_for_log(f"friend-quote: {len(selected)} chars from {PAPER_ID} (page 2)")
