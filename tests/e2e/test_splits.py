"""End-to-end checks of the viewer split and the ask split on two monitors
(the primary 1920 x 1080, a 1440 x 900 one to its right; Xorg's dummy
driver under openbox): a real PDF viewer from Debian (zathura) on the left
half and the sparring window on the right, a viewer that moves its window
back is put back, the ask split posts its halves on the bus, and a viewer
that hands the file to its running instance is still found. Geometry is
read back with xwininfo and the window manager's frame extents.
"""

from __future__ import annotations

import json

import pytest

from harness import ASK_SIGNAL, FIXTURES, PYTHON, holds_for, text_pdf, wait_until

ZATHURA_ID = "orvane-e2e-zathura.desktop"
FORWARDING_ID = "orvane-e2e-single-viewer.desktop"
PAPER_ID = "cs/0101123"
TILE_PATH, TILE_SIGNAL = "/com/tarnwick/orvane", "com.tarnwick.orvane.tile"


@pytest.fixture(scope="module")
def desktop(two_monitor_desktop):
    return two_monitor_desktop


def install_zathura(home) -> None:
    """zathura as the PDF viewer (the PdfViewer setting), titled with the
    file's name, with a configuration of its own in the test's home."""
    config = home.path / "zathura"
    config.mkdir(exist_ok=True)
    (config / "zathurarc").write_text('set window-title-basename true\nset guioptions ""\n')
    home.add_app(ZATHURA_ID, "zathura for the tests",
                 f'zathura --config-dir "{config}" --data-dir "{config}" --cache-dir "{config}" %f',
                 "application/pdf;")
    home.write_settings(PdfViewer=ZATHURA_ID)


def paper(home, name: str = "paper.pdf"):
    path = home.path / name
    path.write_bytes(text_pdf(["A page to read beside the chat"]))
    return path


def window_titled(desktop, title: str) -> int:
    def found():
        ids = desktop.windows_titled(title)
        return ids[0] if ids else None
    return wait_until(found, what=f"a window titled {title!r}")


def got_frame(line: str) -> str:
    """The frame after "got " in a viewer split's line."""
    return line.split(" got ", 1)[1].rsplit(" (attempt ", 1)[0]


def as_logged(frame: tuple[int, int, int, int], primary_height: int = 1080) -> str:
    """An X11 outer frame as the log writes it (y up from the primary's
    bottom edge)."""
    x, y, width, height = frame
    return f"{{{{{x}, {primary_height - (y + height)}}}, {{{width}, {height}}}}}"


def started_with_chat(home, site, launch):
    home.write_settings(AppURL=site.url)
    site.set_scenario([{"post": {"action": "hello", "account": "alice"}}, {"waitEvent": "claudeStatus"}])
    orvane = launch()
    library = site.wait_for_load("/")
    site.wait_for_record("scenarioDone", lambda r: r.page == library.page)
    site.run_in_page([{"post": {"action": "spar", "id": PAPER_ID}}], page=library.page)
    chat = orvane.wait_for_window("sparring")
    home.wait_for_log(lambda m: m.startswith("spar window -> screen"))
    return orvane, library, chat


def test_the_viewer_split_puts_zathura_left_and_the_chat_right(home, site, desktop, launch):
    install_zathura(home)
    pdf = paper(home)
    orvane, library, chat = started_with_chat(home, site, launch)
    site.run_in_page([{"post": {"action": "previewSplit", "path": str(pdf)}}], page=library.page)
    line = home.wait_for_log(lambda m: m.startswith("split: preview="))
    assert line.startswith("split: preview=placed raise=ok, chat asked {{960, 0}, {960, 1080}} got "), line
    assert "split: looking for pid " in "\n".join(home.log_messages())
    viewer = window_titled(desktop, "paper.pdf")
    wait_until(lambda: desktop.window_frame(viewer) == (0, 0, 960, 1080),
               what=f"zathura on the left half (it is at {desktop.window_frame(viewer)})")
    wait_until(lambda: desktop.window_frame(chat) == (960, 0, 960, 1080),
               what=f"the chat on the right half (it is at {desktop.window_frame(chat)})")
    # "got" is the frame the window manager gave the chat, as the X server
    # has it, not the one it had before.
    assert got_frame(line) == as_logged(desktop.window_frame(chat)) == "{{960, 0}, {960, 1080}}", line


def test_on_the_1440_wide_monitor_the_chat_takes_the_right_half_below_its_minimum_size(
        home, site, desktop, launch):
    install_zathura(home)
    pdf = paper(home, "narrow.pdf")
    home.write_settings(AppURL=site.url)
    site.set_scenario([{"post": {"action": "hello", "account": "alice"}}, {"waitEvent": "claudeStatus"}])
    orvane = launch()
    library = site.wait_for_load("/")
    site.wait_for_record("scenarioDone", lambda r: r.page == library.page)
    # The library on the second monitor: the chat opens where the library is.
    library_window = orvane.wait_for_window("library")
    desktop.run_tool("xdotool", "windowmove", str(library_window), "2000", "100", check=True)
    wait_until(lambda: desktop.window_frame(library_window)[0] == 2000,
               what=f"the library on the second monitor (it is at {desktop.window_frame(library_window)})")
    desktop.activate_and_focus(library_window)
    site.run_in_page([{"post": {"action": "spar", "id": PAPER_ID}}], page=library.page)
    chat = orvane.wait_for_window("sparring")
    home.wait_for_log(lambda m: m.startswith("spar window -> screen {{1920, 180}, {1440, 900}}"))
    site.run_in_page([{"post": {"action": "previewSplit", "path": str(pdf)}}], page=library.page)
    line = home.wait_for_log(lambda m: m.startswith("split: preview="))
    # Half of 1440 is 720, narrower than the 900 points the user may shrink
    # the chat to by hand: a frame set by the program is set all the same.
    assert line.startswith("split: preview=placed raise=ok, chat asked {{2640, 180}, {720, 900}} got "), line
    viewer = window_titled(desktop, "narrow.pdf")
    wait_until(lambda: desktop.window_frame(viewer) == (1920, 0, 720, 900),
               what=f"zathura on the second monitor's left half (it is at {desktop.window_frame(viewer)})")
    wait_until(lambda: desktop.window_frame(chat) == (2640, 0, 720, 900),
               what=f"the chat on the second monitor's right half (it is at {desktop.window_frame(chat)})")
    assert got_frame(line) == as_logged(desktop.window_frame(chat)) == "{{2640, 180}, {720, 900}}", line
    # The frame holds: nothing grows the chat back to its minimum later.
    assert holds_for(lambda: desktop.window_frame(chat) == (2640, 0, 720, 900), 1.0), desktop.window_frame(chat)


