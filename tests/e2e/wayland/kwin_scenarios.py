"""What the KWin capture and placement tests add to the Wayland harness:
reading KWin's window list and outputs back through a KWin script, moving
and activating a window there, and native Wayland clients of their own (a
window whose text only a copy gets out, a data-control owner of the
CLIPBOARD or PRIMARY with several MIME types, zathura on GDK's Wayland
backend).

Everything is read back from KWin itself (frameGeometry in KWin's
coordinates: y downwards, output 1 at x 0..1600, output 2 at x 1600..3200),
not from what Orvane logs. The GNOME scenarios share the native clients, the
fixtures' texts below and the helpers that do not read the desktop.
"""

from __future__ import annotations

import json
import os
import urllib.parse
from pathlib import Path
from typing import Any

import pytest

from harness import WaitTimeout  # noqa: E402
from wayland_harness import (
    PYTHON,
    REPO_ROOT,
    WAYLAND_E2E_DIR,
    _Client,
    read_json_lines,
    wait_until,
)

COPY_WINDOW = WAYLAND_E2E_DIR / "fixtures" / "copy_window.py"

HOTKEYS_OK = "hotkeys: \u2325B registered, \u2325C registered, \u2325Q registered, \u2325V registered"
# GtkEntry holds one line: the X11 tests' awkward text without its line break.
AWKWARD = 'Entangled \u00e9tats & "quotes" = 100% / sure? ~ok_-. \u00fc'
NATIVE_CLASS = "orvane-e2e-native"
# The library the quote and split scenarios open: one paper of three pages.
ACCOUNT = "alice"
PAPER_ID = "cs/0101123"
PAGES = ["First page opening words here", "Second page lattice argument", "Third page closing remark now"]

# The window list (KWin 5.27's clientList, Plasma 6's windowList) and the
# outputs, as one JSON report.
_STATE_JS = """
var list = workspace.clientList ? workspace.clientList() : workspace.windowList();
var active = workspace.activeClient !== undefined ? workspace.activeClient : workspace.activeWindow;
var out = [];
for (var i = 0; i < list.length; ++i) {
  var c = list[i], g = c.frameGeometry;
  out.push({id: String(c.internalId), pid: c.pid, caption: String(c.caption), resourceClass: String(c.resourceClass),
            resourceName: String(c.resourceName), normal: !!c.normalWindow,
            active: c === active, layer: c.layer,
            frame: [g.x, g.y, g.width, g.height]});
}
var screens = [];
var count = workspace.numScreens !== undefined ? workspace.numScreens : workspace.screens.length;
for (var s = 0; s < count; ++s) {
  var a = workspace.clientArea(KWin.FullScreenArea, workspace.screens ? workspace.screens[s] : s, 1);
  screens.push([a.x, a.y, a.width, a.height]);
}
callDBus("org.tarnwick.OrvaneE2E.ScriptSink", "/ScriptSink", "org.tarnwick.OrvaneE2E.ScriptSink",
         "Report", JSON.stringify({windows: out, screens: screens}));
"""

# Runs BODY with `c` the first normal window of PID (reporting false when
# there is none).
_ON_PID_JS = """
var list = workspace.clientList ? workspace.clientList() : workspace.windowList();
var c = null;
for (var i = 0; i < list.length; ++i)
  if (list[i].pid === %(pid)d && list[i].normalWindow) { c = list[i]; break; }
var done = false;
if (c) {
%(body)s
  done = true;
}
callDBus("org.tarnwick.OrvaneE2E.ScriptSink", "/ScriptSink", "org.tarnwick.OrvaneE2E.ScriptSink",
         "Report", JSON.stringify(done));
"""


def centred(screen: list[int] | tuple[int, ...], size: tuple[int, int]) -> tuple[int, int, int, int]:
    """A frame of `size` centred on an output (KWin coordinates), rounded as
    Orvane rounds (half a pixel up)."""
    x, y, width, height = screen
    return (int(x + (width - size[0]) / 2 + 0.5), int(y + (height - size[1]) / 2 + 0.5), size[0], size[1])


def as_logged(frame: tuple[int, int, int, int], primary_height: int = 1000) -> str:
    """A KWin frame as Orvane's log writes it (y up from the primary's
    bottom edge)."""
    x, y, width, height = frame
    return f"{{{{{x:g}, {primary_height - (y + height):g}}}, {{{width:g}, {height:g}}}}}"


