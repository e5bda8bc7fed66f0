"""The application as a whole: site data that survives a restart, Quit,
and the Check Accessibility Permission menu command."""

from harness import wait_until

APP_ID = "com.tarnwick.orvane"


def _marks(site):
    return [r.data for r in site.records("mark") if isinstance(r.data, dict)]


def test_site_login_survives_a_restart(home, site, desktop, launch):
    home.write_settings(AppURL=site.url)
    site.set_scenario([{"navigate": "/storage.html"}])

    first = launch()
    wait_until(lambda: any(m.get("stored") for m in _marks(site)), what="the page to store its login")
    found = [m["found"] for m in _marks(site) if "found" in m]
    assert found == [{"cookie": "", "local": None}], found

    # Quit from the application menu's action, as the user's Ctrl+Q does.
    result = desktop.run_tool("gapplication", "action", APP_ID, "quit")
    assert result.returncode == 0, result
    assert first.wait_exit(timeout=20) == 0

    second = launch()
    wait_until(lambda: len([m for m in _marks(site) if "found" in m]) == 2,
               what="the page to report what it found after the restart")
    found = [m["found"] for m in _marks(site) if "found" in m]
    assert found[1] == {"cookie": "login=alice", "local": "alice"}, found
    assert second.running()


def test_check_accessibility_from_the_menu_logs_and_shows_the_alert(home, site, desktop, launch):
    home.write_settings(AppURL=site.url)
    orvane = launch()
    orvane.wait_for_window("library")
    result = desktop.run_tool("gapplication", "action", APP_ID, "check-accessibility")
    assert result.returncode == 0, result
    home.wait_for_log("accessibility check from menu: trusted")

    def alert():
        found = desktop.run_tool("xdotool", "search", "--onlyvisible", "--name",
                                 "^Accessibility is granted$")
        return found.stdout.split()

    windows = wait_until(alert, what="the alert window")
    assert len(windows) == 1
