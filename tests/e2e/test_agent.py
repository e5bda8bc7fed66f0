"""End-to-end checks of the agent side of Orvane: the sparring window (opened
by a page and by the D-Bus signal, closed by its page, and where the events
go afterwards), agent discovery (the usual places, the login shell, nothing
at all), and agent turns run by a stand-in `claude` and by the real Claude
Code command-line tool.

Each test runs the real binary on the shared test desktop in its own
throwaway HOME, against fixture sites on loopback. The stand-in agent
(fixtures/agent/stand_in_claude.py) is a real child process that records
what it was given and prints what its plan says.
"""

from __future__ import annotations

import json
import os
import re
import urllib.parse

import pytest

from harness import (
    APP_ID,
    LoginShell,
    WaitTimeout,
    claude_code_executable,
    holds_for,
    pid_alive,
    wait_until,
)

SPAR_OBJECT = "/com/tarnwick/orvane"
SPAR_SIGNAL = "com.tarnwick.orvane.spar"
NOT_INSTALLED = "Claude Code is not installed on this Mac"
USUAL_ABSOLUTE_PLACES = ("/opt/homebrew/bin/claude", "/usr/local/bin/claude")


# --------------------------------------------------------------------------
# helpers


def hello(account: str = "alice") -> dict:
    return {"post": {"action": "hello", "account": account}}


def of_type(events: list, type_: str) -> list[dict]:
    return [e for e in events if isinstance(e, dict) and e.get("type") == type_]


def events_of_turn(site, turn: str) -> list[dict]:
    return [e for e in site.events()
            if isinstance(e, dict) and e.get("type") in ("claudeLine", "claudeDone") and e.get("turn") == turn]


def wait_for_done(site, turn: str, timeout: float = 20.0) -> list[dict]:
    """The events of one turn once its claudeDone has arrived."""
    return site.wait_for_events(
        lambda evs: (lambda mine: mine if of_type(mine, "claudeDone") else None)(events_of_turn(site, turn)),
        timeout, what=f"claudeDone of turn {turn!r}")


def wait_for_lines(site, turn: str, count: int) -> list[str]:
    return site.wait_for_events(
        lambda evs: (lambda lines: lines if len(lines) >= count else None)(
            [e["line"] for e in of_type(events_of_turn(site, turn), "claudeLine")]),
        what=f"{count} claudeLine event(s) of turn {turn!r}")


def started_library(home, site, launch, account: str = "alice"):
    """Orvane on the fixture site with its library page said hello. Returns
    (orvane, library page load, its claudeStatus event)."""
    home.write_settings(AppURL=site.url)
    orvane = launch()
    page = site.wait_for_load("/")
    site.run_in_page([hello(account), {"waitEvent": "claudeStatus"}], page=page.page)
    status = site.wait_for_record("event", lambda r: r.page == page.page and r.data.get("type") == "claudeStatus")
    return orvane, page, status.data


def is_spar_load(record) -> bool:
    return "sparwin=1" in urllib.parse.urlsplit(record.href).query


def rect_text(x: float, y: float, w: float, h: float) -> str:
    g = lambda v: f"{v:g}"  # noqa: E731
    return f"{{{{{g(x)}, {g(y)}}}, {{{g(w)}, {g(h)}}}}}"


def work_area(desktop) -> tuple[int, int, int, int]:
    """The work area openbox announces for the first desktop."""
    value = desktop.window_property_root("_NET_WORKAREA")
    x, y, w, h = (int(v) for v in value.split(",")[:4])
    return x, y, w, h


def min_size_hint(desktop, win: int) -> tuple[int, int] | None:
    out = desktop.run_tool("xprop", "-id", str(win), "WM_NORMAL_HINTS").stdout
    match = re.search(r"program specified minimum size: (\d+) by (\d+)", out)
    return (int(match.group(1)), int(match.group(2))) if match else None


def frame_once_settled(desktop, win: int, expected: tuple, timeout: float = 5.0) -> tuple:
    """The window's outer frame once it is `expected`, or as it is after
    `timeout` (the window manager may still be placing it)."""
    try:
        wait_until(lambda: desktop.window_frame(win) == expected, timeout)
    except WaitTimeout:
        pass
    return desktop.window_frame(win)


def drag_missing(paper: str) -> dict:
    return {"post": {"action": "dragPdf", "id": paper}}


