"""End-to-end checks of Orvane's foundation: start-up and its log, the
capabilities object, the page bridge's handshake and its guards, the
navigation policy under real clicks, the local development server, the
reopen event, the capture modes and the quick panel hand-off.

Each test runs the real binary on the shared test desktop in its own
throwaway HOME, against fixture sites on loopback.
"""

from __future__ import annotations

import datetime
import re
import shutil
import urllib.parse
from pathlib import Path

import pytest

from harness import (
    DEV_SERVER,
    LOG_LINE,
    DevProject,
    holds_for,
    pid_alive,
    port_is_free,
    process_cmdline,
    run_orvane,
    wait_until,
)

BUILD_ID = r"\d{12}-[0-9a-f]{7}"
BANNER = re.compile(
    r"=== Orvane (?P<version>\S+) \((?P<build>[^)]*)\) started, built "
    r"(?P<date>(?:Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) (?: [1-9]|[12]\d|3[01]) \d{4}) "
    r"(?P<time>\d{2}:\d{2}:\d{2}), site (?P<site>.*) ==="
)
CAPS_KEYS = {"localPdfs", "hotkey", "dockDrop", "claude", "version", "build", "release"}
DASH = "\u2014"  # the em dash of the log texts


def banner_of(home) -> re.Match:
    first = home.wait_for_log(lambda m: m.startswith("=== Orvane"))
    match = BANNER.fullmatch(first)
    assert match, f"start banner has the wrong form: {first!r}"
    return match


def expected_claude_path() -> str | None:
    """The empty string when no agent executable can be found on this
    machine, else None (then only the type of the value is checked)."""
    return "" if shutil.which("claude") is None else None


# --------------------------------------------------------------------------
# start-up and the activity log


def test_log_begins_with_banner_then_accessibility_line(home, site, launch):
    # Trailing slashes are not part of the site address.
    home.write_settings(AppURL=site.url + "//")
    launch()
    site.wait_for_load("/")
    home.wait_for_log(lambda m: m.startswith("accessibility trusted:"))

    lines = home.log_lines()
    for line in lines[:2]:
        assert LOG_LINE.fullmatch(line), f"log line is not 'HH:MM:SS  message': {line!r}"
    messages = home.log_messages()
    match = BANNER.fullmatch(messages[0])
    assert match, f"first log line is not the start banner: {messages[0]!r}"
    assert match["version"] == "1.0"
    assert re.fullmatch(BUILD_ID, match["build"]), match["build"]
    datetime.datetime.strptime(match["build"][:12], "%Y%m%d%H%M")  # a real timestamp
    datetime.datetime.strptime(match["date"].replace("  ", " "), "%b %d %Y")
    datetime.datetime.strptime(match["time"], "%H:%M:%S")
    assert match["site"] == site.url
    assert messages[1] == "accessibility trusted: YES"

    # A local site that answers costs one probe, made before the page loads.
    seen = [r.path for r in site.requests() if r.path in ("/api/papers", "/")]
    assert seen[:2] == ["/api/papers", "/"], site.describe()
    assert seen.count("/api/papers") == 1, site.describe()


def test_log_is_written_on_an_account_without_a_state_folder(home, site, launch):
    state = home.path / ".local" / "state"
    shutil.rmtree(state)
    home.write_settings(AppURL=site.url)
    launch()
    site.wait_for_load("/")
    banner_of(home)
    assert state.stat().st_mode & 0o777 == 0o700, oct(state.stat().st_mode)
    assert (state / "orvane").stat().st_mode & 0o777 == 0o700


def test_settings_with_a_bad_line_still_apply(home, site, launch):
    home.write_settings(AppURL=site.url)
    text = home.settings_path.read_text(encoding="utf-8")
    bad = "this line is not a key file line"
    home.settings_path.write_text(text.replace("[Orvane]\n", f"[Orvane]\n{bad}\n", 1), encoding="utf-8")
    launch()
    site.wait_for_load("/")
    assert banner_of(home)["site"] == site.url
    # Read at every lookup, reported once.
    messages = home.log_messages()
    assert messages.count("settings: line 2 of settings.ini ignored") == 1, messages
    # The banner stays the first line of the run.
    assert messages[0].startswith("=== Orvane "), messages
    assert messages[1] == "settings: line 2 of settings.ini ignored", messages
    assert bad in home.settings_path.read_text(encoding="utf-8").splitlines()


