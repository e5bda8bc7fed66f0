"""pytest fixtures for Orvane's end-to-end tests.

- `desktop`   one private desktop (bus, Xvfb, openbox) for the whole session
- `home`      a throwaway HOME per test, with the fixture browser and PDF viewer
              registered and ProjectDir pointing at a folder that does not exist
              (so a failed probe never starts a real site)
- `site`      the fixture site on 127.0.0.1 (a free port)
- `make_site` more fixture sites, e.g. make_site("127.0.0.2")
- `launch`    start Orvane in the test's home: launch("--arg", ...) -> Orvane;
              every process started is ended at teardown, even on failure
- `file_manager_service`  a stand-in file manager owning
              org.freedesktop.FileManager1 on the test bus for one test
- `agent`     a StandInAgent for the test's home (installed by the test)
- `reference_site`  the bundled library site (site/) on a free loopback
              port, with a data folder of the test's own
- `clients`   other applications for the capture tests (a GTK text window,
              a CLIPBOARD owner, an xterm with a SIGINT trap, zathura, a
              D-Bus signal recorder), all ended at the test's end
- `notification_service`  a stand-in org.freedesktop.Notifications on the
              test bus that records Notify calls
- `bare_desktop`  a second display with its own bus and no window manager
- `two_monitor_desktop`  a display with two monitors (Xorg's dummy driver):
              the primary 1920 x 1080 and a 1440 x 900 one to its right; a
              module whose tests need it overrides `desktop` with it
- `other_bus` one more private session bus on the shared display
- `sized`     the placement tests' GTK application (a SizedApp), the test
              home's default for plain text, ended at the test's end
- `release`   one release made by scripts/make-release.sh with a throwaway key,
              shared by every module of the session: {"keys", "key", "out",
              "zip", "work"}

On a failed test, a screenshot of the desktop, the activity log, Orvane's
console output and the sites' request logs are kept under
$ORVANE_E2E_ARTIFACTS (default: /tmp/orvane-e2e-artifacts/<test name>/).
"""

from __future__ import annotations

import os
import re
import shutil
import sys
import warnings
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parent))

from harness import (  # noqa: E402
    Clients,
    Desktop,
    FileManagerService,
    NotificationService,
    SessionBus,
    FixtureSite,
    Home,
    Orvane,
    ReferenceSite,
    SizedApp,
    StandInAgent,
    become_subreaper,
    make_release,
    reap_orphans,
)

ARTIFACTS = Path(os.environ.get("ORVANE_E2E_ARTIFACTS", "/tmp/orvane-e2e-artifacts"))


def pytest_configure(config):
    # Orphans of the processes under test come back to us to be reaped.
    become_subreaper()


@pytest.fixture(autouse=True)
def _reap_orphans():
    yield
    reap_orphans()


def _running(d: Desktop, name: str):
    d.start()
    try:
        yield d
    finally:
        leftovers = d.stop()
        if leftovers:
            warnings.warn(f"processes left on the {name} had to be ended: {leftovers}")


@pytest.fixture(scope="session")
def desktop():
    yield from _running(Desktop(), "test desktop")


@pytest.fixture
def home(tmp_path, desktop):
    h = Home(tmp_path / "home", desktop)
    h.install_fixture_apps()
    h.write_settings(ProjectDir=str(tmp_path / "no-such-project"))
    yield h
    stragglers = h.end_processes()
    if stragglers:
        warnings.warn(f"processes running with the test HOME had to be ended: {stragglers}")


@pytest.fixture
def make_site(request):
    sites: list[FixtureSite] = []

    def _make(host: str = "127.0.0.1", port: int = 0) -> FixtureSite:
        s = FixtureSite(host, port).start()
        sites.append(s)
        return s

    request.node._fixture_sites = sites
    yield _make
    errors = [(r.href, r.data) for s in sites for r in s.errors()]
    for s in sites:
        s.stop()
    if errors:
        # A broken fixture page would make every check built on it meaningless.
        pytest.fail(f"fixture pages reported script errors: {errors}")


@pytest.fixture
def site(make_site):
    return make_site("127.0.0.1")


@pytest.fixture
def launch(home, desktop, request):
    started: list[Orvane] = []

    def _launch(*args: str) -> Orvane:
        o = Orvane(home, desktop, args)
        started.append(o)
        return o.start()

    request.node._orvanes = started
    yield _launch
    for o in started:
        o.stop()


@pytest.fixture
def file_manager_service(desktop, home):
    service = FileManagerService(desktop, home.calls_file("filemanager1")).start()
    try:
        yield service
    finally:
        service.stop()


@pytest.fixture
def clients(desktop, tmp_path):
    started = Clients(desktop, tmp_path / "clients")
    try:
        yield started
    finally:
        started.stop()


@pytest.fixture
def sized(home, desktop, tmp_path):
    app = SizedApp(home, desktop, tmp_path / "sized")
    try:
        yield app
    finally:
        app.stop()


@pytest.fixture
def notification_service(desktop, home):
    service = NotificationService(desktop, home.calls_file("notifications")).start()
    try:
        yield service
    finally:
        service.stop()


@pytest.fixture(scope="module")
def bare_desktop():
    yield from _running(Desktop(window_manager=False), "bare desktop")


TWO_MONITORS = [(1920, 1080), (1440, 900)]


@pytest.fixture(scope="module")
def two_monitor_desktop():
    yield from _running(Desktop(monitors=TWO_MONITORS), "two-monitor desktop")


@pytest.fixture
def other_bus(tmp_path):
    bus = SessionBus(tmp_path / "other-bus").start()
    try:
        yield bus
    finally:
        leftovers = bus.stop()
        if leftovers:
            warnings.warn(f"processes left on the second bus had to be ended: {leftovers}")


@pytest.fixture(scope="session")
def release(tmp_path_factory):
    try:
        return make_release(tmp_path_factory.mktemp("release"))
    except FileNotFoundError as exc:
        pytest.fail(str(exc))


@pytest.fixture
def agent(home):
    return StandInAgent(home)


@pytest.fixture
def reference_site(tmp_path, request):
    s = ReferenceSite(tmp_path / "site-data", tmp_path / "reference-site.out").start()
    request.node._reference_sites = [s]
    try:
        yield s
    finally:
        s.stop()


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    if report.when != "call" or not report.failed:
        return
    funcargs = getattr(item, "funcargs", {})
    if "desktop" not in funcargs:
        return
    folder = ARTIFACTS / re.sub(r"[^A-Za-z0-9_.-]+", "_", item.name)
    try:
        shutil.rmtree(folder, ignore_errors=True)
        folder.mkdir(parents=True, exist_ok=True)
        funcargs["desktop"].screenshot(folder / "screen.png")
        h = funcargs.get("home")
        if h is not None and h.log_path.exists():
            shutil.copy(h.log_path, folder / "Orvane.log")
        for n, o in enumerate(getattr(item, "_orvanes", [])):
            (folder / f"orvane-{n}.out").write_text(o.output())
        for n, s in enumerate(getattr(item, "_fixture_sites", [])):
            (folder / f"site-{n}.txt").write_text(s.describe())
        for n, s in enumerate(getattr(item, "_reference_sites", [])):
            (folder / f"reference-site-{n}.txt").write_text(s.describe())
        report.sections.append(("e2e artifacts", f"kept in {folder}"))
    except Exception as exc:  # a failed screenshot must not hide the real failure
        report.sections.append(("e2e artifacts", f"could not be saved: {exc!r}"))
