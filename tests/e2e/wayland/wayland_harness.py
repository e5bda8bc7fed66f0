"""End-to-end harness for Wayland sessions: a headless KWin or mutter session
(tests/wayland/sessions.py) dressed up as a desktop that the X11 harness's
`Home`, `Orvane` and `Program` work with, native Wayland test clients, key
presses through KWin's fake-input, a GlobalShortcuts portal client in an
application scope, and KWin scripts that report back over D-Bus.

Processes are ended only by the pids this harness started (or, for what
those left behind, by the session's marker variable, see sessions.py).
"""

from __future__ import annotations

import json
import os
import re
import subprocess
import sys
import uuid
from pathlib import Path
from typing import Any

WAYLAND_E2E_DIR = Path(__file__).resolve().parent
E2E_DIR = WAYLAND_E2E_DIR.parent
REPO_ROOT = E2E_DIR.parents[1]
sys.path.insert(0, str(E2E_DIR))
sys.path.insert(0, str(REPO_ROOT / "tests" / "wayland"))

from harness import (  # noqa: E402
    APP_ID,
    DEFAULT_TIMEOUT,
    PYTHON,
    Home,
    Orvane,
    Program,
    _Client,
    clean_base_env,
    pids_with_env,
    read_json_lines,
    wait_until,
)
from sessions import AppScope, KWinSession, MutterSession  # noqa: E402

FIXTURES = WAYLAND_E2E_DIR / "fixtures"
NATIVE_WINDOW = FIXTURES / "native_window.py"
SHORTCUTS_CLIENT = FIXTURES / "shortcuts_client.py"
SCRIPT_SINK = FIXTURES / "script_sink.py"
SCRIPT_SINK_NAME = "org.tarnwick.OrvaneE2E.ScriptSink"
RUN_IN_KWIN_SESSION = REPO_ROOT / "tests" / "wayland" / "run-in-kwin-session"
RUN_IN_MUTTER_SESSION = REPO_ROOT / "tests" / "wayland" / "run-in-mutter-session"
IN_APP_SCOPE = REPO_ROOT / "tests" / "wayland" / "in-app-scope"


def fake_keys_binary() -> Path:
    """build/orvane_fake_keys, or $ORVANE_FAKE_KEYS (CTest sets it)."""
    configured = os.environ.get("ORVANE_FAKE_KEYS")
    path = Path(configured) if configured else REPO_ROOT / "build" / "orvane_fake_keys"
    if not path.is_file() or not os.access(path, os.X_OK):
        raise FileNotFoundError(
            f"the key presser is missing: {path} (cmake --build build --target orvane_fake_keys, "
            "or set ORVANE_FAKE_KEYS)")
    return path


class _SessionDesktop:
    """What the X11 harness asks of a desktop (`env()`, `tool_env()`,
    `run_tool()`, `name_has_owner()`), for a Wayland session. Mixed into
    the session classes of sessions.py."""

    def env(self) -> dict[str, str]:
        env = super().env()  # type: ignore[misc]
        env["NO_AT_BRIDGE"] = "1"
        return env

    def tool_env(self) -> dict[str, str]:
        """A clean environment for the tools and clients the tests run in
        the session (the caller's desktop left out)."""
        env = clean_base_env()
        env["HOME"] = str(self.root / "home")  # type: ignore[attr-defined]
        env.update(self.env())
        return env

    def run_tool(self, *argv: str, timeout: float = 10.0, check: bool = False) -> subprocess.CompletedProcess:
        return subprocess.run(list(argv), env=self.tool_env(), stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=timeout, check=check)

    def name_has_owner(self, name: str = APP_ID) -> bool:
        return super().name_has_owner(name)  # type: ignore[misc]

    def name_owner(self, name: str) -> str | None:
        result = self.run_tool("gdbus", "call", "--session", "--dest", "org.freedesktop.DBus",
                               "--object-path", "/org/freedesktop/DBus",
                               "--method", "org.freedesktop.DBus.GetNameOwner", name)
        if result.returncode != 0:
            return None
        return result.stdout.strip().strip("(),").strip("'")

    def screenshot(self, path: Path | str) -> None:
        """No headless screenshots on these sessions (KWin's needs GPU
        compositing); the failure report keeps the logs instead."""
        return None


