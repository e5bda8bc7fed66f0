"""Fixtures: a venv made by the project's own script, and the site running in it.

The site is started the way Orvane starts it, `.venv/bin/uvicorn main:app
--port N` in site/, on a free loopback port, with its data in a temporary
folder (ORVANE_SITE_DATA), and stopped when the tests that use it are done.
"""

from __future__ import annotations

import json
import os
import socket
import subprocess
import sys
import time
import urllib.error
import urllib.request
from dataclasses import dataclass
from pathlib import Path

import pytest

SITE = Path(__file__).resolve().parent.parent
# The site's modules are imported by the in-process tests.
if str(SITE) not in sys.path:
    sys.path.insert(0, str(SITE))
REPO = SITE.parent
PREPARE = REPO / "scripts" / "prepare-site-venv.sh"
START_TIMEOUT_S = 20


def free_port() -> int:
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


@dataclass
class Server:
    base: str
    data: Path
    proc: subprocess.Popen
    log: Path
    started_in_s: float

    def url(self, path: str) -> str:
        return self.base + path

    def request(self, method: str, path: str, body: bytes | None = None,
                headers: dict | None = None):
        """(status, headers, body bytes) of one request; HTTP errors are answers too."""
        req = urllib.request.Request(self.url(path), data=body, method=method, headers=headers or {})
        try:
            with urllib.request.urlopen(req, timeout=30) as resp:
                return resp.status, resp.headers, resp.read()
        except urllib.error.HTTPError as err:
            return err.code, err.headers, err.read()

    def json(self, method: str, path: str, payload=None):
        body = None if payload is None else json.dumps(payload).encode()
        headers = {"Content-Type": "application/json"} if payload is not None else {}
        status, _, raw = self.request(method, path, body, headers)
        return status, (json.loads(raw) if raw else None)

    def stop(self) -> None:
        if self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()


def start_server(venv: Path, data: Path, log: Path, releases: Path | None = None) -> Server:
    """The site on a free port; `releases` becomes ORVANE_SITE_RELEASES (unset when None)."""
    port = free_port()
    env = dict(os.environ, ORVANE_SITE_DATA=str(data))
    env.pop("ORVANE_SITE_RELEASES", None)
    if releases is not None:
        env["ORVANE_SITE_RELEASES"] = str(releases)
    started = time.monotonic()
    with open(log, "wb") as out:
        proc = subprocess.Popen([str(venv / "bin" / "uvicorn"), "main:app", "--port", str(port)],
                                cwd=SITE, env=env, stdout=out, stderr=subprocess.STDOUT)
    server = Server(f"http://127.0.0.1:{port}", data, proc, log, 0.0)
    deadline = started + START_TIMEOUT_S
    while time.monotonic() < deadline:
        if proc.poll() is not None:
            break
        try:
            with urllib.request.urlopen(server.url("/api/papers"), timeout=1) as resp:
                if resp.status == 200:
                    server.started_in_s = time.monotonic() - started
                    return server
        except (urllib.error.URLError, ConnectionError, socket.timeout):
            pass
        time.sleep(0.05)
    server.stop()
    raise RuntimeError(f"the site did not start; its output:\n{log.read_text(errors='replace')}")


@pytest.fixture(scope="session")
def venv(tmp_path_factory) -> Path:
    path = tmp_path_factory.mktemp("env") / ".venv"
    done = subprocess.run([str(PREPARE), str(path)], capture_output=True, text=True)
    assert done.returncode == 0, done.stderr
    return path


@pytest.fixture(scope="module")
def server(venv, tmp_path_factory):
    folder = tmp_path_factory.mktemp("site")
    srv = start_server(venv, folder / "data", folder / "uvicorn.log")
    yield srv
    srv.stop()