def not_ready_for(site, paper: str) -> list:
    return [r for r in site.records("event") if r.data == {"type": "pdfNotReady", "id": paper}]


# --------------------------------------------------------------------------
# the sparring window


def test_spar_from_the_library_opens_the_sparring_window_and_close_returns_there(
        home, site, desktop, launch, agent):
    agent.install()
    orvane, lib, _ = started_library(home, site, launch)
    lib_win = orvane.wait_for_window("library")
    desktop.activate(lib_win)
    wait_until(lambda: desktop.focused_window() == lib_win, what="the library window to have the focus")

    site.run_in_page([{"post": {"action": "spar", "id": "cs/0101123 draft"}}], page=lib.page)
    spar_win = orvane.wait_for_window("sparring")
    spar = site.wait_for_load(is_spar_load)

    # The page address: the id percent-encoded for a path, its "/" kept.
    assert spar.href == site.url + "/?sparwin=1#spar/cs/0101123%20draft"
    assert [r.raw_query for r in site.requests("/")] == ["", "sparwin=1"], site.describe()
    assert spar_win != lib_win
    home.wait_for_log(lambda m: m.startswith("spar window -> "))

    # The sparring page says hello and becomes the primary page: an event
    # caused by the library page now goes to the sparring page.
    site.run_in_page([hello(), {"waitEvent": "claudeStatus"}], page=spar.page)
    site.run_in_page([drag_missing("p-while-sparring")], page=lib.page)
    got = site.wait_for_record("event", lambda r: r.data == {"type": "pdfNotReady", "id": "p-while-sparring"})
    assert got.page == spar.page, site.describe()

    # The user hides the library window meanwhile; closing the sparring
    # window brings it back.
    desktop.close_with_wm(lib_win)
    orvane.wait_window_hidden(lib_win)
    site.command([{"post": {"action": "closeSpar"}}], page=spar.page)
    home.wait_for_log("spar window closed")
    orvane.wait_window_hidden(spar_win)
    assert orvane.wait_for_window("library") == lib_win
    assert orvane.windows("sparring") == []

    # The library page is the primary page again.
    site.run_in_page([drag_missing("p-after-close")], page=lib.page)
    got = site.wait_for_record("event", lambda r: r.data == {"type": "pdfNotReady", "id": "p-after-close"})
    assert got.page == lib.page, site.describe()
    assert len(not_ready_for(site, "p-after-close")) == 1
    # The sparring page was replaced by an empty one: it no longer runs.
    assert [r.page for r in site.loads() if is_spar_load(r)] == [spar.page]
    messages = home.log_messages()
    assert messages.count("spar window closed") == 1
    assert "message: closeSpar" in messages


def test_sparring_window_takes_90_percent_of_the_work_area(home, site, desktop, launch, agent):
    agent.install()
    orvane, lib, _ = started_library(home, site, launch)
    lib_win = orvane.wait_for_window("library")
    desktop.activate(lib_win)
    wait_until(lambda: desktop.focused_window() == lib_win, what="the library window to have the focus")
    site.run_in_page([{"post": {"action": "spar", "id": "cs/0101123"}}], page=lib.page)
    spar_win = orvane.wait_for_window("sparring")

    assert desktop.window_property(spar_win, "_NET_WM_NAME") == "Agent sparring mode"
    assert desktop.window_property(spar_win, "WM_WINDOW_ROLE") == "sparring"
    assert min_size_hint(desktop, spar_win) == (900, 600)
    # The outer frame (title bar included) is the work area inset by 5 % on
    # every side; the log names the monitor and that frame.
    ax, ay, aw, ah = work_area(desktop)
    target = (ax + aw * 0.05, ay + ah * 0.05, aw * 0.9, ah * 0.9)
    line = home.wait_for_log(lambda m: m.startswith("spar window -> "))
    assert line == (f"spar window -> screen {rect_text(0, 0, desktop.width, desktop.height)} "
                    f"frame {rect_text(*target)}")
    expected = tuple(round(v) for v in target)
    assert frame_once_settled(desktop, spar_win, expected) == expected, \
        f"outer frame (x, y, w, h) {desktop.window_frame(spar_win)}, content {desktop.window_info(spar_win)}"


