"""A local site whose development server does not come up: the library
window shows Orvane's own page with the server's last output lines (from
/tmp/shelfkeep.log) instead of the web view's bare "Could not connect", and
the activity log says so. The server's output is hostile input: HTML in it is
shown as text (no script runs, nothing is fetched, no style applies), a huge
log is read only at its end, and invalid UTF-8 does not break the page.

What the page says is checked in the unit tests (ServerFailurePageTest);
here it is seen on the screen: its red header is drawn, and what the hostile
lines would do if they were taken as HTML is not.
"""

from __future__ import annotations

from pathlib import Path

import pytest

from harness import DevProject, port_is_free, wait_until
from test_site import pixels_of_colour

SITE = "http://127.0.0.1:8000"
NO_ANSWER = f"development server: no answer at {SITE} after its start — see /tmp/shelfkeep.log"
HEADER = "#b3261e"  # the failure page's header
GREEN = "#00ff00"  # what the hostile lines would paint if they ran or applied


def failing_project(path: Path, leak_url: str) -> Path:
    """A project whose `.venv/bin/uvicorn` fails as a site does on a system
    without its Python packages, after printing hostile output: 3 MiB on one
    line, invalid UTF-8, a script, a style and an image from another server."""
    bin_dir = path / ".venv" / "bin"
    bin_dir.mkdir(parents=True)
    uvicorn = bin_dir / "uvicorn"
    uvicorn.write_text(
        "#!/bin/sh\n"
        "head -c 3145728 /dev/zero | tr '\\0' 'x'\n"
        "printf '\\nbad bytes: \\377\\376 end\\n'\n"
        "printf '%s\\n' '<script>document.documentElement.style.background=\"" + GREEN + "\";"
        "window.webkit.messageHandlers.panel.postMessage({action: \"hello\"})</script>'\n"
        "printf '%s\\n' '<style>* { background: " + GREEN + " !important }</style>'\n"
        "printf '%s\\n' '<img src=\"" + leak_url + "\">'\n"
        "echo 'Traceback (most recent call last):'\n"
        "echo \"ModuleNotFoundError: No module named 'fastapi'\"\n"
        "exit 1\n")
    uvicorn.chmod(0o755)
    return path


def drawn_picture(desktop, win: int, path: Path) -> Path:
    """A picture of the window once the failure page's header is drawn and
    two pictures in a row are the same."""
    previous: list[bytes] = []

    def header_drawn_and_still():
        desktop.screenshot_window(win, path)
        data = path.read_bytes()
        still = bool(previous) and previous[-1] == data
        previous.append(data)
        return still and pixels_of_colour(desktop, path, HEADER) > 20000
    wait_until(header_drawn_and_still, 30, interval=0.3, what="the failure page to be drawn")
    return path


def test_a_server_that_does_not_start_gets_orvanes_own_page_and_a_log_line(
        home, site, desktop, launch, tmp_path, request):
    if not port_is_free("127.0.0.1", 8000):
        pytest.skip("127.0.0.1:8000 is taken by another process; the development server is always started there")
    project = failing_project(tmp_path / "project", site.url + "/leak.png")
    home.write_settings(AppURL=SITE, ProjectDir=str(project))
    orvane = launch()

    home.wait_for_log(NO_ANSWER, timeout=60)
    # The server's output is in its log, as the start command put it there.
    log = Path("/tmp/shelfkeep.log").read_bytes()
    assert b"No module named 'fastapi'" in log and len(log) > 3 * 1024 * 1024

    win = orvane.wait_for_window("library")
    picture = drawn_picture(desktop, win, tmp_path / "failure.ppm")
    assert pixels_of_colour(desktop, picture, GREEN) == 0, "the log's HTML was taken as HTML"
    # The image named in the log was never fetched, and the script in it did
    # not post: no message from the page at all, neither taken nor refused.
    assert site.requests("/leak.png") == []
    messages = home.log_messages()
    assert not any(m.startswith("message") for m in messages), messages
    assert messages.count(NO_ANSWER) == 1

    # Once the server can start, the next show of the library loads the site.
    served = DevProject(project)
    request.addfinalizer(served.stop)
    orvane.run_again()
    wait_until(lambda: any(r["path"] == "/" for r in served.requests()),
               what="the library page to be requested once the server answers")
    assert home.log_messages().count(NO_ANSWER) == 1
