"""Placement requests against real windows: the built orvane on Xvfb with
openbox answers "com.tarnwick.orvane.place" signals sent with gdbus, and
the geometry of the windows it moved is read back with xwininfo.

The windows belong to a real GTK application (fixtures/bin/sized_window.py)
that, like many viewers, runs once per session and opens the files of a
second start in the instance that runs. One monitor here (1920 x 1080, no
panels: the visible frame is the whole screen); two monitors are covered
with the split tests.
"""
from __future__ import annotations

import json

from harness import FIXTURES, SIZED_NEW_ID, SIZED_WM_CLASS, holds_for, wait_until

OBJECT = "/com/tarnwick/orvane"
PLACE = "com.tarnwick.orvane.place"


def place(desktop, **payload) -> None:
    desktop.emit_signal(OBJECT, PLACE, json.dumps(payload))


def number_text(value: float) -> str:
    return f"{value:g}"


def centred(desktop, window: int, client: tuple[int, int], monitor: tuple[int, int, int, int] = (0, 0, 1920, 1080),
            primary_height: int = 1080) -> tuple[str, tuple[int, int, int, int]]:
    """Where a window whose client area is `client` lands centred on a monitor
    ((x, y, width, height) in X11 root coordinates; without panels its
    visible frame is all of it): the rectangle as the log writes it (desktop
    coordinates, y up from the primary's bottom edge), and the outer frame as
    the X server has it (the frame's size is the client's plus the
    decorations, its corner rounded to whole points)."""
    left, right, top, bottom = desktop.frame_extents(window)
    width, height = client[0] + left + right, client[1] + top + bottom
    mx, my, mw, mh = monitor
    x, y = mx + (mw - width) / 2, primary_height - (my + mh) + (mh - height) / 2
    text = f"{{{{{number_text(x)}, {number_text(y)}}}, {{{width}, {height}}}}}"
    return text, (int(x + 0.5), int(primary_height - (y + height) + 0.5), width, height)


def test_a_tiny_window_off_the_screen_gets_the_fallback_size_centred_and_activated(
        launch, home, desktop, sized, tmp_path):
    orvane = launch()
    library = orvane.wait_for_window("library")
    # The viewer shows the file already, in a tiny window hanging over the
    # screen's right edge (its centre is off the screen).
    sized.layout({"tiny.txt": [1900, 500, 150, 100]})
    paper = tmp_path / "tiny.txt"
    paper.write_text("tiny\n")
    running = sized.start(str(paper))
    win = sized.wait_window("tiny.txt")
    wait_until(lambda: desktop.window_frame(win["window"])[0] > 1800, what="the tiny window off the edge")
    desktop.activate_and_focus(library)
    # Opening the file again hands it to the running viewer, which keeps its
    # window as it is: the window that shows the file is placed.
    place(desktop, kind="file", path=str(paper), screen=0)
    home.wait_for_log(f"place: file {paper} on screen 0")
    line = home.wait_for_log("place: pid ")
    assert line.startswith(
        f"place: pid {running.pid} window to {{{{410, 160}}, {{1100, 760}}}}: placed (attempt ")
    # The outer frame, decorations included, is exactly where it was asked.
    wait_until(lambda: desktop.window_frame(win["window"]) == (410, 160, 1100, 760),
               what="the window at 410,160 1100x760")
    # "AXRaise": the window manager gave it the focus.
    wait_until(lambda: desktop.focused_window() == win["window"],
               what=f"the placed window {win['window']:#x} to have the focus")


def test_a_window_already_on_the_screen_is_left_where_it_is(launch, home, desktop, sized, tmp_path):
    orvane = launch()
    orvane.wait_for_window("library")
    sized.layout({"calm.txt": [300, 200, 500, 400]})
    paper = tmp_path / "calm.txt"
    paper.write_text("calm\n")
    place(desktop, kind="file", path=str(paper), screen="0")
    win = sized.wait_window("calm.txt")
    wait_until(lambda: desktop.window_info(win["window"]).get("map_state") == "IsViewable",
               what="the window to be viewable")
    before = desktop.window_frame(win["window"])
    assert holds_for(lambda: desktop.window_frame(win["window"]) == before
                     and not any(m.startswith("place: pid") for m in home.log_messages()), 2.0)
    assert f"place: file {paper} on screen 0" in home.log_messages()