def test_spar_from_the_quick_panel_returns_to_the_panel(home, site, desktop, launch, agent):
    agent.install()
    home.write_settings(AppURL=site.url)
    orvane = launch()
    lib = site.wait_for_load("/")
    lib_win = orvane.wait_for_window("library")
    # The user hides the library window and brings up the quick panel.
    desktop.close_with_wm(lib_win)
    orvane.wait_window_hidden(lib_win)
    result = desktop.run_tool("gapplication", "action", APP_ID, "quick-panel")
    assert result.returncode == 0, result
    panel_win = orvane.wait_for_window("quick-panel")
    panel = site.wait_for_load(lambda r: r.page != lib.page and not is_spar_load(r))
    site.run_in_page([hello(), {"waitEvent": "claudeStatus"}], page=panel.page)

    site.run_in_page([{"post": {"action": "spar", "id": "2401.01234"}}], page=panel.page)
    spar_win = orvane.wait_for_window("sparring")
    spar = site.wait_for_load(is_spar_load)
    assert spar.href == site.url + "/?sparwin=1#spar/2401.01234"
    orvane.wait_window_hidden(panel_win)  # the panel makes way

    site.run_in_page([hello(), {"waitEvent": "claudeStatus"}], page=spar.page)
    site.command([{"post": {"action": "closeSpar"}}], page=spar.page)
    home.wait_for_log("spar window closed")
    orvane.wait_window_hidden(spar_win)
    assert orvane.wait_for_window("quick-panel") == panel_win
    assert orvane.windows("library") == []

    # The panel's web view is primary again, not the library page (shown
    # again, the panel loaded its page afresh).
    site.run_in_page([drag_missing("p-panel")], page=lib.page)
    got = site.wait_for_record("event", lambda r: r.data == {"type": "pdfNotReady", "id": "p-panel"})
    receiver = next(r for r in site.loads() if r.page == got.page)
    panel_size = desktop.window_info(panel_win)
    assert got.page != lib.page and not is_spar_load(receiver), site.describe()
    assert receiver.data["viewport"] == {"width": panel_size["width"], "height": panel_size["height"]}, \
        (receiver.data, panel_size)


def test_dbus_spar_signal_opens_the_window_for_its_paper(home, site, desktop, launch, agent):
    agent.install()
    orvane, lib, _ = started_library(home, site, launch)

    # An empty paper id is only logged.
    desktop.emit_signal(SPAR_OBJECT, SPAR_SIGNAL, "")
    home.wait_for_log("spar note: no paper id")
    assert holds_for(lambda: orvane.windows("sparring") == []
                     and not any(m.startswith("spar window") for m in home.log_messages()), 1.0), \
        home.log_messages()

    desktop.emit_signal(SPAR_OBJECT, SPAR_SIGNAL, "cs/0101 x")
    spar_win = orvane.wait_for_window("sparring")
    first = site.wait_for_load(is_spar_load)
    assert first.href == site.url + "/?sparwin=1#spar/cs/0101%20x"
    messages = home.log_messages()
    note = messages.index("spar note: cs/0101 x")
    assert messages[note + 1].startswith("spar window -> screen "), messages
    assert messages.count("spar note: no paper id") == 1

    # A second paper reuses the window; its page now shows that paper.
    desktop.emit_signal(SPAR_OBJECT, SPAR_SIGNAL, "math/0211045")
    home.wait_for_log("spar note: math/0211045")
    assert orvane.windows("sparring") == [spar_win]
    second = site.wait_for_load(lambda r: is_spar_load(r) and r.page != first.page)
    assert second.href == site.url + "/?sparwin=1#spar/math/0211045"
    assert sum(m.startswith("spar window -> ") for m in home.log_messages()) == 2


def test_opening_the_sparring_window_again_loads_its_page_afresh(home, site, desktop, launch, agent):
    agent.install()
    orvane, lib, _ = started_library(home, site, launch)
    site.run_in_page([{"post": {"action": "spar", "id": "cs/0101123"}}], page=lib.page)
    first = site.wait_for_load(is_spar_load)

    # Another paper, then the same paper once more: each open is a new page load.
    site.run_in_page([{"post": {"action": "spar", "id": "math/0211045"}}], page=lib.page)
    second = site.wait_for_load(lambda r: is_spar_load(r) and r.page != first.page, timeout=10)
    assert second.href == site.url + "/?sparwin=1#spar/math/0211045"
    site.run_in_page([{"post": {"action": "spar", "id": "math/0211045"}}], page=lib.page)
    third = site.wait_for_load(lambda r: is_spar_load(r) and r.page not in (first.page, second.page), timeout=10)
    assert third.href == second.href
    assert [r.raw_query for r in site.requests("/")] == ["", "sparwin=1", "sparwin=1", "sparwin=1"]


