"""Checks of the end-to-end harness itself; they need no Orvane binary.

If one of these fails, the Orvane tests that build on that piece cannot be
trusted either.
"""

from __future__ import annotations

import json
import socket
import subprocess
import urllib.error
import urllib.request

import pytest

from harness import (
    FIXTURES,
    PYTHON,
    Desktop,
    DevProject,
    FixtureSite,
    pid_alive,
    port_is_free,
    stop_process_group,
    wait_until,
)


def _get(url: str) -> tuple[int, bytes, dict]:
    try:
        with urllib.request.urlopen(url, timeout=10) as reply:
            return reply.status, reply.read(), dict(reply.headers)
    except urllib.error.HTTPError as err:
        return err.code, err.read(), dict(err.headers)


def _post(url: str, value) -> int:
    request = urllib.request.Request(url, data=json.dumps(value).encode(), method="POST",
                                     headers={"Content-Type": "application/json"})
    with urllib.request.urlopen(request, timeout=10) as reply:
        return reply.status


def test_desktop_comes_up_and_goes_away_without_leftovers():
    d = Desktop().start()
    try:
        pids = [d.bus.pid, d.xvfb.pid, d.wm.pid]
        assert d.display and d.display.startswith(":")
        assert d.wm_ready(), "openbox did not set _NET_SUPPORTING_WM_CHECK"
        assert d.name_has_owner("org.freedesktop.DBus")
        info = d.run_tool("xwininfo", "-root").stdout
        assert "Width: 1920" in info and "Height: 1080" in info
        assert all(pid_alive(p) for p in pids)
    finally:
        leftovers = d.stop()
    assert leftovers == []
    assert not any(pid_alive(p) for p in pids)


def test_shared_desktop_has_window_manager_and_bus(desktop):
    assert desktop.wm_ready()
    assert desktop.name_has_owner("org.freedesktop.DBus")
    assert not desktop.name_has_owner("com.tarnwick.orvane")


def test_fixture_browser_and_viewer_are_the_defaults(home):
    env = home.env()
    assert "XDG_CONFIG_HOME" not in env and "XDG_DATA_HOME" not in env
    opened = subprocess.run(["gio", "open", "http://example.invalid/x?y=1"], env=env,
                            capture_output=True, text=True, timeout=20)
    assert opened.returncode == 0, opened.stderr
    pdf = home.path / "some paper.pdf"
    pdf.write_bytes((FIXTURES / "sample.pdf").read_bytes())
    opened = subprocess.run(["gio", "open", str(pdf)], env=env, capture_output=True, text=True, timeout=20)
    assert opened.returncode == 0, opened.stderr

    browser = home.wait_for_browser_call()
    viewer = home.wait_for_viewer_call()
    assert [c["argv"] for c in browser] == [["http://example.invalid/x?y=1"]]
    assert [c["argv"] for c in viewer] == [[str(pdf)]]


def test_settings_and_log_helpers(home):
    home.write_settings(AppURL="http://127.0.0.1:1234/", PdfViewer="x.desktop")
    home.write_settings(PdfViewer=None)
    text = home.settings_path.read_text()
    assert text.startswith("[Orvane]\n")
    assert "AppURL=http://127.0.0.1:1234/\n" in text and "PdfViewer" not in text
    assert home.read_settings()["AppURL"] == "http://127.0.0.1:1234/"

    assert (home.path / ".local" / "state").is_dir()
    assert not (home.path / ".local" / "state" / "orvane").exists()
    home.log_path.parent.mkdir()
    home.log_path.write_text("10:00:00  first\n10:00:01  second — with a dash\n10:00:02  half")
    assert home.log_messages() == ["first", "second — with a dash"]
    assert home.wait_for_log("second") == "second — with a dash"
    with pytest.raises(AssertionError):
        home.wait_for_log("never written", timeout=0.3)