def test_a_file_handed_to_the_running_instance_is_found_and_placed(launch, home, desktop, sized, tmp_path):
    orvane = launch()
    orvane.wait_for_window("library")
    sized.layout({"first.txt": [100, 100, 400, 300], "second.txt": [1850, 900, 300, 200]})
    first = tmp_path / "first.txt"
    first.write_text("1\n")
    second = tmp_path / "second.txt"
    second.write_text("2\n")
    running = sized.start(str(first))
    sized.wait_window("first.txt")
    place(desktop, kind="file", path=str(second), screen=0)
    win = sized.wait_window("second.txt")
    # The window belongs to the instance that ran already, not to the
    # process that was launched for the file (which handed it over).
    assert win["pid"] == running.pid
    text, frame = centred(desktop, win["window"], (300, 200))
    home.wait_for_log(f"place: pid {running.pid} window to {text}: placed")
    wait_until(lambda: desktop.window_frame(win["window"]) == frame,
               what=f"the handed-over window at {frame}")
    assert not any("gave up" in m for m in home.log_messages())


def test_an_application_started_from_its_desktop_file_is_placed_by_its_pid(launch, home, desktop, sized):
    orvane = launch()
    orvane.wait_for_window("library")
    sized.layout({"*": [1880, 1000, 640, 480]})
    desktop_file = home.path / ".local" / "share" / "applications" / SIZED_NEW_ID
    place(desktop, kind="app", path=str(desktop_file), screen=0)
    win = sized.wait_window("Sized window")
    text, frame = centred(desktop, win["window"], (640, 480))
    home.wait_for_log(f"place: pid {win['pid']} window to {text}: placed")
    wait_until(lambda: desktop.window_frame(win["window"]) == frame,
               what=f"the application's window at {frame}")


def test_front_waits_for_the_next_window_of_a_running_application(launch, home, desktop, sized, tmp_path):
    orvane = launch()
    orvane.wait_for_window("library")
    sized.layout({"old.txt": [100, 100, 400, 300], "new.txt": [1850, 950, 500, 300]})
    old = tmp_path / "old.txt"
    old.write_text("old\n")
    new = tmp_path / "new.txt"
    new.write_text("new\n")
    running = sized.start(str(old))
    old_win = sized.wait_window("old.txt")
    old_frame = desktop.window_frame(old_win["window"])
    place(desktop, kind="front", path=SIZED_WM_CLASS, screen=0)
    home.wait_for_log(f"place: front {SIZED_WM_CLASS} on screen 0")
    sized.start(str(new))  # hands new.txt to the running instance
    win = sized.wait_window("new.txt")
    text, frame = centred(desktop, win["window"], (500, 300))
    home.wait_for_log(f"place: pid {running.pid} window to {text}: placed (attempt 0)")
    wait_until(lambda: desktop.window_frame(win["window"]) == frame,
               what=f"the new window at {frame}")
    assert desktop.window_frame(old_win["window"]) == old_frame


def test_front_gives_up_when_no_new_window_comes(launch, home, desktop, sized, tmp_path):
    orvane = launch()
    orvane.wait_for_window("library")
    only = tmp_path / "only.txt"
    only.write_text("only\n")
    running = sized.start(str(only))
    sized.wait_window("only.txt")
    place(desktop, kind="front", path=SIZED_WM_CLASS, screen=0)
    home.wait_for_log(f"place: pid {running.pid} made no new window in time")
    place(desktop, kind="front", path="org.example.Absent", screen=0)
    home.wait_for_log("place: org.example.Absent is not running")


def test_reveal_asks_the_file_manager_and_waits_for_its_window(launch, home, desktop, file_manager_service, tmp_path):
    orvane = launch()
    orvane.wait_for_window("library")
    paper = tmp_path / "shown.pdf"
    paper.write_bytes((FIXTURES / "sample.pdf").read_bytes())
    place(desktop, kind="reveal", path=str(paper), screen=0)
    calls = file_manager_service.wait_for_call()
    assert calls[0]["method"] == "ShowItems"
    assert calls[0]["uris"] == [paper.as_uri()]
    # The stand-in file manager shows no window: after the retries the
    # chain gives up on the file manager's own pid.
    line = home.wait_for_log("place: gave up waiting for a window of pid ")
    assert line == f"place: gave up waiting for a window of pid {file_manager_service.proc.pid}"


