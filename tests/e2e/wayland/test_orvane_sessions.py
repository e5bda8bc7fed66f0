"""Orvane on the Wayland test sessions."""

from __future__ import annotations


def test_orvane_runs_in_the_app_scope_of_the_kwin_session(kwin_session, wayland_orvane, app_scope, site):
    orvane = wayland_orvane(kwin_session, AppURL=site.url)
    orvane.home.wait_for_log(lambda m: m.startswith("hotkeys: "), timeout=30)
    with open(f"/proc/{orvane.pid}/cgroup", encoding="utf-8") as fh:
        cgroups = fh.read()
    assert f"/app.slice/{app_scope.unit}" in cgroups
    assert orvane.pid in app_scope.pids()
