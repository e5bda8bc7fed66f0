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


def test_files_dropped_on_the_library_window_are_announced(home, site, desktop, launch, tmp_path):
    import subprocess
    import time
    from pathlib import Path

    home.write_settings(AppURL=site.url)
    site.set_scenario([{"post": {"action": "hello", "account": "drops"}}])
    orvane = launch()
    library = orvane.wait_for_window("library")
    site.wait_for_event("claudeStatus")

    paper = tmp_path / "Dropped Paper.pdf"
    paper.write_bytes(b"%PDF-1.4\n" + b"x" * 100 + b"\n%%EOF\n")
    notes = tmp_path / "notes.txt"
    notes.write_text("not a paper")
    source = subprocess.Popen(
        ["/usr/bin/python3", str(Path(__file__).parent / "fixtures/bin/drag_source.py"),
         str(paper), str(notes)],
        env=desktop.env(), start_new_session=True)
    try:
        def source_window():
            found = desktop.run_tool("xdotool", "search", "--onlyvisible", "--name", "^Drag Source$")
            return found.stdout.split()
        start = wait_until(source_window, what="the drag source window")[0]
        src = desktop.window_info(int(start))
        dst = desktop.window_info(library)
        sx, sy = src["x"] + src["width"] // 2, src["y"] + src["height"] // 2
        dx, dy = dst["x"] + dst["width"] // 2, dst["y"] + dst["height"] // 2
        desktop.run_tool("xdotool", "mousemove", str(sx), str(sy))
        desktop.run_tool("xdotool", "mousedown", "1")
        # Move in steps, as a hand does, so that both sides see the drag.
        for i in range(1, 21):
            desktop.run_tool("xdotool", "mousemove", str(sx + (dx - sx) * i // 20),
                             str(sy + (dy - sy) * i // 20))
            time.sleep(0.03)
        time.sleep(0.3)
        desktop.run_tool("xdotool", "mouseup", "1")

        drop = site.wait_for_event("dockDrop")
        assert drop["name"] == "Dropped Paper.pdf"
        assert drop["size"] == paper.stat().st_size
        assert len(drop["token"]) == 36
        home.wait_for_log("dock drop: Dropped Paper.pdf")
        # The page stays: a dropped PDF does not replace the library page.
        ack = site.run_in_page([{"mark": "still here"}])
        assert ack.href == site.url + "/"
        assert [e["type"] for e in site.events()].count("dockDrop") == 1
    finally:
        source.terminate()
        source.wait(timeout=10)