def test_every_page_sees_the_capabilities_object(home, site, launch):
    home.write_settings(AppURL=site.url)
    site.set_scenario([{"navigate": "/landed.html"}])
    launch()
    site.wait_for_load("/landed.html")
    build = banner_of(home)["build"]

    caps = site.caps()
    pages = [urllib.parse.urlsplit(r.href).path for r in caps]
    assert pages == ["/", "/landed.html"], site.describe()
    for record in caps:
        assert record.data["present"], f"window.panelCaps missing on {record.href}"
        value = record.data["caps"]
        assert isinstance(value, dict) and set(value) == CAPS_KEYS, value
        assert value["localPdfs"] is True
        assert value["hotkey"] is True
        assert value["dockDrop"] is True
        assert isinstance(value["claude"], str)
        if expected_claude_path() is not None:
            assert value["claude"] == expected_claude_path()
        assert value["version"] == "1.0"
        assert isinstance(value["build"], str) and re.fullmatch(BUILD_ID, value["build"]), value["build"]
        assert value["build"] == build
        # The build tree holds no MANIFEST, so there is no release to compare.
        assert value["release"] is None, value


# --------------------------------------------------------------------------
# the page bridge


def test_hello_is_answered_with_claude_status(home, site, launch):
    home.write_settings(AppURL=site.url)
    site.set_scenario([{"post": {"action": "hello", "account": "alice"}}])
    launch()
    page = site.wait_for_load("/")
    event = site.wait_for_event("claudeStatus")

    spar_root = home.path / "Documents" / "Orvane" / "alice" / ".spar"
    assert set(event) == {"type", "path", "sparRoot"}, event
    assert isinstance(event["path"], str)
    if expected_claude_path() is not None:
        assert event["path"] == expected_claude_path()
    assert event["sparRoot"] == str(spar_root)
    assert spar_root.is_dir(), "the .spar folder is created on the way"
    assert site.event_records()[0].page == page.page

    messages = home.log_messages()
    assert "message: hello" in messages
    assert not any("before hello" in m for m in messages), messages


def test_open_pdf_before_hello_is_only_logged(home, site, launch):
    home.write_settings(AppURL=site.url)
    pdf_url = site.url + "/papers/p1.pdf"
    site.set_scenario([
        {"post": {"action": "openPdf", "id": "p1", "url": pdf_url, "etag": "e1"}},
        # The hello flushes anything queued in between: had openPdf caused an
        # event, it would arrive before claudeStatus.
        {"post": {"action": "hello", "account": "alice"}},
        {"waitEvent": "claudeStatus"},
    ])
    launch()
    site.wait_for_event("claudeStatus")
    site.wait_for_record("scenarioDone")

    messages = home.log_messages()
    at = messages.index("message: openPdf")
    assert messages[at + 1] == f"openPdf before hello {DASH} ignored", messages
    assert [m for m in messages if "openPdf" in m] == [
        "message: openPdf", f"openPdf before hello {DASH} ignored"], messages
    assert messages.index("message: hello") > at + 1
    assert not any("queued" in m for m in messages), messages

    types = [e.get("type") for e in site.events()]
    assert types and set(types) == {"claudeStatus"}, site.events()
    assert site.requests("/papers/p1.pdf") == []
    assert home.viewer_calls() == []


def test_message_from_off_site_page_is_refused(home, site, make_site, launch):
    other = make_site("127.0.0.2")
    home.write_settings(AppURL=site.url)
    site.set_scenario([{"navigate": other.url + "/index.html"}])
    other.set_scenario([
        {"post": {"action": "hello", "account": "mallory"}},
        {"post": {"action": "openPdf", "id": "p1", "url": other.url + "/p1.pdf", "etag": "e"}},
        {"postRaw": 42},
    ])
    launch()
    other.wait_for_load("/index.html")
    other.wait_for_record("scenarioDone")

    # Three messages within a moment: the refusal is written once for the page.
    refusal = f"message from off-site page {other.url}/index.html {DASH} ignored"
    home.wait_for_log(refusal)
    assert holds_for(lambda: home.log_messages().count(refusal) == 1, 1.0), home.log_messages()
    messages = home.log_messages()
    assert not any(m.startswith("message:") for m in messages), messages
    assert not any("before hello" in m for m in messages), messages
    assert holds_for(lambda: other.events() == [] and site.events() == [], 1.0), (other.events(), site.events())
    assert not (home.path / "Documents" / "Orvane" / "mallory").exists()
    assert other.requests("/p1.pdf") == []


# --------------------------------------------------------------------------
# navigation policy, with real pointer clicks


