"""Checks of the end-to-end harness itself; they need no Orvane binary.

If one of these fails, the Orvane tests that build on that piece cannot be
trusted either.
"""

from __future__ import annotations

import json
import socket
import subprocess
import threading
import urllib.error
import urllib.request

import pytest

from harness import (
    FIXTURES,
    PYTHON,
    REPO_ROOT,
    Desktop,
    DevProject,
    FileManagerService,
    FixtureSite,
    Home,
    Orvane,
    pdf_file_name,
    pid_alive,
    port_is_free,
    read_sidecar,
    sidecar_path,
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


def test_fixture_site_canned_replies_and_uploads():
    with FixtureSite("127.0.0.1") as site:
        site.reply("/storage/p.pdf", b"%PDF-1.4 body")
        status, body, headers = _get(site.url + "/storage/p.pdf?token=t")
        assert (status, body, headers.get("Content-Type")) == (200, b"%PDF-1.4 body", "application/pdf")
        site.reply("/storage/gone.pdf", "missing", status=404)
        assert _get(site.url + "/storage/gone.pdf")[:2] == (404, b"missing")

        site.reply("/up", "too big", status=413, method="PUT")
        put = urllib.request.Request(site.url + "/up?x=1", data=b"abc", method="PUT",
                                     headers={"Content-Type": "application/pdf", "x-upsert": "true"})
        with pytest.raises(urllib.error.HTTPError) as refused:
            urllib.request.urlopen(put, timeout=10)
        assert (refused.value.code, refused.value.read()) == (413, b"too big")
        # A body sent in chunks arrives whole.
        with socket.create_connection((site.host, site.port), timeout=10) as conn:
            conn.sendall(b"PUT /up HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n"
                         b"3\r\nhel\r\n2\r\nlo\r\n0\r\n\r\n")
            assert conn.makefile("rb").readline().startswith(b"HTTP/1.0 413")
        puts = site.requests("/up", "PUT")
        assert [(r.raw_query, r.body) for r in puts] == [("x=1", b"abc"), ("", b"hello")]
        assert {k.lower(): v for k, v in puts[0].headers.items()}["x-upsert"] == "true"
        assert _get(site.url + "/nothing-here")[0] == 404

        # A held answer waits for the test.
        held = site.reply("/slow", b"done", method="PUT", hold=True)
        answers = []
        worker = threading.Thread(target=lambda: answers.append(urllib.request.urlopen(
            urllib.request.Request(site.url + "/slow", data=b"x", method="PUT"), timeout=10).read()))
        worker.start()
        wait_until(lambda: site.requests("/slow", "PUT"))
        assert answers == []
        held.release()
        worker.join(timeout=10)
        assert answers == [b"done"]


def test_library_files_on_disk(home):
    pdf = home.place_pdf("alice", "ab/cd", b"%PDF-x", etag="e1", synced_at=1000.25, modified_at=2000.5)
    assert pdf == home.path / "Documents" / "Orvane" / "alice" / "ab_cd.pdf"
    assert pdf_file_name("ab/cd") == "ab_cd.pdf"
    assert sidecar_path(pdf).name == ".ab_cd.pdf.synced"
    assert read_sidecar(pdf) == {"id": "ab/cd", "etag": "e1"}
    assert sidecar_path(pdf).read_text() == '{"id":"ab/cd","etag":"e1"}'
    assert (pdf.stat().st_mtime, sidecar_path(pdf).stat().st_mtime) == (2000.5, 1000.25)
    plain = home.place_pdf("bob", "x", b"%PDF-y", sidecar=False, synced_at=3000.0)
    assert plain.stat().st_mtime == 3000.0 and not sidecar_path(plain).exists()


def test_file_manager_service_and_folder_handler(desktop, home):
    service = FileManagerService(desktop, home.calls_file("fm1")).start()
    try:
        call = desktop.run_tool(
            "gdbus", "call", "--session", "--dest", "org.freedesktop.FileManager1",
            "--object-path", "/org/freedesktop/FileManager1",
            "--method", "org.freedesktop.FileManager1.ShowItems", "['file:///tmp/a%20b.pdf']", "s1")
        assert call.returncode == 0, call.stderr
        calls = service.wait_for_call()
        assert [(c["method"], c["uris"], c["startup_id"]) for c in calls] == [
            ("ShowItems", ["file:///tmp/a%20b.pdf"], "s1")]
    finally:
        service.stop()
    assert not desktop.name_has_owner("org.freedesktop.FileManager1")

    folder = home.path / "some folder"
    folder.mkdir()
    opened = subprocess.run(["gio", "open", str(folder)], env=home.env(), capture_output=True, text=True,
                            timeout=20)
    assert opened.returncode == 0, opened.stderr
    assert [c["argv"] for c in home.wait_for_file_manager_call()] == [[str(folder)]]


_GDK_MONITORS = """
import json, gi
gi.require_version("Gdk", "3.0")
from gi.repository import Gdk
display = Gdk.Display.get_default()
found = []
for n in range(display.get_n_monitors()):
    m = display.get_monitor(n)
    g, w = m.get_geometry(), m.get_workarea()
    found.append({"primary": m.is_primary(), "frame": [g.x, g.y, g.width, g.height],
                  "workarea": [w.x, w.y, w.width, w.height]})
print(json.dumps(found))
"""


def test_two_monitor_desktop_shows_two_monitors_to_xrandr_and_gdk(two_monitor_desktop):
    d = two_monitor_desktop
    assert d.wm_ready(), "openbox did not set _NET_SUPPORTING_WM_CHECK"
    assert d.monitor_geometries() == [(0, 0, 1920, 1080), (1920, 0, 1440, 900)]
    assert "-geometry 3360x1080+0+0" in d.run_tool("xwininfo", "-root").stdout
    gdk = json.loads(d.run_tool(PYTHON, "-c", _GDK_MONITORS, check=True).stdout)
    assert gdk == [
        {"primary": True, "frame": [0, 0, 1920, 1080], "workarea": [0, 0, 1920, 1080]},
        {"primary": False, "frame": [1920, 0, 1440, 900], "workarea": [1920, 0, 1440, 900]},
    ]
    # XTest input reaches this server although it has no input devices of its own.
    assert d.run_tool("xdotool", "mousemove", "2500", "500", check=True).returncode == 0
    assert "x:2500 y:500" in d.run_tool("xdotool", "getmouselocation").stdout


def test_a_relative_orvane_bin_is_taken_from_the_folder_the_run_started_in(monkeypatch, tmp_path):
    # `make bench` passes build/orvane, and Orvane runs in its throwaway home.
    monkeypatch.chdir(REPO_ROOT)
    monkeypatch.setenv("ORVANE_BIN", "build/orvane")
    orvane = Orvane(Home(tmp_path / "home", None), None)
    assert orvane.binary == REPO_ROOT / "build" / "orvane"
    assert orvane.binary.is_absolute()