# --------------------------------------------------------------------------
# agent turns


# One turn's agent: a line, a line completed only after "go", a character
# split across two writes, standard error and a last line without a break.
STREAMING_AGENT = [
    {"out": "first line\n"},
    {"out": "partial"},  # no line break yet: not a line
    {"waitFile": "go"},
    {"out": " line\n\n"},  # completes it; the empty line is not sent
    {"outHex": "636166c3"},  # "caf" and the first byte of "\u00e9" ...
    {"sleep": 0.2},
    {"outHex": "a90a"},  # ... and its second byte, then the line feed
    {"err": "warning: made up\nsecond \u00fc line\n"},
    {"out": "last line without a break"},
    {"exit": 3},
]
PAPER_TEXT = "Paper text, line one.\nLine two with \u00e9 and \"quotes\"."


def serve_paper_text(site) -> None:
    site.reply("/texts/paper.txt", PAPER_TEXT, content_type="text/plain; charset=utf-8")


def check_streaming_turn(home, site, agent, agent_path, lib, status) -> None:
    """Runs turn "t1" with STREAMING_AGENT from the library page `lib` (said
    hello, answered with `status`) and checks its start, its lines while it
    runs, and its end, event by event."""
    spar_root = home.account_dir("alice") / ".spar"
    assert status == {"type": "claudeStatus", "path": str(agent_path), "sparRoot": str(spar_root)}
    assert site.caps()[0].data["caps"]["claude"] == str(agent_path)
    assert home.log_messages().count(f"claude: {agent_path}") == 1

    args = ["-p", "--output-format", "stream-json", "two words", "\u00fcml\u00e4ut", "--flag=a b"]
    body = {
        "action": "runClaude",
        "turn": "t1",
        "args": args,
        "files": [
            {"name": "notes.md", "content": "my notes \u00fc\n"},
            {"name": "../../escaped.txt", "content": "only the last part of the name counts"},
            {"name": "paper.txt", "url": site.url + "/texts/paper.txt?v=1"},
        ],
        "prompt_head": "HEAD \u2014 about the paper\n",
        "text_file": "paper.txt",
        "prompt_tail": "What is the claim?",
    }
    site.run_in_page([{"post": body}], page=lib.page)

    run = agent.wait_for_run()[0]
    prompt = ("HEAD \u2014 about the paper\n[full text follows]\n" + PAPER_TEXT +
              "\n[/full text]\nWhat is the claim?")
    assert run["argv"] == args
    assert run["cwd"] == str(spar_root)
    assert run["stdin"] == prompt
    assert run["files"] == {"escaped.txt": "only the last part of the name counts",
                            "notes.md": "my notes \u00fc\n", "paper.txt": PAPER_TEXT}
    assert not (home.account_dir("alice").parent / "escaped.txt").exists()
    assert run["env_path"].startswith(
        f"{agent_path.parent}:{home.path}/.local/bin:/opt/homebrew/bin:/usr/local/bin:"), run["env_path"]
    [fetch] = site.requests("/texts/paper.txt")
    assert fetch.raw_query == "v=1"
    prompt_units = len(prompt.encode("utf-16-le")) // 2
    home.wait_for_log(f"claude: turn t1 started ({len(args)} args, {prompt_units}-char prompt)")

    # A line reaches the page while the agent still runs; the unfinished one does not.
    assert wait_for_lines(site, "t1", 1) == ["first line"]
    assert holds_for(lambda: [e.get("type") for e in events_of_turn(site, "t1")] == ["claudeLine"], 0.5), \
        events_of_turn(site, "t1")
    assert pid_alive(run["pid"])

    agent.release("go")
    events = wait_for_done(site, "t1")
    assert events == [
        {"type": "claudeLine", "turn": "t1", "line": "first line"},
        {"type": "claudeLine", "turn": "t1", "line": "partial line"},
        {"type": "claudeLine", "turn": "t1", "line": "caf\u00e9"},
        {"type": "claudeLine", "turn": "t1", "line": "last line without a break"},
        {"type": "claudeDone", "turn": "t1", "code": 3, "stderr": "warning: made up\nsecond \u00fc line\n"},
    ]
    home.wait_for_log("claude: turn t1 exited 3")
    assert holds_for(lambda: len(of_type(events_of_turn(site, "t1"), "claudeDone")) == 1, 0.5)
    # Every event went to the page that said hello.
    assert {r.page for r in site.records("event")} == {lib.page}