def test_click_on_link_to_another_host_opens_default_browser(home, site, make_site, launch):
    other = make_site("127.0.0.2")
    foreign = other.url + "/target.html"
    site.vars["FOREIGN_URL"] = foreign
    home.write_settings(AppURL=site.url)
    site.set_scenario([{"navigate": "/links.html"}])
    orvane = launch()
    page = site.wait_for_load("/links.html")
    win = orvane.wait_for_window("library")

    orvane.click_in_window(win, 550, 85)  # on #foreign (page y 0..169)
    calls = home.wait_for_browser_call()
    click = site.wait_for_record("click", lambda r: r.page == page.page)
    assert click.data["id"] == "foreign", click.data
    assert [c["argv"] for c in calls] == [[foreign]]

    # The page stays: the same page load still runs commands, on links.html.
    ack = site.run_in_page([{"mark": "still here"}], page=page.page)
    assert ack.href == site.url + "/links.html"
    assert other.requests() == [], other.describe()
    assert len(site.requests("/links.html")) == 1
    assert [urllib.parse.urlsplit(r.href).path for r in site.loads()] == ["/", "/links.html"]


def test_new_window_requests_go_to_default_browser(home, site, launch):
    home.write_settings(AppURL=site.url)
    site.set_scenario([{"navigate": "/links.html"}])
    orvane = launch()
    page = site.wait_for_load("/links.html")
    win = orvane.wait_for_window("library")
    vars_ = site.template_vars()

    # A target=_blank link to the site's own host still leaves the application.
    orvane.click_in_window(win, 550, 465)  # on #blank (page y 380..549)
    calls = home.wait_for_browser_call(1)
    assert [c["argv"] for c in calls] == [[vars_["BLANK_URL"]]]
    # So does window.open() from a click handler.
    orvane.click_in_window(win, 550, 655)  # on #popup (page y 570..739)
    calls = home.wait_for_browser_call(2)
    assert [c["argv"] for c in calls] == [[vars_["BLANK_URL"]], [vars_["POPUP_URL"]]]

    clicks = [r.data["id"] for r in site.records("click") if r.page == page.page]
    assert clicks == ["blank", "popup"], clicks
    ack = site.run_in_page([{"mark": "still here"}], page=page.page)
    assert ack.href == site.url + "/links.html"
    assert site.requests("/landed.html") == [], site.describe()
    assert orvane.windows() == [win], "no second window for a page"


@pytest.mark.parametrize("remote_site", [False, True], ids=["local-site", "remote-site"])
def test_click_on_localhost_link_stays_inside(home, site, make_site, launch, remote_site):
    # With a remote site the localhost link also names another port.
    shown = make_site("127.0.0.2") if remote_site else site
    landing = site
    shown.vars["LOCAL_URL"] = f"http://localhost:{landing.port}/landed.html"
    home.write_settings(AppURL=shown.url)
    shown.set_scenario([{"navigate": "/links.html"}])
    orvane = launch()
    page = shown.wait_for_load("/links.html")
    win = orvane.wait_for_window("library")

    orvane.click_in_window(win, 550, 275)  # on #local (page y 190..359)
    landed = landing.wait_for_load("/landed.html")
    click = shown.wait_for_record("click", lambda r: r.page == page.page)
    assert click.data["id"] == "local", click.data
    assert landed.href == f"http://localhost:{landing.port}/landed.html"
    request = landing.wait_for_request("/landed.html")
    assert request.host == f"localhost:{landing.port}"
    assert holds_for(lambda: home.browser_calls() == [], 1.0), home.browser_calls()


# --------------------------------------------------------------------------
# the local development server


def test_development_server_is_started_for_a_local_site(home, launch, tmp_path, request):
    if not port_is_free("127.0.0.1", 8000):
        pytest.skip("127.0.0.1:8000 is taken by another process; the development server is always started there")
    project = DevProject(tmp_path / "project")
    request.addfinalizer(project.stop)
    home.write_settings(AppURL="http://127.0.0.1:8000", ProjectDir=str(project.path))
    launch()

    pid = wait_until(project.pid, what="the fixture dev server to write its pid")
    wait_until(lambda: any(r["path"] == "/" for r in project.requests()),
               what="the library page to be requested from the dev server")
    assert project.call() == {"argv": ["main:app", "--port", "8000"], "cwd": str(project.path)}
    assert pid_alive(pid)
    assert str(DEV_SERVER) in process_cmdline(pid), process_cmdline(pid)
    served = [r["path"] for r in project.requests() if r["path"] in ("/api/papers", "/")]
    assert served[0] == "/api/papers", served  # the probe that found it up
    assert served.index("/") > 0
    # The server's output went to the development server log.
    log = Path("/tmp/shelfkeep.log").read_text(errors="replace")
    assert f"fixture dev server for {project.path} listening on http://127.0.0.1:8000" in log
    assert banner_of(home)["site"] == "http://127.0.0.1:8000"


