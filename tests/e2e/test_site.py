"""End-to-end checks of Orvane with the bundled library site (site/): the
library page's handshake, a sparring conversation typed into the sparring
page with real key presses and answered by a stand-in agent that speaks
Claude Code's stream-json, and the quick panel's search field.

The site runs for real (its uvicorn, its own data folder, a free loopback
port); what its pages do is seen from outside: the requests in its access
log, Orvane's activity log, what the stand-in agent was given, and window
pictures. Pictures of every test are kept in $ORVANE_E2E_ARTIFACTS/pictures/
(default /tmp/orvane-e2e-artifacts/pictures/); with ORVANE_E2E_DOC_PICTURES=1
the library and sparring windows are also written to docs/
(library-window.png, sparring-window.png).
"""

from __future__ import annotations

import json
import os
import shutil
from pathlib import Path

from harness import (
    APP_ID,
    REPO_ROOT,
    LoginShell,
    WaitTimeout,
    wait_until,
)

ARTIFACTS = Path(os.environ.get("ORVANE_E2E_ARTIFACTS", "/tmp/orvane-e2e-artifacts"))
PICTURES = ARTIFACTS / "pictures"
DOC_PICTURES = os.environ.get("ORVANE_E2E_DOC_PICTURES") == "1"
ACCOUNT = "demo"  # the site's only account (GET /api/me)
PAPER = "cs/0101123"  # one of the site's sample papers
SESSION = "0b6f3c1e-5a2d-4c8e-9f17-3e2d1c0b9a87"
STREAM_ARGS = ["-p", "--output-format", "stream-json", "--verbose"]
SECOND_ANSWER = ("The bound on helping assumes that a helper never has to restart its own search. "
                 "Under heavy contention at one level that can fail; a test with all threads inserting "
                 "adjacent keys would show it.")
SPAR_OBJECT = "/com/tarnwick/orvane"
SPAR_SIGNAL = "com.tarnwick.orvane.spar"
# The background of the page's "Agent ready" badge (--ok-soft in the site's
# light style); nothing else on the library page has this colour.
AGENT_READY_BADGE = "#e3f4ea"


# --------------------------------------------------------------------------
# helpers


def start_on(reference_site, home, launch):
    home.write_settings(AppURL=reference_site.url)
    return launch()


def hellos(home) -> int:
    return home.log_messages().count("message: hello")


def settled_picture(desktop, win: int, path: Path, frame: bool = True) -> Path:
    """A picture of the window once the page in it has drawn something (more
    than a handful of colours) and two pictures in a row are the same. The
    last picture is kept as a PNG at `path`."""
    raw = path.with_suffix(".ppm")
    previous: list[bytes] = []

    def drawn_and_same_twice():
        desktop.screenshot_window(win, raw, frame=frame)
        data = raw.read_bytes()
        stable = bool(previous) and previous[-1] == data
        previous.append(data)
        return stable and colours(desktop, raw) > 64
    wait_until(drawn_and_same_twice, 30, interval=0.3, what=f"window {win:#x} to be drawn and stop changing")
    desktop.run_tool("convert", str(raw), "-strip", "-define", "png:compression-level=9", str(path),
                     timeout=30, check=True)
    raw.unlink()
    return path


def colours(desktop, picture: Path) -> int:
    """How many different colours the lower half of a picture holds (the
    page's part, below the title and the menu bar)."""
    out = desktop.run_tool("convert", str(picture), "-gravity", "south", "-crop", "100%x50%+0+0", "+repage",
                           "-format", "%k", "info:", timeout=30, check=True).stdout
    return int(out.strip())


def pixels_of_colour(desktop, picture: Path, colour: str) -> int:
    """How many pixels of the picture have exactly this colour ("#rrggbb")."""
    out = desktop.run_tool("convert", str(picture), "-alpha", "off", "-fill", "black", "+opaque", colour,
                           "-fill", "white", "-opaque", colour, "-format", "%[fx:round(mean*w*h)]", "info:",
                           timeout=30, check=True).stdout
    return int(out.strip())


def size_once_settled(desktop, win: int, expected: tuple[int, int], timeout: float = 5.0) -> tuple[int, int]:
    """The window's content size once it is `expected`, or as it is after
    `timeout` (the window manager may still be placing it)."""
    def size():
        info = desktop.window_info(win)
        return (info["width"], info["height"])
    try:
        wait_until(lambda: size() == expected, timeout)
    except WaitTimeout:
        pass
    return size()