def install_native_zathura(home_path: Path) -> str:
    """Registers zathura on GDK's Wayland backend as a PDF viewer in the
    home at `home_path` (made before Orvane starts in it); the desktop
    file's name, for the setting PdfViewer."""
    config = home_path / "zathura"
    config.mkdir(parents=True)
    applications = home_path / ".local" / "share" / "applications"
    applications.mkdir(parents=True)
    (config / "zathurarc").write_text('set window-title-basename true\nset guioptions ""\n')
    (applications / "orvane-e2e-zathura.desktop").write_text(
        "[Desktop Entry]\nType=Application\nName=zathura on Wayland for the tests\n"
        f'Exec=env GDK_BACKEND=wayland zathura --config-dir "{config}" --data-dir "{config}" '
        f'--cache-dir "{config}" %f\nMimeType=application/pdf;\nTerminal=false\n', encoding="utf-8")
    return "orvane-e2e-zathura.desktop"


def query_escape(text: str) -> str:
    return urllib.parse.quote(text.encode("utf-8"), safe="-._~")


def add_load(site, text: str | None = None):
    """The next page load on "/?add=" (with exactly `text` when given)."""
    def matches(record):
        query = urllib.parse.urlsplit(record.href).query
        return query.startswith("add=") and (text is None or query == "add=" + query_escape(text))
    return site.wait_for_load(matches)


def keys_on(site, page: str) -> list[str]:
    return [r.data["key"] for r in site.records("key") if r.page == page and r.data.get("isTrusted")]


def wait_for_value(read, expected, what: str) -> None:
    """Waits until read() gives `expected`; a time-out says what it gave last."""
    seen = []

    def there():
        seen[:] = [read()]
        return seen[0] == expected
    try:
        wait_until(there, what=f"{what} at {expected}")
    except WaitTimeout as exc:
        raise AssertionError(f"{exc}; it is at {seen[0] if seen else None}") from None


class KWinView:
    """KWin's own view of the session, through scripts reporting to a
    script sink."""

    def __init__(self, session, sink):
        self.session = session
        self.sink = sink

    def state(self) -> dict[str, Any]:
        return self.session.run_script(_STATE_JS, self.sink)["value"]

    def windows(self) -> list[dict[str, Any]]:
        return self.state()["windows"]

    def screens(self) -> list[list[int]]:
        return self.state()["screens"]

    def windows_of(self, pid: int) -> list[dict[str, Any]]:
        return [w for w in self.windows() if w["pid"] == pid]

    def window_of(self, pid: int, caption: str | None = None) -> dict[str, Any] | None:
        for window in self.windows_of(pid):
            if window["normal"] and (caption is None or window["caption"] == caption):
                return window
        return None

    def wait_window_of(self, pid: int, caption: str | None = None, what: str = "") -> dict[str, Any]:
        return wait_until(lambda: self.window_of(pid, caption),
                          what=what or f"a normal window of pid {pid} in KWin's list")

    def frame_of(self, pid: int, caption: str | None = None) -> tuple[int, ...] | None:
        window = self.window_of(pid, caption)
        return tuple(window["frame"]) if window else None

    def active(self) -> dict[str, Any] | None:
        return next((w for w in self.windows() if w["active"]), None)

    def _on_pid(self, pid: int, body: str) -> bool:
        return self.session.run_script(_ON_PID_JS % {"pid": pid, "body": body}, self.sink)["value"]

    def move(self, pid: int, x: int, y: int) -> None:
        """Moves the first normal window of `pid` (its size kept)."""
        assert self._on_pid(pid, "  var g = c.frameGeometry;\n"
                                 f"  c.frameGeometry = {{x: {x}, y: {y}, width: g.width, height: g.height}};"), \
            f"no window of pid {pid} to move"

    def activate(self, pid: int) -> None:
        """Makes the first normal window of `pid` the active one, as a click
        on it would."""
        assert self._on_pid(pid, "  if (workspace.activeClient !== undefined) workspace.activeClient = c;\n"
                                 "  else workspace.activeWindow = c;"), f"no window of pid {pid} to activate"
        wait_until(lambda: (self.active() or {}).get("pid") == pid, what=f"pid {pid} to be the active window")


def data_control_owner_binary() -> Path:
    """build/orvane_data_control_owner, or $ORVANE_DATA_CONTROL_OWNER (CTest
    sets it)."""
    configured = os.environ.get("ORVANE_DATA_CONTROL_OWNER")
    path = Path(configured) if configured else REPO_ROOT / "build" / "orvane_data_control_owner"
    if not path.is_file() or not os.access(path, os.X_OK):
        raise FileNotFoundError(f"the data-control owner is missing: {path} (cmake --build build "
                                "--target orvane_data_control_owner, or set ORVANE_DATA_CONTROL_OWNER)")
    return path