def test_a_viewer_that_moves_its_window_back_is_put_back_within_the_hold(home, site, desktop, launch):
    install_zathura(home)
    pdf = paper(home)
    orvane, library, chat = started_with_chat(home, site, launch)
    site.run_in_page([{"post": {"action": "previewSplit", "path": str(pdf)}}], page=library.page)
    home.wait_for_log(lambda m: m.startswith("split: preview=placed"))
    viewer = window_titled(desktop, "paper.pdf")
    # What a viewer does that restores its last place after opening.
    desktop.run_tool("xdotool", "windowmove", str(viewer), "400", "200", check=True)
    home.wait_for_log(lambda m: m.startswith("split: the window drifted to ") and m.endswith(" — put it back"))
    wait_until(lambda: desktop.window_frame(viewer) == (0, 0, 960, 1080),
               what=f"zathura back on the left half (it is at {desktop.window_frame(viewer)})")


def test_the_ask_split_of_the_1440_wide_monitor_posts_half_and_half(home, site, desktop, launch, clients):
    install_zathura(home)
    pdf = paper(home, "asked.pdf")
    home.write_settings(AppURL=site.url)
    orvane = launch()
    # The library window is on screen before the user turns to another
    # window, so that it cannot take the focus back when it maps.
    orvane.wait_for_window("library")
    site.wait_for_load("/")
    recorder = clients.signal_recorder([ASK_SIGNAL])
    # The user looks at a window on the second monitor; the pointer stays on
    # the primary, where the desktop started it.
    looked_at = clients.text_window("something on the second monitor")
    desktop.run_tool("xdotool", "windowmove", str(looked_at.window), "2300", "200", check=True)
    wait_until(lambda: desktop.window_frame(looked_at.window)[0] == 2300,
               what=f"the window on the second monitor (it is at {desktop.window_frame(looked_at.window)})")
    desktop.activate_and_focus(looked_at.window)
    assert desktop.active_window() == looked_at.window
    x, y, width, height = desktop.window_frame(looked_at.window)
    desktop.emit_signal(TILE_PATH, TILE_SIGNAL, str(pdf))
    ask = json.loads(recorder.wait_for_signal(ASK_SIGNAL)[0]["args"][0])
    assert (ask["path"], ask["title"], ask["quote"], ask["page"]) == (str(pdf), "asked.pdf", "", 0)
    assert (ask["splitX"], ask["splitW"]) == (0.5, 0.5)
    messages = home.log_messages()
    assert f"tile note: {pdf}" in messages
    # The point is the centre of the focused window's frame, in desktop
    # coordinates (y upwards from the primary's bottom edge), not the pointer.
    centre = f"{{{x + width / 2:g}, {1080 - (y + height / 2):g}}}"
    assert f"capture: attention at {centre} from focused window" in messages, messages
    assert "ask: paper=placed raise=ok fullscreen=no, free half {{2640, 180}, {720, 900}}" in messages, messages
    assert "ask: asked.pdf, 0 chars quoted, to the desktop (split 0.500+0.500)" in messages
    viewer = window_titled(desktop, "asked.pdf")
    wait_until(lambda: desktop.window_frame(viewer) == (1920, 0, 720, 900),
               what=f"zathura on the second monitor's left half (it is at {desktop.window_frame(viewer)})")


def test_a_viewer_that_hands_the_file_to_its_running_instance_is_still_found(
        home, site, desktop, launch, clients, tmp_path):
    socket_path = tmp_path / "viewer.sock"
    script = FIXTURES / "bin" / "single_instance_viewer.py"
    home.add_app(FORWARDING_ID, "a single-instance viewer", f'{PYTHON} "{script}" "{socket_path}" %f',
                 "application/pdf;")
    home.write_settings(PdfViewer=FORWARDING_ID)
    instance = clients.program([PYTHON, str(script), str(socket_path)], ready="ready")
    pdf = paper(home, "handed.pdf")
    orvane, library, chat = started_with_chat(home, site, launch)
    site.run_in_page([{"post": {"action": "previewSplit", "path": str(pdf)}}], page=library.page)
    line = home.wait_for_log(lambda m: m.startswith("split: preview="))
    assert line.startswith("split: preview=placed raise=ok"), line
    viewer = window_titled(desktop, "handed.pdf")
    assert desktop.window_property(viewer, "_NET_WM_PID") == str(instance.pid)
    looking = [m for m in home.log_messages() if m.startswith("split: looking for pid ")]
    assert looking and f"pid {instance.pid} " not in looking[0], looking
    wait_until(lambda: desktop.window_frame(viewer) == (0, 0, 960, 1080),
               what=f"the instance's window on the left half (it is at {desktop.window_frame(viewer)})")
