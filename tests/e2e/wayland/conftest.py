"""pytest fixtures for the end-to-end tests on Wayland sessions.

- `kwin_session`    a fresh headless KWin 5.27 session for the test (XWayland,
                    the desktop portals, fake-input): a KWinTestSession with
                    `env()`, `tool_env()`, `press("alt+b", ...)`,
                    `run_script(js, sink)`, `shortcut_components()`
- `mutter_session`  a fresh headless mutter 43 session (no Orvane backend)
- `app_scope`       an app-com.tarnwick.orvane-N.scope cgroup for the test,
                    removed at its end
- `wayland_clients` starts test clients in a session, all ended at the test's
                    end: `native_window(session, text=..., title=...)`,
                    `shortcuts_client(session, {"summon": "ALT+b"}, scope=...)`,
                    `script_sink(session)`
- `wayland_orvane`  starts Orvane in a session, in a throwaway home with the
                    fixture applications, inside the test's app scope:
                    `wayland_orvane(session, *args, **settings)` -> ScopedOrvane
                    (its `home` has the log); ended at the test's end

On a failed test the session's logs (the compositor's, the bus's, the
portals') are kept and their folder is named in the report.
"""

from __future__ import annotations

import sys
import warnings
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parent))

from wayland_harness import (  # noqa: E402
    APP_ID,
    AppScope,
    Home,
    ScopedOrvane,
    KWinTestSession,
    MutterTestSession,
    NativeWindow,
    ScriptSink,
    ShortcutsClient,
)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    if not report.failed:
        return
    item._wayland_failed = True
    for n, o in enumerate(getattr(item, "_wayland_orvanes", [])):
        # The activity log and the console output, where a failure shows.
        log = "\n".join(o.home.log_lines()[-60:])
        report.sections.append((f"Orvane {n} activity log ({o.home.log_path})", log))
        report.sections.append((f"Orvane {n} output ({o.out_path})", o.output()[-6000:]))


def _run_session(session, request, name):
    session.start()
    try:
        yield session
    finally:
        failed = getattr(request.node, "_wayland_failed", False)
        logs = session.logs
        leftovers = session.stop(failed=failed)
        if failed and logs is not None:
            print(f"\n{name} logs kept in {logs}", file=sys.stderr)
        if leftovers:
            warnings.warn(f"processes left in the {name} had to be ended: {leftovers}")


@pytest.fixture
def kwin_session(request):
    yield from _run_session(KWinTestSession(), request, "KWin session")


@pytest.fixture
def mutter_session(request):
    yield from _run_session(MutterTestSession(), request, "mutter session")


@pytest.fixture
def app_scope():
    scope = AppScope(APP_ID).create()
    yield scope
    if not scope.remove():
        warnings.warn(f"{scope.unit} still held processes {scope.pids()} and was left in place")


class WaylandClients:
    def __init__(self, scratch: Path):
        self.scratch = scratch
        self.started = []

    def _state(self, kind: str) -> Path:
        return self.scratch / f"{kind}-{len(self.started)}"

    def _keep(self, client):
        self.started.append(client)
        return client

    def native_window(self, session, text: str = "Orvane native text",
                      title: str = "Orvane E2E native", focused: bool = True) -> NativeWindow:
        client = self._keep(NativeWindow(session, self._state("native"), text, title))
        return client.start(focused=focused)

    def shortcuts_client(self, session, shortcuts: dict[str, str], scope: AppScope | None,
                         token: str = "orvane_e2e") -> ShortcutsClient:
        client = self._keep(ShortcutsClient(session, self._state("shortcuts"), scope, shortcuts, token))
        return client.start()

    def script_sink(self, session) -> ScriptSink:
        return self._keep(ScriptSink(session, self._state("sink"))).start()

    def stop(self) -> None:
        for client in reversed(self.started):
            client.stop()


@pytest.fixture
def wayland_orvane(tmp_path, request, app_scope):
    started: list[ScopedOrvane] = []
    request.node._wayland_orvanes = started

    def _start(session, *args: str, in_scope: bool = True, **settings: str) -> ScopedOrvane:
        home = Home(tmp_path / f"home-{len(started)}", session)
        home.install_fixture_apps()
        # A folder that does not exist: a failed probe of a local site never
        # starts a real development server.
        home.write_settings(ProjectDir=str(tmp_path / "no-such-project"), **settings)
        orvane = ScopedOrvane(home, session, app_scope if in_scope else None, args)
        started.append(orvane)
        return orvane.start()

    yield _start
    for orvane in started:
        orvane.stop()
        stragglers = orvane.home.end_processes()
        if stragglers:
            warnings.warn(f"processes running with the test HOME had to be ended: {stragglers}")


@pytest.fixture
def wayland_clients(tmp_path, app_scope):
    # Depends on app_scope so that the clients are ended before the scope is
    # removed.
    clients = WaylandClients(tmp_path / "wayland-clients")
    try:
        yield clients
    finally:
        clients.stop()