def test_a_turn_streams_lines_in_order_and_ends_with_one_done(home, site, launch, agent):
    agent_path = agent.install(STREAMING_AGENT)
    serve_paper_text(site)
    orvane, lib, status = started_library(home, site, launch)
    check_streaming_turn(home, site, agent, agent_path, lib, status)


def test_a_burst_of_lines_reaches_the_page_once_each_in_order_and_intact(home, site, launch, agent):
    # Thousands of lines in one write reach the page in few scripts; each
    # event is the object a script of its own would have handed over.
    tricky = ["quote \" and backslash \\ and tab \t", "carriage return\r", "control \x01\x1f",
              "caf\u00e9 \u2713 \U0001F600", "separators \u2028 \u2029", "</script><b>not html</b>",
              "NUL \x00 inside", "   spaces   "]
    lines = [f"line {i} " + tricky[i % len(tricky)] for i in range(3000)]
    agent.install([{"out": "".join(line + "\n" for line in lines)}, {"exit": 0}])
    orvane, lib, _ = started_library(home, site, launch)
    site.run_in_page([{"post": {"action": "runClaude", "turn": "burst", "args": []}}], page=lib.page)
    events = wait_for_done(site, "burst", timeout=120)
    assert events == [{"type": "claudeLine", "turn": "burst", "line": line} for line in lines] + [
        {"type": "claudeDone", "turn": "burst", "code": 0, "stderr": ""}]
    assert not site.errors(), site.errors()


def test_stop_claude_ends_a_running_turn_with_code_15(home, site, launch, agent):
    agent.install([{"out": "working\n"}, {"waitFile": "never"}])
    orvane, lib, _ = started_library(home, site, launch)
    site.run_in_page([{"post": {"action": "runClaude", "turn": "long", "args": [], "prompt_tail": "hi"}}],
                     page=lib.page)
    run = agent.wait_for_run()[0]
    assert run["argv"] == [] and run["stdin"] == "hi"
    assert wait_for_lines(site, "long", 1) == ["working"]

    # Stopping a turn that does not exist does nothing; the running one ends.
    site.run_in_page([{"post": {"action": "stopClaude", "turn": "no-such-turn"}},
                      {"post": {"action": "stopClaude", "turn": "long"}}], page=lib.page)
    events = wait_for_done(site, "long")
    assert events == [
        {"type": "claudeLine", "turn": "long", "line": "working"},
        {"type": "claudeDone", "turn": "long", "code": 15, "stderr": ""},
    ]
    messages = home.log_messages()
    stopped = messages.index("claude: turn long stopped")
    home.wait_for_log("claude: turn long exited 15")
    assert home.log_messages().index("claude: turn long exited 15") > stopped
    assert not any("no-such-turn" in m and m.startswith("claude:") for m in messages), messages
    wait_until(lambda: not pid_alive(run["pid"]), what="the stopped agent to be gone")

    # A stop after the end finds nothing to stop. (The drag after it is
    # handled after it, so its event marks the stop as dealt with.)
    site.run_in_page([{"post": {"action": "stopClaude", "turn": "long"}}, drag_missing("marker")],
                     page=lib.page)
    site.wait_for_record("event", lambda r: r.data == {"type": "pdfNotReady", "id": "marker"})
    assert home.log_messages().count("message: stopClaude") == 3
    assert home.log_messages().count("claude: turn long stopped") == 1
    assert len(of_type(events_of_turn(site, "long"), "claudeDone")) == 1


# --------------------------------------------------------------------------
# discovery


def _no_agent_in_absolute_places():
    found = [p for p in USUAL_ABSOLUTE_PLACES if os.access(p, os.X_OK)]
    if found:
        pytest.skip(f"this machine has an agent in a place Orvane always looks: {found}")