class KWinTestSession(_SessionDesktop, KWinSession):
    """A KWin session for one test: `press(chord...)`, `run_script(js)`."""

    def press(self, *chords: str) -> None:
        """Press key chords ("alt+b", "ctrl+shift+c", "x") through KWin's
        fake-input; they have reached the focused client when this returns."""
        result = self.run_tool(str(fake_keys_binary()), *chords, timeout=20)
        if result.returncode != 0:
            raise AssertionError(f"orvane_fake_keys {' '.join(chords)} failed "
                                 f"({result.returncode}): {result.stderr.strip()}")

    def run_script(self, source: str, sink: "ScriptSink", timeout: float = DEFAULT_TIMEOUT) -> dict[str, Any]:
        """Load `source` as a KWin script (org.kde.KWin /Scripting
        loadScript), run it, and return the first report it sends to `sink`
        with callDBus (as {"sender", "text", "value": the JSON text read})."""
        assert self.root is not None
        plugin = f"orvane_e2e_{uuid.uuid4().hex[:12]}"
        path = self.root / f"{plugin}.js"
        path.write_text(source, encoding="utf-8")
        seen = len(sink.reports())
        loaded = self.run_tool("gdbus", "call", "--session", "--dest", "org.kde.KWin",
                               "--object-path", "/Scripting",
                               "--method", "org.kde.kwin.Scripting.loadScript", str(path), plugin,
                               check=True).stdout.strip()
        script_id = int(loaded.strip("(),"))
        assert script_id >= 0, f"KWin did not load the script: {loaded}"
        try:
            self.run_tool("gdbus", "call", "--session", "--dest", "org.kde.KWin",
                          "--object-path", f"/{script_id}", "--method", "org.kde.kwin.Script.run",
                          check=True)
            report = wait_until(lambda: sink.reports()[seen:], timeout,
                                what="the KWin script's report")[0]
        finally:
            self.run_tool("gdbus", "call", "--session", "--dest", "org.kde.KWin",
                          "--object-path", "/Scripting",
                          "--method", "org.kde.kwin.Scripting.unloadScript", plugin)
        report["value"] = json.loads(report["text"])
        return report

    def active_window(self, sink: "ScriptSink") -> dict[str, Any] | None:
        """KWin's active window: {"pid", "caption", "resourceClass"}, or None."""
        return self.run_script("""
            var c = workspace.activeClient;
            callDBus("org.tarnwick.OrvaneE2E.ScriptSink", "/ScriptSink",
                     "org.tarnwick.OrvaneE2E.ScriptSink", "Report",
                     JSON.stringify(c ? {pid: c.pid, caption: c.caption,
                                         resourceClass: String(c.resourceClass)} : null));
        """, sink)["value"]

    def shortcut_components(self) -> list[str]:
        """kglobalaccel's components (object paths under /component)."""
        out = self.run_tool("gdbus", "call", "--session", "--dest", "org.kde.kglobalaccel",
                            "--object-path", "/kglobalaccel",
                            "--method", "org.kde.KGlobalAccel.allComponents", check=True).stdout
        return re.findall(r"'(/component/[^']*)'", out)


class MutterTestSession(_SessionDesktop, MutterSession):
    """A mutter session (no Orvane backend) for one test."""