def test_remote_site_is_not_probed(home, make_site, launch):
    remote = make_site("127.0.0.2")
    home.write_settings(AppURL=remote.url)
    launch()
    remote.wait_for_load("/")
    assert remote.requests("/api/papers") == [], remote.describe()
    assert len(remote.requests("/")) == 1
    assert banner_of(home)["site"] == remote.url


# --------------------------------------------------------------------------
# windows: reopen and the quick panel hand-off


def test_second_start_shows_the_hidden_library_window(home, site, desktop, launch):
    home.write_settings(AppURL=site.url)
    orvane = launch()
    page = site.wait_for_load("/")
    win = orvane.wait_for_window("library")
    info = desktop.window_info(win)
    assert (info["width"], info["height"]) == (1100, 760), info

    desktop.close_with_wm(win)
    orvane.wait_window_hidden(win)
    assert orvane.running(), "closing the library window must not end Orvane"
    assert orvane.windows("library") == []

    second = orvane.run_again()
    assert second.returncode == 0, second
    shown = orvane.wait_for_window("library")
    assert shown == win
    # The page was kept, not reloaded.
    ack = site.run_in_page([{"mark": "after reopen"}], page=page.page)
    assert ack.href == site.url + "/"
    assert len(site.requests("/")) == 1
    assert sum(m.startswith("=== Orvane") for m in home.log_messages()) == 1


def test_starts_through_x11_whatever_gdk_backend_says(home, site, launch):
    # Common in Wayland sessions; Orvane runs through XWayland there.
    home.extra_env["GDK_BACKEND"] = "wayland"
    home.write_settings(AppURL=site.url)
    orvane = launch()
    banner_of(home)
    site.wait_for_load("/")
    orvane.wait_for_window("library")
    assert "cannot open display" not in orvane.output(), orvane.output()


def test_capture_mode_reads_the_desktop_whatever_gdk_backend_says(home, site, desktop):
    home.extra_env["GDK_BACKEND"] = "wayland"
    home.write_settings(AppURL=site.url)
    result = run_orvane(home, desktop, ["--capture-selection"])
    assert result.returncode == 0, result
    messages = home.log_messages()
    assert any(m.startswith("capture: screen hint ") for m in messages), messages
    assert not any(m.startswith("capture: no display") for m in messages), messages


@pytest.mark.parametrize("display", ["", ":4093"], ids=["unset", "no-server"])
def test_without_an_x_display_it_exits_with_a_log_line(home, site, desktop, display):
    home.extra_env["DISPLAY"] = display
    home.write_settings(AppURL=site.url)
    result = run_orvane(home, desktop)
    shown = display or "unset"
    line = (f"no X display could be opened (DISPLAY={shown}); "
            "Orvane needs an X11 session or XWayland")
    assert result.returncode != 0, result
    assert home.log_messages() == [line]
    assert line in result.stderr, result.stderr
    assert site.requests() == [], site.describe()


@pytest.mark.parametrize("flag", ["--capture-quote", "--capture-selection"])
def test_capture_mode_exits_without_starting_the_application(home, site, desktop, flag):
    home.write_settings(AppURL=site.url)
    result = run_orvane(home, desktop, [flag])
    assert result.returncode == 0, result
    assert not any(m.startswith("=== Orvane") for m in home.log_messages()), home.log_messages()
    assert site.requests() == [], site.describe()


def test_fresh_selection_shows_quick_panel_with_the_text(home, site, launch):
    text = 'Entangled \u00e9tats: "quoted" #7 / 100% sure?\nsecond line \u00fc'
    home.write_settings(AppURL=site.url)
    selection = home.write_selection(text)
    orvane = launch()
    orvane.wait_for_window("quick-panel")
    load = site.wait_for_load(lambda r: "add=" in urllib.parse.urlsplit(r.href).query)

    parts = urllib.parse.urlsplit(load.href)
    assert f"{parts.scheme}://{parts.netloc}" == site.url
    assert parts.path == "/"
    assert parts.query.startswith("add="), load.href
    assert urllib.parse.unquote(parts.query[len("add="):]) == text
    assert [r.raw_query for r in site.requests("/")] == [parts.query]
    wait_until(lambda: not selection.exists(), what="selection.txt to be taken")
    assert holds_for(lambda: orvane.windows("library") == [], 1.0), "the library window must stay hidden"