def test_fixture_site_answers_and_records_on_two_loopback_addresses():
    with FixtureSite("127.0.0.1") as one, FixtureSite("127.0.0.2") as two:
        assert one.port and two.url.startswith("http://127.0.0.2:")
        status, body, _ = _get(one.url + "/api/papers")
        assert (status, json.loads(body)) == (200, [])
        two.papers_status = 404
        status, _, _ = _get(two.url + "/api/papers")
        assert status == 404

        status, body, headers = _get(one.url + "/")
        assert status == 200 and b"/fixture.js" in body and one.url.encode() in body
        assert headers.get("Cache-Control") == "no-store"
        one.vars["FOREIGN_URL"] = two.url + "/target.html"
        status, body, _ = _get(one.url + "/links.html")
        assert (two.url + "/target.html").encode() in body
        assert f"http://localhost:{one.port}/landed.html".encode() in body
        assert _get(one.url + "/../harness.py")[0] == 404

        one.set_scenario([{"post": {"action": "hello"}}])
        status, body, _ = _get(one.url + "/scenario?name=default")
        assert json.loads(body) == {"steps": [{"post": {"action": "hello"}}], "cursor": 0}
        seq = one.command([{"wait": 1}], page="p1")
        assert json.loads(_get(one.url + "/commands?after=0&page=p2")[1])["commands"] == []
        assert json.loads(_get(one.url + "/commands?after=0&page=p1")[1])["commands"][0]["seq"] == seq

        assert _post(one.url + "/record/event", {"page": "p1", "href": "x", "data": {"type": "t"}}) == 204
        assert one.events() == [{"type": "t"}]
        assert [r.path for r in one.requests()] == [
            "/api/papers", "/", "/links.html", "/../harness.py", "/scenario", "/record/event"]
        assert [r.path for r in two.requests()] == ["/api/papers"]
        assert two.requests()[0].host == two.url[len("http://"):]


def test_fixture_page_driver_under_webkit(desktop, home, make_site):
    """Loads the fixture page in a bare WebKit window (no Orvane): the page
    reports the injected capabilities, runs its scenario through the "panel"
    channel, records the events it is sent and runs queued commands."""
    site = make_site("127.0.0.1")
    site.set_scenario([{"post": {"action": "hello", "account": "a"}}, {"postRaw": "just text"},
                       {"waitEvent": "echo"}])
    messages = home.path / "probe-messages.jsonl"
    probe = subprocess.Popen([PYTHON, str(FIXTURES / "bin" / "page_probe.py"), site.url + "/", str(messages)],
                             env=home.env(), stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                             stderr=subprocess.DEVNULL, start_new_session=True)
    try:
        caps = site.wait_for_caps(timeout=30)
        assert caps.data == {"present": True, "caps": {"probe": True}}
        load = site.wait_for_load("/")
        site.wait_for_record("scenarioDone", lambda r: r.page == load.page)
        assert [json.loads(x) for x in messages.read_text().splitlines()] == [
            {"action": "hello", "account": "a"}, "just text"]
        assert site.events() == [{"type": "echo", "body": {"action": "hello", "account": "a"}},
                                 {"type": "echo", "body": "just text"}]
        ack = site.run_in_page([{"post": {"action": "again"}}, {"mark": "after"}], page=load.page)
        assert ack.page == load.page and ack.href == site.url + "/"
        assert site.records("mark")[-1].data == "after"
        ack = site.run_in_page([{"navigate": "/landed.html"}])
        assert ack.data["outcome"] == "navigated"
        landed = site.wait_for_load("/landed.html")
        assert landed.page != load.page
        assert site.errors() == []
    finally:
        stop_process_group(probe)


def test_dev_project_stand_in_serves_and_records(tmp_path):
    # A free port, so this check never collides with a real server on 8000.
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        port = s.getsockname()[1]
    assert port_is_free("127.0.0.1", port)
    project = DevProject(tmp_path / "project")
    proc = subprocess.Popen([str(project.path / ".venv" / "bin" / "uvicorn"), "main:app", "--port", str(port)],
                            cwd=project.path, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                            start_new_session=True)
    try:
        pid = wait_until(project.pid, what="the dev server pid file")
        assert pid == proc.pid  # the stand-in execs, so the recorded pid is the started process
        status, body, _ = _get(f"http://127.0.0.1:{port}/api/papers")
        assert (status, body) == (200, b"[]")
        assert project.call() == {"argv": ["main:app", "--port", str(port)], "cwd": str(project.path)}
        assert [r["path"] for r in project.requests()] == ["/api/papers"]
        assert not port_is_free("127.0.0.1", port)
        project.stop()
        assert proc.wait(timeout=10) == 0
        assert str(project.path).encode() in proc.stdout.read()
    finally:
        stop_process_group(proc)
        proc.stdout.close()