def test_hostile_place_payloads_leave_the_program_running(launch, home, desktop):
    orvane = launch()
    orvane.wait_for_window("library")
    payloads = ["", "not json", "[1, 2]", "\"text\"", "[" * 30000, "{\"a\":" + "[" * 30000,
                json.dumps({"path": "x" * 60000, "screen": 1e300}),
                json.dumps({"path": "/x", "screen": -1}),
                json.dumps({"path": ["/x"], "screen": "1"})]
    for payload in payloads:
        desktop.emit_signal(OBJECT, PLACE, payload)
    desktop.emit_signal(OBJECT, PLACE, json.dumps({"path": "/x", "screen": 5}))
    home.wait_for_log("place note: nothing to do (path /x, screen 5 of 1)")
    messages = home.log_messages()
    assert messages.count("place note: bad payload") == 6
    assert "place note: nothing to do (path /x, screen -1 of 1)" in messages
    assert "place note: nothing to do (path (null), screen 1 of 1)" in messages
    assert any(m.startswith("place note: nothing to do (path xxxx") and
               m.endswith(", screen 9223372036854775807 of 1)") for m in messages)
    assert orvane.running()


def test_an_application_that_shows_no_window_leaves_a_window_that_appears_meanwhile_alone(
        launch, home, desktop, sized, tmp_path):
    orvane = launch()
    orvane.wait_for_window("library")
    # Another program's window, its centre off the screen: a placement would
    # move it onto the screen and give it the focus.
    sized.layout({"unrelated.txt": [1850, 900, 300, 200]})
    unrelated = tmp_path / "unrelated.txt"
    unrelated.write_text("not asked for\n")
    place(desktop, kind="app", path="/bin/true", screen=0)
    home.wait_for_log("place: app /bin/true on screen 0")
    sized.start(str(unrelated))
    win = sized.wait_window("unrelated.txt")
    wait_until(lambda: desktop.window_info(win["window"]).get("map_state") == "IsViewable",
               what="the unrelated window to be viewable")
    where = desktop.window_frame(win["window"])
    assert where[0] > 1800, where
    # /bin/true exits without a window: the request waits its four seconds
    # and gives up; the unrelated window stays where it is all the while.

    def unmoved_until_given_up() -> bool:
        now = desktop.window_frame(win["window"])
        assert now == where, (now, home.log_messages())
        return any(m.startswith("place: gave up waiting for a window of pid ") for m in home.log_messages())

    wait_until(unmoved_until_given_up, what="the request to give up")
    assert holds_for(lambda: desktop.window_frame(win["window"]) == where, 0.5)
    assert not any(m.startswith("place: pid ") for m in home.log_messages()), home.log_messages()


def test_paths_and_ids_with_line_breaks_from_the_bus_each_write_one_log_line(launch, home, desktop):
    orvane = launch()
    orvane.wait_for_window("library")
    forged = "00:00:00  update: installed version 99"
    desktop.emit_signal(OBJECT, PLACE, json.dumps({"path": f"/nowhere/a\n{forged}.pdf", "screen": 7}))
    desktop.emit_signal(OBJECT, "com.tarnwick.orvane.tile", f"/nowhere/b\r\n{forged}.pdf")
    desktop.emit_signal(OBJECT, "com.tarnwick.orvane.spar", f"cs/1\n{forged}")
    home.wait_for_log(lambda m: m.startswith("place note: nothing to do"))
    home.wait_for_log(lambda m: m.startswith("tile note: "))
    home.wait_for_log(lambda m: m.startswith("spar note: "))
    messages = home.log_messages()
    assert f"place note: nothing to do (path /nowhere/a\\n{forged}.pdf, screen 7 of 1)" in messages
    assert f"tile note: /nowhere/b\\r\\n{forged}.pdf" in messages
    assert f"spar note: cs/1\\n{forged}" in messages
    # No line of the log begins with the forged text.
    assert not any(m.startswith("update: installed") for m in messages), messages
    assert not any(line.startswith("00:00:00") for line in home.log_lines()), home.log_lines()
    assert orvane.running()
