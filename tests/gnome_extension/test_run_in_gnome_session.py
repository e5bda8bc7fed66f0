"""tests/wayland/run-in-gnome-session: the command runs inside the session
(its Wayland socket, its bus, the extension enabled or not as asked, keys
through $ORVANE_GNOME_KEYS reach a native window) and its exit status is
the wrapper's."""

from __future__ import annotations

import subprocess
import sys

from conftest import NATIVE_WINDOW, REPO

WRAPPER = REPO / "tests" / "wayland" / "run-in-gnome-session"

INSIDE = r"""
import json, os, subprocess, sys, tempfile, time
assert "DISPLAY" not in os.environ
assert os.environ["XDG_CURRENT_DESKTOP"] == "GNOME"
assert os.path.exists(os.path.join(os.environ["XDG_RUNTIME_DIR"], os.environ["WAYLAND_DISPLAY"]))
info = subprocess.run(["gdbus", "call", "--session", "--dest", "org.gnome.Shell",
                       "--object-path", "/org/gnome/Shell", "--method",
                       "org.gnome.Shell.Extensions.GetExtensionInfo", "orvane@tarnwick.com"],
                      capture_output=True, text=True, check=True).stdout
import re
found = re.search(r"'state': <([0-9.]+)>", info)
print("STATE", found.group(1) if found else "none", flush=True)
state = tempfile.mkdtemp()
env = dict(os.environ, GDK_BACKEND="wayland")
window = subprocess.Popen([sys.executable, NATIVE, state, "--text", ""], env=env)
for _ in range(150):
    if os.path.exists(os.path.join(state, "ready.json")):
        break
    time.sleep(0.1)
with open(os.environ["ORVANE_GNOME_KEYS"], "w") as keys:
    keys.write("h\ni\n")
for _ in range(100):
    path = os.path.join(state, "text.jsonl")
    if os.path.exists(path) and '"hi"' in open(path).read():
        break
    time.sleep(0.1)
window.terminate()
window.wait()
print("TYPED", open(os.path.join(state, "text.jsonl")).read().splitlines()[-1], flush=True)
sys.exit(7)
"""


def run(*options: str) -> subprocess.CompletedProcess:
    script = INSIDE.replace("NATIVE", repr(str(NATIVE_WINDOW)))
    return subprocess.run([str(WRAPPER), *options, "--timeout", "60", "--",
                           sys.executable, "-c", script],
                          capture_output=True, text=True, timeout=120)


def test_the_command_runs_in_the_session_with_the_extension_and_keys():
    result = run()
    assert result.returncode == 7, result.stderr
    # GetExtensionInfo's state 1 is ENABLED.
    assert "STATE 1.0\n" in result.stdout, result.stdout
    assert 'TYPED {"text": "hi"}' in result.stdout, result.stdout


def test_the_extension_can_be_left_disabled():
    result = run("--extension-disabled")
    assert result.returncode == 7, result.stderr
    # State 6 is INITIALIZED: installed and known to the shell, never
    # enabled (2, DISABLED, would be one enabled and then disabled).
    assert "STATE 6.0\n" in result.stdout, result.stdout
    assert 'TYPED {"text": "hi"}' in result.stdout, result.stdout


def test_without_the_extension_the_shell_does_not_know_it():
    result = run("--no-extension")
    assert result.returncode == 7, result.stderr
    assert "STATE none\n" in result.stdout, result.stdout
    assert 'TYPED {"text": "hi"}' in result.stdout, result.stdout
