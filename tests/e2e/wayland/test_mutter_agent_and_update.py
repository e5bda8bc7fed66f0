"""On a Wayland desktop Orvane has no backend for (GNOME's mutter), what does
not need the desktop still works: an agent turn started from the page
streams its output into the page and ends, and a signed update from a served
release archive is applied and the copy relaunches itself in the same
session.

Both run Orvane natively on Wayland in a fresh headless mutter session, in a
throwaway home, against the fixture site on loopback, and expect exactly
what the X11 tests (test_agent.py, test_update.py) expect there.
"""

from __future__ import annotations

import os
import warnings
from pathlib import Path

import pytest

from harness import (
    SIGN_TOOL,
    StandInAgent,
    folder_snapshot as snapshot,
    pid_alive,
    run,
    terminate_pids,
    wait_until,
)
from wayland_harness import Home, ScopedOrvane
from test_agent import STREAMING_AGENT, check_streaming_turn, hello, serve_paper_text
from test_update import (
    NEW_VERSION,
    STAGES,
    Releases,
    UpdateRun,
    banners,
    manifest_version,
    pids_running,
    progress,
    serve,
    trashed,
)

NO_BACKEND = "desktop: GNOME (Wayland) \u2014 no backend"


@pytest.fixture
def mutter_home(tmp_path, mutter_session):
    """A throwaway home in the mutter session (as wayland_orvane makes one),
    handed to the test before Orvane starts so that it can install what
    Orvane looks for at its start."""
    home = Home(tmp_path / "home", mutter_session)
    home.install_fixture_apps()
    home.write_settings(ProjectDir=str(tmp_path / "no-such-project"))
    yield home
    stragglers = home.end_processes()
    if stragglers:
        warnings.warn(f"processes running with the test HOME had to be ended: {stragglers}")


@pytest.fixture(scope="module")
def releases(release, tmp_path_factory):
    return Releases(release, tmp_path_factory.mktemp("mutter-update-archives"))


def session_env_of(pid: int) -> dict[str, str]:
    raw = Path(f"/proc/{pid}/environ").read_bytes().split(b"\0")
    pairs = (item.decode(errors="replace").partition("=") for item in raw if b"=" in item)
    return {name: value for name, _, value in pairs}


def test_an_agent_turn_streams_its_lines_into_the_page_and_ends_on_mutter(
        mutter_session, mutter_home, site, request):
    home = mutter_home
    agent = StandInAgent(home)
    agent_path = agent.install(STREAMING_AGENT)
    serve_paper_text(site)
    home.write_settings(AppURL=site.url)
    orvane = ScopedOrvane(home, mutter_session, None)
    request.node._wayland_orvanes = [orvane]
    request.addfinalizer(orvane.stop)
    orvane.start()

    # Orvane runs natively in the mutter session, without a backend.
    home.wait_for_log(NO_BACKEND, timeout=30)
    env = session_env_of(orvane.pid)
    assert env.get("WAYLAND_DISPLAY") == mutter_session.socket and "DISPLAY" not in env, env

    lib = site.wait_for_load("/", timeout=60)
    site.run_in_page([hello(), {"waitEvent": "claudeStatus"}], page=lib.page)
    status = site.wait_for_record(
        "event", lambda r: r.page == lib.page and r.data.get("type") == "claudeStatus").data
    check_streaming_turn(home, site, agent, agent_path, lib, status)
    assert orvane.running()


def test_a_signed_update_swaps_the_folder_and_relaunches_in_the_mutter_session(
        mutter_session, mutter_home, releases, site, request, tmp_path):
    home = mutter_home
    installed = releases.install(tmp_path / "apps")
    executable = installed / "bin" / "orvane"
    run_ = UpdateRun(home, mutter_session, site, request, tmp_path, executable)
    request.node._wayland_orvanes = [run_.orvane]
    old = run_.orvane.proc
    home.wait_for_log(NO_BACKEND, timeout=30)
    assert session_env_of(old.pid).get("WAYLAND_DISPLAY") == mutter_session.socket

    done = run_.update(serve(site, f"Orvane-{NEW_VERSION}.zip", releases.archive("good")))
    assert done == {"type": "updateDone", "ok": True}, home.log_messages()
    assert run_.update_events() == progress(*STAGES) + [done]
    # The old process quits by itself, normally.
    assert old.wait(timeout=30) == 0

    # A new process starts from the same path, in the same session.
    new_pids = wait_until(lambda: [p for p in pids_running(executable) if p != old.pid], 30,
                          what=f"a new orvane from {executable}")
    try:
        assert len(new_pids) == 1, new_pids
        new_pid = new_pids[0]
        assert os.readlink(f"/proc/{new_pid}/exe") == str(executable)
        env = session_env_of(new_pid)
        assert env.get("WAYLAND_DISPLAY") == mutter_session.socket, env
        assert env.get("DBUS_SESSION_BUS_ADDRESS") == mutter_session.bus_address, env
        assert "DISPLAY" not in env, env
        wait_until(lambda: len(banners(home)) == 2, what="the relaunched copy's start banner")
        # It chose the same desktop again and is the session's instance.
        wait_until(lambda: home.log_messages().count(NO_BACKEND) == 2, 30,
                   what="the relaunched copy's desktop line")
        assert run_.update_log() == ["update: " + s for s in STAGES] + ["update: installed, relaunching"]
        wait_until(lambda: mutter_session.name_has_owner(), 30, what="the relaunched copy to own its bus name")
        # Its library loads the site again.
        site.wait_for_load(lambda r: r.page != run_.page, timeout=60)

        # The folder is now the newer release, exactly as it was signed.
        verified = run(SIGN_TOOL, "verify", installed)
        assert verified.returncode == 0, verified.stderr
        assert manifest_version(installed) == f"version {NEW_VERSION}"
        assert snapshot(installed) == snapshot(releases.work / "good" / "Orvane")
        # Nothing is left behind: no work folder, no old copy.
        assert run_.work_folders() == []
        assert list(run_.tmpdir.iterdir()) == []
        assert sorted(p.name for p in installed.parent.iterdir()) == ["Orvane"]
        assert trashed(home) == []
        assert pid_alive(new_pid)
    finally:
        terminate_pids(new_pids)
        wait_until(lambda: not any(pid_alive(p) for p in new_pids), 15, what="the relaunched orvane to end")