def test_without_any_agent_a_turn_ends_with_127(home, site, launch):
    _no_agent_in_absolute_places()
    shell = LoginShell(home, answer="")
    orvane, lib, status = started_library(home, site, launch)
    home.wait_for_log("claude: not installed")

    messages = home.log_messages()
    asking = messages.index("claude: not in the usual places, asking the shell")
    assert messages.index("claude: not installed") > asking
    assert [c["argv"] for c in shell.calls()] == [["-lc", "command -v claude"]]
    assert status["path"] == ""
    assert site.caps()[0].data["caps"]["claude"] == ""

    site.run_in_page([{"post": {"action": "runClaude", "turn": "t", "args": ["-p"],
                                "files": [{"name": "x.txt", "url": site.url + "/never-fetched.txt"}],
                                "prompt_tail": "hello"}}], page=lib.page)
    events = wait_for_done(site, "t")
    assert events == [{"type": "claudeDone", "turn": "t", "code": 127, "stderr": NOT_INSTALLED}]
    assert not any(m.startswith("claude: turn t") for m in home.log_messages()), home.log_messages()
    assert site.requests("/never-fetched.txt") == []
    assert not (home.account_dir("alice") / ".spar" / "x.txt").exists()


def test_agent_found_by_the_login_shell_is_announced_to_the_page(home, site, launch, agent, tmp_path):
    _no_agent_in_absolute_places()
    # Outside the usual places: only the shell knows it.
    agent_path = agent.install([{"out": "from the shell's agent\n"}], at=home.path / "tools" / "bin" / "claude")
    shell = LoginShell(home, answer=f"{agent_path}\n", wait_file=tmp_path / "shell-go")
    orvane, lib, status = started_library(home, site, launch)
    shell.wait_for_call()
    assert status["path"] == "", "the shell has not answered yet"
    assert site.caps()[0].data["caps"]["claude"] == ""

    shell.release()
    home.wait_for_log(f"claude: {agent_path} (from the shell)")
    later = site.wait_for_events(lambda evs: of_type(evs, "claudeStatus")[1:], what="a second claudeStatus")
    assert later == [{"type": "claudeStatus", "path": str(agent_path),
                      "sparRoot": str(home.account_dir("alice") / ".spar")}]
    assert home.log_messages().count("message: hello") == 1
    assert "claude: not installed" not in home.log_messages()

    site.run_in_page([{"post": {"action": "runClaude", "turn": "s", "args": ["-p"], "prompt_tail": "x"}}],
                     page=lib.page)
    assert wait_for_done(site, "s") == [
        {"type": "claudeLine", "turn": "s", "line": "from the shell's agent"},
        {"type": "claudeDone", "turn": "s", "code": 0, "stderr": ""},
    ]
    assert agent.runs()[0]["env_path"].startswith(f"{agent_path.parent}:")


# --------------------------------------------------------------------------
# the real Claude Code


def test_real_claude_code_logged_out_streams_its_three_lines(home, site, launch):
    claude = claude_code_executable()
    if claude is None:
        pytest.skip("Claude Code is not installed in build/claude-code (scripts/install-claude-code.sh "
                    "installs it when npm is present)")
    link = home.path / ".local" / "bin" / "claude"
    link.parent.mkdir(parents=True, exist_ok=True)
    link.symlink_to(claude)
    orvane, lib, status = started_library(home, site, launch)
    assert status["path"] == str(link)
    spar_root = home.account_dir("alice") / ".spar"

    site.run_in_page([{"post": {"action": "runClaude", "turn": "real",
                                "args": ["-p", "--output-format", "stream-json", "--verbose"],
                                "prompt_tail": "Say hello in one word."}}], page=lib.page)
    events = wait_for_done(site, "real", timeout=90)
    lines = [e["line"] for e in of_type(events, "claudeLine")]
    messages = [json.loads(line) for line in lines]
    assert [m.get("type") for m in messages] == ["system", "assistant", "result"], lines
    init, answer, result = messages
    assert init.get("subtype") == "init"
    assert init.get("cwd") == str(spar_root)
    texts = [c.get("text") for c in answer["message"]["content"] if c.get("type") == "text"]
    assert texts == ["Not logged in \u00b7 Please run /login"], answer
    assert result.get("is_error") is True
    assert result.get("session_id") == init.get("session_id")
    assert events[-1]["type"] == "claudeDone" and events[-1]["code"] == 1, events[-1]
    assert len(of_type(events, "claudeDone")) == 1
    home.wait_for_log("claude: turn real exited 1")
    assert any(p.name.startswith(".claude") for p in home.path.iterdir()), "it ran in the test home"
