"""Orvane on the Wayland test sessions: on KWin it runs in its app scope,
chooses its KDE Plasma backend, is trusted and binds its hotkeys through the
portal; on mutter, a Wayland desktop it has no backend for, it says what it
cannot do (not trusted, every hotkey FAILED, one notification with the way
out) and the library still loads the site."""

from __future__ import annotations

import re
import urllib.parse

from harness import NotificationService, holds_for, wait_until
from wayland_harness import APP_ID

NOT_TRUSTED = "accessibility trusted: NO \u2014 selection capture and Preview tiling are off until granted"
HOTKEYS_FAILED = "hotkeys: \u2325B FAILED, \u2325C FAILED, \u2325Q FAILED, \u2325V FAILED"
HOTKEYS_REGISTERED = "hotkeys: \u2325B registered, \u2325C registered, \u2325Q registered, \u2325V registered"


def _start_lines(home) -> list[str]:
    """The log's messages up to and including the first "desktop:" line."""
    home.wait_for_log(lambda m: m.startswith("desktop: "), timeout=30)
    messages = home.log_messages()
    return messages[: next(i for i, m in enumerate(messages) if m.startswith("desktop: ")) + 1]


def test_orvane_runs_in_the_app_scope_of_the_kwin_session(kwin_session, wayland_orvane, app_scope, site):
    orvane = wayland_orvane(kwin_session, AppURL=site.url)
    orvane.home.wait_for_log(lambda m: m.startswith("hotkeys: "), timeout=30)
    with open(f"/proc/{orvane.pid}/cgroup", encoding="utf-8") as fh:
        cgroups = fh.read()
    assert f"/app.slice/{app_scope.unit}" in cgroups
    assert orvane.pid in app_scope.pids()


def test_orvane_on_kwin_chooses_kde_plasma_wayland(kwin_session, wayland_orvane, site):
    orvane = wayland_orvane(kwin_session, AppURL=site.url)
    lines = _start_lines(orvane.home)
    # The banner, the accessibility and hotkeys lines, then the desktop.
    assert lines[1].startswith("accessibility trusted: "), lines
    assert lines[2].startswith("hotkeys: "), lines
    assert len(lines) == 4 and lines[3].startswith("desktop: KDE Plasma (Wayland)"), lines
    assert kwin_session.name_has_owner(APP_ID)
    site.wait_for_load("/")


def test_orvane_on_kwin_says_kde_plasma_wayland_and_binds_its_hotkeys_through_the_portal(
        kwin_session, wayland_orvane, site):
    orvane = wayland_orvane(kwin_session, AppURL=site.url)
    lines = _start_lines(orvane.home)
    assert lines[1:] == ["accessibility trusted: YES", HOTKEYS_REGISTERED,
                         "desktop: KDE Plasma (Wayland)"], lines
    # The portal registered them for Orvane's app id (from its scope).
    assert any(c.startswith("/component/com_tarnwick_orvane") for c in kwin_session.shortcut_components())


def test_orvane_on_mutter_is_truthful_and_the_library_still_loads_the_site(
        mutter_session, wayland_orvane, reference_site, tmp_path):
    notifications = NotificationService(mutter_session, tmp_path / "notifications.jsonl").start()
    try:
        orvane = wayland_orvane(mutter_session, AppURL=reference_site.url)
        lines = _start_lines(orvane.home)
        assert lines[1] == NOT_TRUSTED, lines
        assert lines[2].count("FAILED") == 4 and lines[2] == HOTKEYS_FAILED, lines
        assert lines[3:] == ["desktop: GNOME (Wayland) \u2014 no backend"], lines

        # The library window loads the reference site as on any other desktop.
        orvane.home.wait_for_log("message: hello", timeout=60)
        requests = [(r.method, r.path, r.raw_query, r.status) for r in reference_site.requests()]
        assert ("GET", "/", "", 200) in requests, reference_site.describe()
        for path in ("/api/papers", "/api/inbox", "/api/me"):
            assert ("GET", path, "", 200) in requests, reference_site.describe()

        # One notification tells what is missing and the way out.
        call = notifications.wait_for_call()[0]
        assert "--capture-selection" in call["body"], call
        assert holds_for(lambda: len(notifications.calls()) == 1, 1.0), notifications.calls()
        assert orvane.running()
    finally:
        notifications.stop()


def test_alt_b_over_a_native_window_opens_the_panel_on_its_selection_and_the_window_never_sees_the_b(
        kwin_session, wayland_orvane, wayland_clients, site):
    sink = wayland_clients.script_sink(kwin_session)
    orvane = wayland_orvane(kwin_session, AppURL=site.url)
    orvane.home.wait_for_log("desktop: KDE Plasma (Wayland)", timeout=30)
    # Orvane's library window is up first, so the native window, opened
    # after it, is the one in front.
    site.wait_for_load("/", timeout=30)
    native = wayland_clients.native_window(kwin_session, text="native selected words")
    wait_until(lambda: (kwin_session.active_window(sink) or {}).get("pid") == native.pid,
               what="the native window to be KWin's active window")

    kwin_session.press("alt+b")
    # The selection came from the native window's PRIMARY, through the portal
    # hotkey, and the panel opened on it.
    load = site.wait_for_load(lambda r: "add=" in urllib.parse.urlsplit(r.href).query, timeout=30)
    assert urllib.parse.parse_qs(urllib.parse.urlsplit(load.href).query)["add"] == ["native selected words"]
    orvane.home.wait_for_log("hotkey: 21 chars from orvane-e2e-native")
    orvane.home.wait_for_log(lambda m: m.startswith("panel shown:"))
    # Centred on the output the native window is on (the first, 1600 x 1000).
    placed = next(m for m in orvane.home.log_messages() if m.startswith("panel placed:"))
    x, y, w, h = map(int, re.search(r"got \{\{(-?\d+), (-?\d+)\}, \{(\d+), (\d+)\}\}", placed).groups())
    assert (x + w // 2, y + h // 2) == (800, 500), placed
    # The window in front was getting keys (it saw the Alt), but not the B.
    assert "Alt_L" in native.key_names()
    assert holds_for(lambda: not {"b", "B"} & set(native.key_names()), 0.5), native.key_names()
