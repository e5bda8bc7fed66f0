"""The pages in a real WebKitGTK web view, with the test playing Orvane's part.

webkit_host.py loads each page with window.panelCaps and a "panel" message
handler, as Orvane's web views have them, and checks what the page posts
for each user action and shows for each event. It needs an X server, so it
runs under xvfb-run inside a private D-Bus session; the test is skipped on a
machine without WebKitGTK's GObject bindings or Xvfb.
"""

from __future__ import annotations

import os
import shutil
import subprocess

import pytest

from conftest import SITE, start_server

HOST = SITE / "tests" / "webkit_host.py"
SCENARIOS = ["library", "quick_panel", "sparring", "browser"]


def webkit_available() -> bool:
    if not (shutil.which("xvfb-run") and shutil.which("dbus-run-session")):
        return False
    probe = subprocess.run(
        ["/usr/bin/python3", "-c", "import gi; gi.require_version('WebKit2', '4.1'); gi.require_version('Gtk', '3.0')"],
        capture_output=True)
    return probe.returncode == 0


def run_host(base, tmp_path, scenarios):
    env = dict(os.environ, NO_AT_BRIDGE="1", HOME=str(tmp_path / "home"))
    (tmp_path / "home").mkdir()
    done = subprocess.run(
        ["dbus-run-session", "--", "xvfb-run", "-a", "/usr/bin/python3", str(HOST), base,
         str(tmp_path / "shots"), *scenarios],
        capture_output=True, text=True, timeout=300, env=env)
    report = done.stdout + "\n" + done.stderr[-4000:]
    assert done.returncode == 0, report
    # The accessibility daemons of the private session may print too; only
    # the host's own "ok <scenario>" lines count.
    passed = [line for line in done.stdout.splitlines() if line.startswith("ok ")]
    assert passed == [f"ok {name}" for name in scenarios], report


@pytest.mark.skipif(not webkit_available(), reason="WebKitGTK 4.1 bindings or Xvfb not installed")
def test_pages_speak_the_bridge_in_webkit(server, tmp_path):
    run_host(server.base, tmp_path, SCENARIOS)


@pytest.mark.skipif(not webkit_available(), reason="WebKitGTK 4.1 bindings or Xvfb not installed")
def test_the_update_banner_in_webkit(venv, tmp_path):
    releases = tmp_path / "releases"
    releases.mkdir()
    (releases / "Orvane-1.5.0-linux-x86_64.zip").write_bytes(b"PK newest")
    (releases / "Orvane-1.4.0-linux-x86_64.zip").write_bytes(b"PK running")
    srv = start_server(venv, tmp_path / "data", tmp_path / "uvicorn.log", releases=releases)
    try:
        run_host(srv.base, tmp_path, ["update_offer", "update_hidden"])
    finally:
        srv.stop()