def keep_picture(path: Path, doc_name: str) -> None:
    if DOC_PICTURES:
        target = REPO_ROOT / "docs" / doc_name
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(path, target)


def stream_json_answer(session: str, cwd: str, answer: str) -> list[dict]:
    """What Claude Code prints for one turn with `-p --output-format
    stream-json --verbose`: the session's start, a tool use and its result,
    the answer, the result line."""
    lines = [
        {"type": "system", "subtype": "init", "cwd": cwd, "session_id": session, "model": "stand-in",
         "tools": ["Read"], "permissionMode": "default"},
        {"type": "assistant", "session_id": session, "message": {"role": "assistant", "content": [
            {"type": "tool_use", "id": "toolu_01", "name": "Read", "input": {"file_path": cwd + "/paper.txt"}}]}},
        {"type": "user", "session_id": session, "message": {"role": "user", "content": [
            {"type": "tool_result", "tool_use_id": "toolu_01", "content": "(the paper's text)"}]}},
        {"type": "assistant", "session_id": session, "message": {"role": "assistant", "content": [
            {"type": "text", "text": answer}]}},
        {"type": "result", "subtype": "success", "is_error": False, "duration_ms": 2400, "num_turns": 2,
         "result": answer, "session_id": session, "total_cost_usd": 0},
    ]
    return lines


def plan_printing(lines: list[dict]) -> list[dict]:
    steps = []
    for line in lines:
        steps.append({"out": json.dumps(line) + "\n"})
        steps.append({"sleep": 0.05})
    return steps


# --------------------------------------------------------------------------
# the library page


def test_library_page_says_hello_and_shows_the_agent_it_is_told_about(
        home, desktop, launch, agent, reference_site, tmp_path):
    # The agent is where only the login shell finds it, and the shell answers
    # when the test says so: the page starts without an agent and learns of
    # it only from the claudeStatus event that follows the shell's answer.
    agent_path = agent.install(at=home.path / "tools" / "claude")
    shell = LoginShell(home, answer=f"{agent_path}\n", wait_file=tmp_path / "shell-go")
    orvane = start_on(reference_site, home, launch)
    win = orvane.wait_for_window("library")
    home.wait_for_log("message: hello")

    # The page loaded the papers, the inbox and the account before its hello
    # (one GET /api/papers is Orvane's probe of a local site, one the page's).
    requests = [(r.method, r.path, r.raw_query, r.status) for r in reference_site.requests()]
    assert ("GET", "/", "", 200) in requests, reference_site.describe()
    assert requests.count(("GET", "/api/papers", "", 200)) >= 2, reference_site.describe()
    for path in ("/api/inbox", "/api/me"):
        assert ("GET", path, "", 200) in requests, reference_site.describe()
    folder = home.account_dir(ACCOUNT)
    home.wait_for_log(f"pdfs: folder {folder}")
    assert (folder / ".spar").is_dir(), "claudeStatus names the .spar folder, made on the way"
    messages = home.log_messages()
    assert messages.count("message: hello") == 1
    assert not any("before hello" in m or "off-site" in m for m in messages), messages

    shell.wait_for_call()
    before = settled_picture(desktop, win, PICTURES / "library-window-no-agent.png")
    assert pixels_of_colour(desktop, before, AGENT_READY_BADGE) == 0, "an agent badge before any agent is known"

    shell.release()
    home.wait_for_log(f"claude: {agent_path} (from the shell)")
    picture = PICTURES / "library-window.png"
    wait_until(lambda: pixels_of_colour(desktop, settled_picture(desktop, win, picture), AGENT_READY_BADGE) > 200,
               what="the page to show the agent as ready")
    assert home.log_messages().count("message: hello") == 1, "no second hello was needed"
    keep_picture(picture, "library-window.png")


# --------------------------------------------------------------------------
# a sparring conversation


