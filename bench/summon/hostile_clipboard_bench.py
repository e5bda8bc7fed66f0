#!/usr/bin/python3
"""Main-loop latency during a capture that waits on a hostile CLIPBOARD owner:
how long a page's "hello" takes to be answered while ⌥B's capture saves a
CLIPBOARD whose owner lists four hundred targets and converts none of them.

Everything runs on a private desktop of the end-to-end harness (Xvfb,
openbox, a private bus) with the built `orvane` (build/orvane or
$ORVANE_BIN) in a throwaway home, against the fixture site. Each round
starts a fresh hostile owner (tests/e2e/fixtures/bin/hostile_clipboard_owner.py),
presses Alt+B over a text window with nothing selected, and, once the owner
has been asked for its data, has the library page post "hello"; the figure
is the time from the page's mark just before the post to the arrival of the
"claudeStatus" answer (both as the fixture site received them).

    /usr/bin/python3 bench/summon/hostile_clipboard_bench.py [--rounds 5]

Prints the median and the worst, and the goal (worst at most 500 ms); the
goal is reported, never enforced.
"""

from __future__ import annotations

import argparse
import statistics
import sys
import tempfile
from pathlib import Path

REPO = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(REPO / "tests" / "e2e"))

from harness import (  # noqa: E402
    CAPTURE_FIXTURES,
    PYTHON,
    Clients,
    Desktop,
    FixtureSite,
    Home,
    Orvane,
    wait_until,
)

GOAL_MS = 500.0
# What the capture logs when it gives up on the owner.
CAPTURE_END = "clipboard: its owner stopped answering"
HOSTILE_OWNER = CAPTURE_FIXTURES / "hostile_clipboard_owner.py"


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--rounds", type=int, default=5)
    args = parser.parse_args()

    scratch = Path(tempfile.mkdtemp(prefix="orvane-hostile-bench-"))
    desktop = Desktop().start()
    site = FixtureSite().start()
    clients = Clients(desktop, scratch / "clients")
    home = Home(scratch / "home", desktop)
    home.install_fixture_apps()
    home.write_settings(AppURL=site.url, ProjectDir=str(scratch / "no-such-project"))
    orvane = Orvane(home, desktop)
    figures: list[float] = []
    try:
        orvane.start()
        if "FAILED" in home.wait_for_log(lambda m: m.startswith("hotkeys: ")):
            print("the hotkeys could not be registered; no figures", file=sys.stderr)
            return 1
        library = site.wait_for_load("/")
        window = clients.text_window("nothing is selected here", select=(0, 0), no_primary=True)
        for n in range(args.rounds):
            hostile = clients.program([PYTHON, str(HOSTILE_OWNER), "400"], ready="ready")
            desktop.activate_and_focus(window.window)
            answers_before = len([r for r in site.event_records()
                                  if r.page == library.page and r.data.get("type") == "claudeStatus"])
            desktop.press("alt+b")
            wait_until(lambda: "asked " in hostile.output(), what=f"round {n + 1}: the owner to be asked")
            mark = f"hello {n + 1}"
            site.run_in_page([{"mark": mark}, {"post": {"action": "hello", "account": "alice"}},
                              {"wait": 50}], page=library.page)
            answer = wait_until(
                lambda: ([r for r in site.event_records()
                          if r.page == library.page and r.data.get("type") == "claudeStatus"]
                         [answers_before:] or [None])[0],
                what=f"round {n + 1}: the answer to hello")
            sent = next(r.time for r in site.records("mark") if r.data == mark)
            figures.append((answer.time - sent) * 1000)
            # The capture ends once the owner has used up its budget; the
            # next round brings the text window to the front again, and its
            # Alt+B summons the panel afresh.
            wait_until(lambda: sum(m.startswith(CAPTURE_END) for m in home.log_messages()) > n,
                       what=f"round {n + 1}: the capture to end")
            hostile.stop()
    except Exception:
        print("\n".join(home.log_messages()[-15:]), file=sys.stderr)
        raise
    finally:
        clients.stop()
        orvane.stop()
        home.end_processes()
        site.stop()
        desktop.stop()

    print(f"hello answered during a hostile capture: median {statistics.median(figures):7.1f} ms   "
          f"worst {max(figures):7.1f} ms   (n={len(figures)})")
    met = max(figures) <= GOAL_MS
    print(f"goal: worst <= {GOAL_MS:.0f} ms: {'met' if met else 'NOT met'}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