class NativeWindow(_Client):
    """fixtures/native_window.py: a native Wayland GTK window with a text
    entry whose text it selects (PRIMARY) once it has the keyboard; `keys()`
    are the key presses that reached it, `texts()` the entry's text after
    each change."""

    def __init__(self, session: _SessionDesktop, state: Path, text: str, title: str):
        super().__init__(session, state)  # type: ignore[arg-type]
        self.text = text
        self.title = title
        self.info: dict[str, Any] = {}

    def start(self, focused: bool = True) -> "NativeWindow":
        """Show the window; with `focused`, wait until it has the keyboard
        (and owns PRIMARY), else only until it is mapped."""
        env = self.desktop.tool_env()
        env["GDK_BACKEND"] = "wayland"
        self._spawn([PYTHON, str(NATIVE_WINDOW), str(self.state), "--text", self.text,
                     "--title", self.title], env)
        marker = "ready.json" if focused else "mapped.json"

        def shown():
            self._alive_or_fail("the native window")
            return json.loads((self.state / marker).read_text(encoding="utf-8"))
        self.info = wait_until(shown, what=f"the native window ({marker})")
        return self

    def keys(self) -> list[dict[str, Any]]:
        return read_json_lines(self.state / "keys.jsonl")

    def key_names(self) -> list[str]:
        return [k["key"] for k in self.keys()]

    def texts(self) -> list[str]:
        return [t["text"] for t in read_json_lines(self.state / "text.jsonl")]

    def primary_texts(self) -> list[str]:
        """PRIMARY's text as the compositor gave it back after each change
        it reported to the window ("" for none)."""
        return [t["text"] for t in read_json_lines(self.state / "primary.jsonl")]


class ShortcutsClient(_Client):
    """fixtures/shortcuts_client.py, a GlobalShortcuts portal client, started
    inside an application scope (so the portal knows its app id)."""

    def __init__(self, session: _SessionDesktop, state: Path, scope: AppScope | None,
                 shortcuts: dict[str, str], token: str):
        super().__init__(session, state)  # type: ignore[arg-type]
        self.scope = scope
        self.shortcuts = shortcuts
        self.token = token
        self.result: dict[str, Any] = {}

    def start(self) -> "ShortcutsClient":
        argv = [PYTHON, str(SHORTCUTS_CLIENT), str(self.state), "--token", self.token]
        for sid, trigger in self.shortcuts.items():
            argv += ["--shortcut", f"{sid}={trigger}=E2E {sid}"]
        self._spawn(self.scope.wrap(argv) if self.scope else argv)

        def answered():
            self._alive_or_fail("the shortcuts client")
            failed = self.state / "failed.json"
            if failed.exists():
                raise AssertionError(f"the portal refused: {failed.read_text()}")
            return json.loads((self.state / "ready.json").read_text(encoding="utf-8"))
        self.result = wait_until(answered, what="the portal to answer CreateSession and BindShortcuts")
        return self

    def signals(self, name: str | None = None) -> list[dict[str, Any]]:
        found = read_json_lines(self.state / "signals.jsonl")
        return [s for s in found if name is None or s["signal"] == name]

    def wait_for_activation(self, shortcut: str, timeout: float = DEFAULT_TIMEOUT) -> dict[str, Any]:
        return wait_until(lambda: [s for s in self.signals("Activated") if s["shortcut"] == shortcut],
                          timeout, what=f"Activated for {shortcut!r}")[0]


class ScriptSink(Program):
    """fixtures/script_sink.py: the D-Bus object KWin scripts report to."""

    def __init__(self, session: _SessionDesktop, state: Path):
        super().__init__(session, state, [PYTHON, str(SCRIPT_SINK), str(Path(state) / "reports.jsonl")],
                         "ready")  # type: ignore[arg-type]

    def reports(self) -> list[dict[str, Any]]:
        return read_json_lines(self.state / "reports.jsonl")


class ScopedOrvane(Orvane):
    """Orvane in a Wayland session, inside an app-com.tarnwick.orvane-N.scope
    cgroup as a desktop launcher would start it."""

    def __init__(self, home: Home, session: _SessionDesktop, scope: AppScope | None, args=(), binary=None):
        super().__init__(home, session, args, binary)  # type: ignore[arg-type]
        self.scope = scope
        if scope is not None:
            self.command_prefix = scope.wrap([])