def test_sparring_page_runs_a_typed_turn_and_shows_the_streamed_answer(
        home, desktop, launch, agent, reference_site):
    spar_root = home.account_dir(ACCOUNT) / ".spar"
    answer = ("The central claim: a lock-free skip list stays lock-free while every thread helps at "
              "most a bounded number of others, so each operation finishes in a bounded number of its own steps.")
    agent.install(plan_printing(stream_json_answer(SESSION, str(spar_root), answer)))
    orvane = start_on(reference_site, home, launch)
    orvane.wait_for_window("library")
    home.wait_for_log("message: hello")

    desktop.emit_signal(SPAR_OBJECT, SPAR_SIGNAL, PAPER)
    home.wait_for_log(f"spar note: {PAPER}")
    spar_win = orvane.wait_for_window("sparring")
    reference_site.wait_for_request(lambda r: r.path == "/" and r.raw_query == "sparwin=1",
                                    what="the sparring page")
    # The sparring page has loaded the paper and said hello; it then puts
    # the keyboard focus in its message box, in a window that has the focus.
    wait_until(lambda: hellos(home) == 2, what="the sparring page's hello")
    wait_until(lambda: desktop.focused_window() == spar_win, what="the sparring window to have the focus")

    question = "What is the central claim?"
    desktop.type_text(question)
    desktop.key("Return")
    run = agent.wait_for_run()[0]

    paper_text = reference_site.get(f"/api/papers/{PAPER}/text").decode("utf-8")
    assert run["argv"] == STREAM_ARGS
    assert run["cwd"] == str(spar_root)
    assert run["files"] == {"paper.txt": paper_text}, "the paper's text, fetched by Orvane"
    assert reference_site.requests(f"/api/papers/{PAPER}/text", "GET"), reference_site.describe()
    assert f"[full text follows]\n{paper_text}\n[/full text]\n" in run["stdin"]
    assert run["stdin"].endswith("[/full text]\n" + question)
    head = run["stdin"][:run["stdin"].index("[full text follows]")]
    assert PAPER in head, head
    home.wait_for_log(lambda m: m.startswith("claude: turn ") and m.endswith(" exited 0"))

    settled_picture(desktop, spar_win, PICTURES / "sparring-window-one-turn.png")

    # The page read the stream: its next turn resumes the session named there.
    agent.plan(plan_printing(stream_json_answer(SESSION, str(spar_root), SECOND_ANSWER)))
    follow_up = "Which assumption is the weakest?"
    wait_until(lambda: desktop.focused_window() == spar_win, what="the sparring window to keep the focus")
    desktop.type_text(follow_up)
    desktop.key("Return")
    second = agent.wait_for_run(2)[1]
    assert second["argv"] == STREAM_ARGS + ["--resume", SESSION]
    assert second["stdin"] == follow_up, "a resumed session gets the message alone"
    assert second["files"] == {"paper.txt": paper_text}
    wait_until(lambda: sum(m.endswith(" exited 0") for m in home.log_messages()) == 2,
               what="the second turn to end")
    picture = settled_picture(desktop, spar_win, PICTURES / "sparring-window.png")
    keep_picture(picture, "sparring-window.png")


# --------------------------------------------------------------------------
# the quick panel


def test_quick_panel_puts_the_typing_into_its_search_field(home, desktop, launch, reference_site):
    _ = LoginShell(home, answer="")  # no agent anywhere
    orvane = start_on(reference_site, home, launch)
    lib_win = orvane.wait_for_window("library")
    home.wait_for_log("message: hello")
    # Only the panel is left on screen to type into.
    desktop.close_with_wm(lib_win)
    orvane.wait_window_hidden(lib_win)

    result = desktop.run_tool("gapplication", "action", APP_ID, "quick-panel")
    assert result.returncode == 0, result
    panel_win = orvane.wait_for_window("quick-panel")
    # The panel's content is 560 x 680.
    assert size_once_settled(desktop, panel_win, (560, 680)) == (560, 680), \
        (f"quick panel content {desktop.window_info(panel_win)}; "
         + "; ".join(m for m in home.log_messages() if m.startswith("panel ")))
    wait_until(lambda: [r.raw_query for r in reference_site.requests("/", "GET")] == ["", ""],
               what="the panel's page, the site root without a query")
    wait_until(lambda: hellos(home) == 2, what="the panel page's hello")
    wait_until(lambda: desktop.focused_window() == panel_win, what="the quick panel to have the focus")
    assert not any(r.query.get("q") for r in reference_site.requests("/api/papers")), "no search yet"

    desktop.type_text("skip list")
    searched = reference_site.wait_for_request(
        lambda r: r.path == "/api/papers" and r.query.get("q") == ["skip list"],
        what="the search for what was typed")
    assert searched.status == 200
    # Every search the page made was for a prefix of the typing.
    queries = [r.query["q"][0] for r in reference_site.requests("/api/papers") if "q" in r.query]
    assert all("skip list".startswith(q) for q in queries), queries
    assert orvane.windows("library") == []

    picture = settled_picture(desktop, panel_win, PICTURES / "quick-panel-search.png")
    # Without an agent the page shows none.
    assert home.log_messages().count("claude: not installed") == 1
    assert pixels_of_colour(desktop, picture, AGENT_READY_BADGE) == 0
