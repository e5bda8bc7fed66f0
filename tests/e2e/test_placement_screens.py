"""Placement requests on two monitors (the primary 1920 x 1080 and a
1440 x 900 one to its right; Xorg's dummy driver under openbox, no panels,
so each visible frame is its monitor): "place" with screen 1 moves a new
window onto the second monitor, and a window already there is neither moved
nor raised. The windows are the real GTK application of the placement tests
(fixtures/bin/sized_window.py); geometry is read back with xwininfo and the
window manager's frame extents, the stacking and the active window with
xprop.
"""
from __future__ import annotations

import re

import pytest

from harness import holds_for, wait_until
from test_placement import centred, place

SECOND = (1920, 0, 1440, 900)  # the second monitor, X11 root coordinates
PRIMARY_HEIGHT = 1080


@pytest.fixture(scope="module")
def desktop(two_monitor_desktop):
    return two_monitor_desktop


def stacking(desktop) -> list[int]:
    """The managed windows from bottom to top (_NET_CLIENT_LIST_STACKING)."""
    out = desktop.run_tool("xprop", "-root", "_NET_CLIENT_LIST_STACKING").stdout
    return [int(value, 16) for value in re.findall(r"0x[0-9a-fA-F]+", out)]


def framed(desktop, window: int) -> tuple[int, int, int, int]:
    """The window manager's frame around the window, once it has drawn one."""
    return wait_until(lambda: desktop.frame_extents(window) != (0, 0, 0, 0) and desktop.frame_extents(window),
                      what=f"openbox's frame around {window:#x}")


def on_second_monitor(frame: tuple[int, int, int, int]) -> bool:
    x, y, w, h = frame
    mx, my, mw, mh = SECOND
    return mx <= x + w / 2 < mx + mw and my <= y + h / 2 < my + mh


def test_place_on_screen_1_moves_a_new_window_onto_the_second_monitor(launch, home, desktop, sized, tmp_path):
    orvane = launch()
    orvane.wait_for_window("library")
    # The application opens its window on the primary, at 300,200.
    sized.layout({"moved.txt": [300, 200, 500, 400]})
    paper = tmp_path / "moved.txt"
    paper.write_text("moved\n")
    place(desktop, kind="file", path=str(paper), screen=1)
    home.wait_for_log(f"place: file {paper} on screen 1")
    win = sized.wait_window("moved.txt")
    framed(desktop, win["window"])
    text, frame = centred(desktop, win["window"], (500, 400), SECOND, PRIMARY_HEIGHT)
    line = home.wait_for_log(lambda m: m.startswith("place: pid "))
    assert line.startswith(f"place: pid {win['pid']} window to {text}: placed (attempt "), line
    wait_until(lambda: desktop.window_frame(win["window"]) == frame,
               what=f"the window centred on the second monitor at {frame} "
                    f"(it is at {desktop.window_frame(win['window'])})")
    assert on_second_monitor(desktop.window_frame(win["window"]))
    # "AXRaise": the moved window is the active one.
    wait_until(lambda: desktop.active_window() == win["window"],
               what=f"the moved window {win['window']:#x} to be active")


def test_a_window_already_on_the_second_monitor_is_neither_moved_nor_raised(
        launch, home, desktop, sized, tmp_path):
    orvane = launch()
    library = orvane.wait_for_window("library")
    sized.layout({"there.txt": [2200, 200, 500, 400]})
    paper = tmp_path / "there.txt"
    paper.write_text("there\n")
    sized.start(str(paper))
    win = sized.wait_window("there.txt")["window"]
    framed(desktop, win)
    wait_until(lambda: on_second_monitor(desktop.window_frame(win)),
               what=f"the window on the second monitor (it is at {desktop.window_frame(win)})")
    # The user turns to the library on the primary: it is active and on top.
    desktop.activate_and_focus(library)
    wait_until(lambda: stacking(desktop)[-1:] == [library], what="the library on top of the stack")
    before = (desktop.window_frame(win), desktop.active_window(), stacking(desktop))
    assert before[1] == library and win in before[2]

    # Opening the file again hands it to the running instance, whose window
    # shows it already: that window is the one found, and it stays.
    place(desktop, kind="file", path=str(paper), screen=1)
    home.wait_for_log(f"place: file {paper} on screen 1")
    now = lambda: (desktop.window_frame(win), desktop.active_window(), stacking(desktop))  # noqa: E731
    # Longer than the whole wait for a window (attempts 0 to 40, 0.1 s
    # apart): had the window not been found, the give-up line would be there.
    assert holds_for(lambda: now() == before, 6.0), (before, now())
    messages = home.log_messages()
    assert not [m for m in messages if m.startswith("place: pid ") or m.startswith("place: gave up")], messages


def test_a_screen_index_past_the_second_monitor_is_refused(launch, home, desktop, sized, tmp_path):
    orvane = launch()
    orvane.wait_for_window("library")
    paper = tmp_path / "nowhere.txt"
    paper.write_text("nowhere\n")
    place(desktop, kind="file", path=str(paper), screen=2)
    place(desktop, kind="file", path=str(paper), screen=-1)
    home.wait_for_log(f"place note: nothing to do (path {paper}, screen -1 of 2)")
    assert f"place note: nothing to do (path {paper}, screen 2 of 2)" in home.log_messages()
    # Nothing was opened for either request.
    assert holds_for(lambda: sized.windows() == [], 1.0)