class CopyWindow(_Client):
    """fixtures/copy_window.py: a native window with the keyboard that has no
    PRIMARY and copies its text to the CLIPBOARD on Ctrl+C."""

    def __init__(self, session, state: Path, text: str, title: str, app_id: str):
        super().__init__(session, state)
        self.text, self.title, self.app_id = text, title, app_id
        self.info: dict[str, Any] = {}

    def start(self) -> "CopyWindow":
        env = self.desktop.tool_env()
        env["GDK_BACKEND"] = "wayland"
        self._spawn([PYTHON, str(COPY_WINDOW), str(self.state), "--text", self.text, "--title", self.title,
                     "--app-id", self.app_id], env)

        def ready():
            self._alive_or_fail("the copy window")
            return json.loads((self.state / "ready.json").read_text(encoding="utf-8"))
        self.info = wait_until(ready, what="the copy window to have the keyboard")
        return self

    def keys(self) -> list[dict[str, Any]]:
        return read_json_lines(self.state / "keys.jsonl")

    def copies(self) -> list[str]:
        return [c["text"] for c in read_json_lines(self.state / "copies.jsonl")]


class DataControlOwner(_Client):
    """orvane_data_control_owner: owns the CLIPBOARD (or PRIMARY) with each
    MIME type serving exact bytes; it exits once another client takes it."""

    def __init__(self, session, state: Path, types: dict[str, bytes], primary: bool):
        super().__init__(session, state)
        self.types = dict(types)
        self.primary = primary

    def start(self) -> "DataControlOwner":
        argv = [str(data_control_owner_binary())]
        if self.primary:
            argv.append("--primary")
        for n, (mime, data) in enumerate(self.types.items()):
            path = self.state / f"type-{n}.bin"
            path.write_bytes(data)
            argv.append(f"{mime}={path}")
        self._spawn(argv)
        wait_until(lambda: (self._alive_or_fail("the data-control owner"), "ready" in self.output())[1],
                   what="the data-control owner to take the selection")
        return self

    def lost(self) -> bool:
        """Whether another client has taken the selection (the owner exits
        then)."""
        return self.proc is not None and self.proc.poll() is not None


class NativeZathura(_Client):
    """zathura on GDK's Wayland backend showing one PDF at a page."""

    def __init__(self, session, state: Path, pdf: Path, page: int):
        super().__init__(session, state)
        self.pdf, self.page = Path(pdf), page

    def start(self) -> "NativeZathura":
        config = self.state / "config"
        config.mkdir(exist_ok=True)
        (config / "zathurarc").write_text('set guioptions ""\nset window-title-basename true\n')
        env = self.desktop.tool_env()
        env["GDK_BACKEND"] = "wayland"
        self._spawn(["zathura", "--config-dir", str(config), "--data-dir", str(config),
                     "--cache-dir", str(config), "-P", str(self.page), str(self.pdf)], env)
        return self


class KWinExtras:
    """The clients of this module, all ended at the test's end."""

    def __init__(self, scratch: Path):
        self.scratch = scratch
        self.started: list[_Client] = []

    def _keep(self, client):
        self.started.append(client)
        return client.start()

    def _state(self, kind: str) -> Path:
        return self.scratch / f"{kind}-{len(self.started)}"

    def copy_window(self, session, text: str, title: str = "Orvane E2E copy window",
                    app_id: str = "orvane-e2e-copy") -> CopyWindow:
        return self._keep(CopyWindow(session, self._state("copy"), text, title, app_id))

    def selection_owner(self, session, types: dict[str, bytes], primary: bool = False) -> DataControlOwner:
        return self._keep(DataControlOwner(session, self._state("owner"), types, primary))

    def zathura(self, session, pdf: Path, page: int = 1) -> NativeZathura:
        return self._keep(NativeZathura(session, self._state("zathura"), pdf, page))

    def stop(self) -> None:
        for client in reversed(self.started):
            client.stop()


@pytest.fixture
def kwin_extras(tmp_path, app_scope):
    # After app_scope, so these are ended before the scope is removed.
    extras = KWinExtras(tmp_path / "kwin-extras")
    try:
        yield extras
    finally:
        extras.stop()
