"""End-to-end harness for Orvane.

Everything here is real: an Xvfb display with the openbox window manager and a
private D-Bus session bus (`Desktop`), a throwaway home directory with fixture
"browser" and "PDF viewer" applications registered as the defaults (`Home`),
loopback HTTP servers that serve fixture pages and record what those pages see
(`FixtureSite`), and the built `orvane` binary itself (`Orvane`).

Processes are ended only by the pids and process groups this module created.
Waits are polls with generous time-outs that return as soon as the condition
holds; no timing is ever asserted.
"""

from __future__ import annotations

import contextlib
import hashlib
import json
import os
import re
import select
import shutil
import signal
import socket
import stat
import subprocess
import tempfile
import threading
import time
import urllib.parse
import urllib.request
from dataclasses import dataclass, field
from http import HTTPStatus
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path
from typing import Any, Callable, Iterable

E2E_DIR = Path(__file__).resolve().parent
REPO_ROOT = E2E_DIR.parents[1]
FIXTURES = E2E_DIR / "fixtures"
SHARED_FIXTURES = E2E_DIR.parent / "fixtures"  # stand-ins the X11 tests use as well
SITE_ROOT = FIXTURES / "site"
RECORDER = FIXTURES / "bin" / "record_call.py"
PYTHON = "/usr/bin/python3"

APP_ID = "com.tarnwick.orvane"
DEFAULT_TIMEOUT = 20.0

BROWSER_DESKTOP_ID = "orvane-e2e-browser.desktop"
VIEWER_DESKTOP_ID = "orvane-e2e-pdfviewer.desktop"
FILE_MANAGER_DESKTOP_ID = "orvane-e2e-filemanager.desktop"
FILE_MANAGER1_NAME = "org.freedesktop.FileManager1"

# Variables that would leak the developer's own session into the children.
_SESSION_VARS = (
    "DISPLAY",
    "WAYLAND_DISPLAY",
    "DBUS_SESSION_BUS_ADDRESS",
    "SESSION_MANAGER",
    "DESKTOP_SESSION",
    "GNOME_DESKTOP_SESSION_ID",
    "GTK_MODULES",
    "GIO_LAUNCHED_DESKTOP_FILE",
    "GIO_LAUNCHED_DESKTOP_FILE_PID",
    "GDK_SCALE",
    "GDK_DPI_SCALE",
    "WEBKIT_DISABLE_COMPOSITING_MODE",
)


# --------------------------------------------------------------------------
# small utilities


class WaitTimeout(AssertionError):
    """A polled condition did not hold within its time-out."""


def wait_until(
    condition: Callable[[], Any],
    timeout: float = DEFAULT_TIMEOUT,
    interval: float = 0.05,
    what: str = "condition",
) -> Any:
    """Poll `condition` until it returns something truthy and return that.

    Raises WaitTimeout (an AssertionError, so pytest shows it as a failed
    expectation) when the time-out passes first.
    """
    deadline = time.monotonic() + timeout
    last_error: BaseException | None = None
    while True:
        try:
            value = condition()
            if value:
                return value
            last_error = None
        except (OSError, ValueError) as exc:  # files not there yet, half-written JSON
            last_error = exc
        if time.monotonic() >= deadline:
            detail = f" (last error: {last_error!r})" if last_error else ""
            raise WaitTimeout(f"timed out after {timeout:g}s waiting for {what}{detail}")
        time.sleep(interval)


def holds_for(condition: Callable[[], Any], seconds: float = 1.0, interval: float = 0.05) -> bool:
    """True when `condition` stays truthy for the whole period.

    Used only for "nothing else happens" checks, where some settling time is
    unavoidable; it returns False as soon as the condition breaks.
    """
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        if not condition():
            return False
        time.sleep(interval)
    return bool(condition())


def clean_base_env() -> dict[str, str]:
    """The current environment without the variables of the caller's desktop
    session, without XDG_* (so every XDG default falls under HOME), without
    proxy settings (all traffic in these tests is loopback) and without the
    caller's ANTHROPIC_* and CLAUDE* settings (an agent started in a test
    runs logged out)."""
    env = {}
    for key, value in os.environ.items():
        if key.startswith("XDG_") or key in _SESSION_VARS:
            continue
        if key.lower() in ("http_proxy", "https_proxy", "all_proxy", "ftp_proxy", "no_proxy"):
            continue
        if key.startswith(("ANTHROPIC_", "CLAUDE")):
            # The agent that Orvane starts must not act on the caller's account.
            continue
        env[key] = value
    env.setdefault("LANG", "C.UTF-8")
    return env


def port_is_free(host: str, port: int) -> bool:
    """True when nothing listens on host:port and we could bind it."""
    with contextlib.closing(socket.socket(socket.AF_INET, socket.SOCK_STREAM)) as probe:
        probe.settimeout(0.5)
        if probe.connect_ex((host, port)) == 0:
            return False
    with contextlib.closing(socket.socket(socket.AF_INET, socket.SOCK_STREAM)) as sock:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        try:
            sock.bind((host, port))
        except OSError:
            return False
    return True


def pid_alive(pid: int) -> bool:
    try:
        os.kill(pid, 0)
    except ProcessLookupError:
        return False
    except PermissionError:
        return True
    # A zombie still answers kill(0); treat it as gone.
    try:
        with open(f"/proc/{pid}/stat", "rb") as fh:
            state = fh.read().rsplit(b")", 1)[1].split()[0]
        return state != b"Z"
    except (OSError, IndexError):
        return False


def pids_with_env(entry: str) -> list[int]:
    """Pids of processes whose environment holds exactly `entry` ("KEY=value").

    Used to find what our own children left behind: a process that inherited
    a test's private HOME or the harness's private bus address can only have
    been started, directly or not, by this harness.
    """
    needle = entry.encode()
    found = []
    me = os.getpid()
    for name in os.listdir("/proc"):
        if not name.isdigit() or int(name) == me:
            continue
        try:
            with open(f"/proc/{name}/environ", "rb") as fh:
                environ = fh.read().split(b"\0")
        except OSError:
            continue
        if needle in environ and pid_alive(int(name)):
            found.append(int(name))
    return sorted(found)


def end_processes_with_env(*entries: str) -> list[tuple[int, list[str]]]:
    """End every process whose environment holds one of `entries` (see
    `pids_with_env`); returns them as (pid, command line) pairs."""
    found: dict[int, list[str]] = {}
    for entry in entries:
        for pid in pids_with_env(entry):
            found.setdefault(pid, process_cmdline(pid))
    terminate_pids(found)
    return list(found.items())


def process_cmdline(pid: int) -> list[str]:
    try:
        with open(f"/proc/{pid}/cmdline", "rb") as fh:
            return [part.decode(errors="replace") for part in fh.read().split(b"\0") if part]
    except OSError:
        return []


def terminate_pids(pids: Iterable[int], grace: float = 3.0) -> None:
    """SIGTERM the given pids, then SIGKILL whatever is left after `grace`."""
    pids = [p for p in pids if pid_alive(p)]
    for pid in pids:
        with contextlib.suppress(ProcessLookupError):
            os.kill(pid, signal.SIGTERM)
    deadline = time.monotonic() + grace
    while time.monotonic() < deadline and any(pid_alive(p) for p in pids):
        time.sleep(0.05)
    for pid in pids:
        if pid_alive(pid):
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)


def stop_process_group(proc: subprocess.Popen, grace: float = 5.0) -> None:
    """End a child that we started with start_new_session=True, together with
    every process still in the group it leads (the group is ours)."""
    pgid = proc.pid
    if proc.poll() is None:
        with contextlib.suppress(ProcessLookupError):
            os.kill(proc.pid, signal.SIGTERM)
        try:
            proc.wait(timeout=grace)
        except subprocess.TimeoutExpired:
            with contextlib.suppress(ProcessLookupError):
                os.kill(proc.pid, signal.SIGKILL)
            proc.wait(timeout=grace)
    # Members of the group that outlived its leader.
    with contextlib.suppress(ProcessLookupError, PermissionError):
        os.killpg(pgid, signal.SIGTERM)
    deadline = time.monotonic() + grace
    while time.monotonic() < deadline and _group_alive(pgid):
        time.sleep(0.05)
    with contextlib.suppress(ProcessLookupError, PermissionError):
        os.killpg(pgid, signal.SIGKILL)


def _group_alive(pgid: int) -> bool:
    for name in os.listdir("/proc"):
        if not name.isdigit():
            continue
        try:
            with open(f"/proc/{name}/stat", "rb") as fh:
                fields = fh.read().rsplit(b")", 1)[1].split()
        except OSError:
            continue
        if len(fields) > 2 and int(fields[2]) == pgid and fields[0] != b"Z":
            return True
    return False


# Pids of desktop processes whose Popen objects still have to read their exit.
_LIVE_DESKTOP_PIDS: set[int] = set()


def become_subreaper() -> bool:
    """Make this process the reaper of its orphaned descendants.

    Processes that our children leave behind (WebKit's helpers, services the
    private bus activated) are re-parented to us instead of to PID 1, which on
    some machines never reaps them; `reap_orphans` then collects them."""
    import ctypes

    PR_SET_CHILD_SUBREAPER = 36
    try:
        libc = ctypes.CDLL(None, use_errno=True)
        return libc.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) == 0
    except OSError:
        return False


def reap_orphans(keep: Iterable[int] = ()) -> list[int]:
    """Collect exited children of this process that no Popen object owns.

    `keep` lists pids whose exit status a Popen object still has to read."""
    keep = set(keep) | _LIVE_DESKTOP_PIDS
    me = os.getpid()
    reaped = []
    for name in os.listdir("/proc"):
        if not name.isdigit() or int(name) in keep:
            continue
        try:
            with open(f"/proc/{name}/stat", "rb") as fh:
                fields = fh.read().rsplit(b")", 1)[1].split()
        except OSError:
            continue
        if fields[0] == b"Z" and int(fields[1]) == me:
            with contextlib.suppress(ChildProcessError):
                os.waitpid(int(name), os.WNOHANG)
                reaped.append(int(name))
    return reaped


def _read_line_from_fd(fd: int, timeout: float) -> str:
    """Read one text line from a pipe fd, waiting at most `timeout` seconds."""
    data = b""
    deadline = time.monotonic() + timeout
    while b"\n" not in data:
        remaining = deadline - time.monotonic()
        if remaining <= 0:
            raise WaitTimeout(f"no line on fd {fd} within {timeout:g}s (got {data!r})")
        ready, _, _ = select.select([fd], [], [], remaining)
        if not ready:
            continue
        chunk = os.read(fd, 4096)
        if not chunk:
            raise RuntimeError(f"pipe closed before a full line arrived (got {data!r})")
        data += chunk
    return data.split(b"\n", 1)[0].decode().strip()


# --------------------------------------------------------------------------
# the desktop: private bus, Xvfb, openbox


def start_session_bus(env: dict[str, str], log_path: Path) -> tuple[subprocess.Popen, str]:
    """Start a private D-Bus session bus daemon; returns it and its address."""
    with open(log_path, "wb") as bus_log:
        bus = subprocess.Popen(
            ["dbus-daemon", "--session", "--nofork", "--nopidfile", "--print-address=1"],
            stdout=subprocess.PIPE,
            stderr=bus_log,
            stdin=subprocess.DEVNULL,
            env=env,
            start_new_session=True,
        )
    try:
        address = _read_line_from_fd(bus.stdout.fileno(), DEFAULT_TIMEOUT)
    except BaseException:
        stop_process_group(bus)
        raise
    if not address.startswith("unix:"):
        stop_process_group(bus)
        raise RuntimeError(f"unexpected bus address {address!r}")
    return bus, address


class Desktop:
    """A private X11 desktop: D-Bus session bus, Xvfb and openbox.

    `env()` gives the variables a child needs to live on this desktop.
    """

    def __init__(self, width: int = 1920, height: int = 1080, window_manager: bool = True,
                 monitors: list[tuple[int, int]] | None = None):
        self.width = width
        self.height = height
        # Without a window manager the display is a bare X server: no
        # _NET_SUPPORTING_WM_CHECK, so Orvane does not count as trusted there.
        self.window_manager = window_manager
        # Several monitors, (width, height) each, side by side from x = 0 with
        # the first as the primary: Xvfb gives one monitor only, so this runs
        # Xorg with the dummy video driver and lays the monitors out by xrandr.
        self.monitors = list(monitors) if monitors else None
        if self.monitors:
            self.width = sum(w for w, _ in self.monitors)
            self.height = max(h for _, h in self.monitors)
        self.scratch: Path | None = None
        self.display: str | None = None
        self.bus_address: str | None = None
        self.bus: subprocess.Popen | None = None
        self.xvfb: subprocess.Popen | None = None
        self.wm: subprocess.Popen | None = None
        self.leftovers: list[tuple[int, list[str]]] = []

    # -- lifecycle

    def start(self) -> "Desktop":
        try:
            self._start()
        except BaseException:
            self.stop()
            raise
        return self

    def _start(self) -> None:
        self.scratch = Path(tempfile.mkdtemp(prefix="orvane-e2e-desktop-"))
        # Services the bus activates (dconf, the accessibility bus) inherit this
        # environment, so they get a home of their own instead of the caller's.
        service_home = self.scratch / "home"
        service_home.mkdir()
        base = clean_base_env()
        base["HOME"] = str(service_home)

        self.bus, self.bus_address = start_session_bus(base, self.scratch / "dbus.err")

        if self.monitors:
            argv = self._xorg_argv()
        else:
            argv = [
                "Xvfb",
                "-screen", "0", f"{self.width}x{self.height}x24",
                "-nolisten", "tcp",
                # Without this the server resets whenever its last client
                # leaves, dropping connections that are still being set up
                # (a short-lived xprop racing openbox's start).
                "-noreset",
            ]
        read_fd, write_fd = os.pipe()
        xvfb_log = open(self.scratch / "xvfb.err", "wb")
        try:
            self.xvfb = subprocess.Popen(
                [*argv, "-displayfd", str(write_fd)],
                pass_fds=(write_fd,),
                stdout=subprocess.DEVNULL,
                stderr=xvfb_log,
                stdin=subprocess.DEVNULL,
                env=base,
                start_new_session=True,
            )
            os.close(write_fd)
            write_fd = -1
            number = _read_line_from_fd(read_fd, DEFAULT_TIMEOUT)
        finally:
            xvfb_log.close()
            if write_fd >= 0:
                os.close(write_fd)
            os.close(read_fd)
        if not number.isdigit():
            raise RuntimeError(f"the X server reported display {number!r}")
        self.display = f":{number}"
        _LIVE_DESKTOP_PIDS.update((self.bus.pid, self.xvfb.pid))
        if self.monitors:
            self._lay_out_monitors()

        if not self.window_manager:
            return
        with open(self.scratch / "openbox.err", "wb") as wm_log:
            self.wm = subprocess.Popen(
                ["openbox", "--sm-disable"],
                stdout=wm_log,  # openbox reports its errors on standard output
                stderr=wm_log,
                stdin=subprocess.DEVNULL,
                env={**base, **self.env()},
                start_new_session=True,
            )
        _LIVE_DESKTOP_PIDS.add(self.wm.pid)
        wait_until(self.wm_ready, what="openbox to claim the display (_NET_SUPPORTING_WM_CHECK)")
        # On a fresh server the first synthetic key press sometimes never
        # reaches openbox's key bindings (an Alt+F4 then closes nothing); one
        # harmless press now means every press a test makes counts.
        self.run_tool("xdotool", "key", "shift", check=True)

    def _xorg_argv(self) -> list[str]:
        """Xorg on the dummy video driver, its configuration and log in the
        scratch folder, with one screen as large as all monitors together."""
        config = self.scratch / "xorg.conf"
        config.write_text(
            'Section "ServerFlags"\n'
            '  Option "AutoAddDevices" "false"\n'
            '  Option "AutoAddGPU" "false"\n'
            '  Option "DontVTSwitch" "true"\n'
            "EndSection\n"
            'Section "Device"\n  Identifier "dummy"\n  Driver "dummy"\n  VideoRam 256000\nEndSection\n'
            'Section "Monitor"\n  Identifier "monitor"\n'
            "  HorizSync 5.0-1000.0\n  VertRefresh 5.0-200.0\nEndSection\n"
            'Section "Screen"\n  Identifier "screen"\n  Device "dummy"\n  Monitor "monitor"\n'
            "  DefaultDepth 24\n"
            f'  SubSection "Display"\n    Depth 24\n    Virtual {self.width} {self.height}\n  EndSubSection\n'
            "EndSection\n",
            encoding="ascii")
        # An absolute -config path is accepted from root only; the checked
        # machines run the tests as root.
        return ["Xorg", "-config", str(config), "-logfile", str(self.scratch / "xorg.log"),
                "-noreset", "-nolisten", "tcp"]

    def _lay_out_monitors(self) -> None:
        """Each monitor on an output of the dummy driver (DUMMY0, DUMMY1, ...),
        with a mode of its exact size made for it, side by side at y = 0."""
        for w, h in dict.fromkeys(self.monitors):
            # The blanking of a plain 60 Hz timing; the dummy driver only
            # checks it against the configuration's wide sync ranges.
            htotal, vtotal = w + 160, h + 25
            self.run_tool("xrandr", "--newmode", f"orvane-{w}x{h}", f"{htotal * vtotal * 60 / 1e6:.2f}",
                          *map(str, (w, w + 48, w + 80, htotal, h, h + 3, h + 6, vtotal)), check=True)
        for n, ((x, _, w, h), output) in enumerate(zip(self.expected_monitors(), self.outputs())):
            self.run_tool("xrandr", "--addmode", output, f"orvane-{w}x{h}", check=True)
            self.run_tool("xrandr", "--output", output, "--mode", f"orvane-{w}x{h}", "--pos", f"{x}x0",
                          *(["--primary"] if n == 0 else []), check=True)
        wait_until(lambda: self.monitor_geometries() == self.expected_monitors(),
                   what=f"xrandr to report the monitors {self.expected_monitors()}")

    def outputs(self) -> list[str]:
        """The names of the X server's outputs, as xrandr lists them."""
        out = self.run_tool("xrandr").stdout
        return re.findall(r"^(\S+) (?:dis)?connected", out, re.M)

    def expected_monitors(self) -> list[tuple[int, int, int, int]]:
        """(x, y, width, height) of each monitor as laid out, the primary first."""
        found, x = [], 0
        for w, h in self.monitors or [(self.width, self.height)]:
            found.append((x, 0, w, h))
            x += w
        return found

    def monitor_geometries(self) -> list[tuple[int, int, int, int]]:
        """(x, y, width, height) of each monitor as `xrandr --listmonitors`
        reports it, the primary first."""
        out = self.run_tool("xrandr", "--listmonitors").stdout
        found = []
        for line in out.splitlines()[1:]:
            match = re.search(r"(\*?)\S+ (\d+)/\d+x(\d+)/\d+\+(-?\d+)\+(-?\d+)", line)
            if match:
                geometry = (int(match[4]), int(match[5]), int(match[2]), int(match[3]))
                found.insert(0, geometry) if match[1] else found.append(geometry)
        return found

    def stop(self) -> list[tuple[int, list[str]]]:
        """Stop the window manager, the X server and the bus, then end any
        process that still carries this desktop's private bus address or
        scratch home (it descends from us). Returns those leftovers as
        (pid, command line) pairs, which is also kept in `self.leftovers`."""
        for proc in (self.wm, self.xvfb, self.bus):
            if proc is not None:
                stop_process_group(proc)
                _LIVE_DESKTOP_PIDS.discard(proc.pid)
                if proc.stdout:
                    proc.stdout.close()
        # Only markers that no one else can share: the bus address holds a
        # random guid and the scratch home is ours (a display number is reused
        # by the next X server that starts, possibly someone else's).
        markers = []
        if self.bus_address:
            markers.append(f"DBUS_SESSION_BUS_ADDRESS={self.bus_address}")
        if self.scratch is not None:
            markers.append(f"HOME={self.scratch / 'home'}")
        leftovers = end_processes_with_env(*markers)
        reap_orphans()
        self.leftovers = leftovers
        self.wm = self.xvfb = self.bus = None
        if self.scratch is not None:
            shutil.rmtree(self.scratch, ignore_errors=True)
            self.scratch = None
        return leftovers

    def __enter__(self) -> "Desktop":
        return self.start()

    def __exit__(self, *exc) -> None:
        self.stop()

    # -- environment

    def env(self) -> dict[str, str]:
        return {
            "DISPLAY": self.display or "",
            "DBUS_SESSION_BUS_ADDRESS": self.bus_address or "",
            "NO_AT_BRIDGE": "1",
            "GDK_BACKEND": "x11",
        }

    def tool_env(self) -> dict[str, str]:
        """Environment for the X and D-Bus tools the harness itself runs."""
        env = clean_base_env()
        if self.scratch is not None:
            env["HOME"] = str(self.scratch / "home")
        env.update(self.env())
        return env

    def run_tool(self, *argv: str, timeout: float = 10.0, check: bool = False) -> subprocess.CompletedProcess:
        return subprocess.run(
            list(argv),
            env=self.tool_env(),
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            timeout=timeout,
            check=check,
        )

    # -- queries

    def wm_ready(self) -> bool:
        if self.wm is not None and self.wm.poll() is not None:
            err = ""
            if self.scratch is not None:
                with contextlib.suppress(OSError):
                    err = (self.scratch / "openbox.err").read_text(errors="replace").strip()
            raise RuntimeError(f"openbox exited with {self.wm.returncode} on {self.display}: {err}")
        out = self.run_tool("xprop", "-root", "_NET_SUPPORTING_WM_CHECK").stdout
        return "window id #" in out

    def name_has_owner(self, name: str = APP_ID) -> bool:
        out = self.run_tool(
            "gdbus", "call", "--session",
            "--dest", "org.freedesktop.DBus",
            "--object-path", "/org/freedesktop/DBus",
            "--method", "org.freedesktop.DBus.NameHasOwner", name,
            check=True,
        ).stdout.strip()
        return out == "(true,)"

    def _visible_windows_where(self, *criteria: str) -> list[int]:
        """Ids of viewable (mapped) windows that `xdotool search` finds by
        `criteria`, e.g. ("--class", "orvane")."""
        result = self.run_tool("xdotool", "search", "--onlyvisible", *criteria)
        return [int(line) for line in result.stdout.split() if line.strip().isdigit()]

    def visible_windows(self, class_name: str) -> list[int]:
        """Ids of viewable (mapped) windows whose WM_CLASS matches."""
        return self._visible_windows_where("--class", class_name)

    def windows_titled(self, title: str) -> list[int]:
        """Viewable windows whose title is `title` (a whole-title pattern)."""
        return self._visible_windows_where("--name", f"^{title}$")

    def window_property(self, win: int, prop: str) -> str | None:
        """The value text of one property as xprop prints it (quotes removed
        for a single string), or None when the window does not have it."""
        result = self.run_tool("xprop", "-id", str(win), prop)
        text = result.stdout.strip()
        if result.returncode != 0 or "not found" in text or "=" not in text:
            return None
        value = text.split("=", 1)[1].strip()
        if value.startswith('"') and value.endswith('"') and value.count('"') == 2:
            value = value[1:-1]
        return value

    def window_property_root(self, prop: str) -> str | None:
        """A property of the root window, as `window_property` gives it."""
        result = self.run_tool("xprop", "-root", prop)
        text = result.stdout.strip()
        if result.returncode != 0 or "not found" in text or "=" not in text:
            return None
        return text.split("=", 1)[1].strip()

    def window_info(self, win: int) -> dict[str, Any]:
        """Geometry and map state from xwininfo (absolute position of the
        client area, its size, and "IsViewable"/"IsUnMapped"/"IsUnviewable")."""
        out = self.run_tool("xwininfo", "-id", str(win)).stdout
        info: dict[str, Any] = {}
        patterns = {
            "x": r"Absolute upper-left X:\s+(-?\d+)",
            "y": r"Absolute upper-left Y:\s+(-?\d+)",
            "width": r"Width:\s+(\d+)",
            "height": r"Height:\s+(\d+)",
        }
        for key, pattern in patterns.items():
            match = re.search(pattern, out)
            if match:
                info[key] = int(match.group(1))
        match = re.search(r"Map State:\s+(\w+)", out)
        info["map_state"] = match.group(1) if match else None
        return info

    def screenshot(self, path: Path | str) -> Path:
        path = Path(path)
        path.parent.mkdir(parents=True, exist_ok=True)
        self.run_tool("import", "-display", self.display or "", "-window", "root", str(path), timeout=30)
        return path

    def screenshot_window(self, win: int, path: Path | str, frame: bool = True) -> Path:
        """A picture of one window, with the window manager's frame (title bar)
        unless `frame` is False."""
        path = Path(path)
        path.parent.mkdir(parents=True, exist_ok=True)
        argv = ["import", "-display", self.display or "", "-window", str(win)]
        if frame:
            argv.append("-frame")
        self.run_tool(*argv, str(path), timeout=30, check=True)
        return path

    def click_in_window(self, win: int, x: int, y: int) -> None:
        """A real pointer click at (x, y) relative to the window's client area."""
        self.run_tool("xdotool", "mousemove", "--window", str(win), str(x), str(y), check=True)
        self.run_tool("xdotool", "click", "1", check=True)

    def focused_window(self) -> int | None:
        out = self.run_tool("xdotool", "getwindowfocus").stdout.strip()
        return int(out) if out.isdigit() else None

    def type_text(self, text: str) -> None:
        """Real key presses for `text`, sent to whatever has the keyboard focus."""
        self.run_tool("xdotool", "type", "--delay", "20", "--", text, timeout=60, check=True)

    def key(self, *keys: str) -> None:
        """Real key presses, e.g. key("Return") or key("ctrl+a")."""
        self.run_tool("xdotool", "key", "--clearmodifiers", *keys, check=True)

    def frame_extents(self, win: int) -> tuple[int, int, int, int]:
        """The window manager's frame around a window: (left, right, top, bottom)."""
        value = self.window_property(win, "_NET_FRAME_EXTENTS")
        if not value:
            return (0, 0, 0, 0)
        left, right, top, bottom = (int(part) for part in value.split(","))
        return (left, right, top, bottom)

    def window_frame(self, win: int) -> tuple[int, int, int, int]:
        """The outer frame of a window, decorations included: (x, y, width, height)."""
        info = self.window_info(win)
        left, right, top, bottom = self.frame_extents(win)
        return (info["x"] - left, info["y"] - top, info["width"] + left + right,
                info["height"] + top + bottom)

    def emit_signal(self, object_path: str, signal_name: str, *args: str) -> None:
        """Emit a D-Bus signal on the test bus (`gdbus emit --session`);
        `signal_name` is INTERFACE.MEMBER, string arguments only."""
        self.run_tool("gdbus", "emit", "--session", "--object-path", object_path,
                      "--signal", signal_name, *[_gvariant_string(a) for a in args], check=True)

    def activate(self, win: int) -> None:
        self.run_tool("xdotool", "windowactivate", "--sync", str(win), check=True)

    def activate_and_focus(self, win: int, timeout: float = DEFAULT_TIMEOUT) -> None:
        """Bring a window to the front and wait until it has the keyboard focus."""
        self.activate(win)
        wait_until(lambda: self.focused_window() == win, timeout,
                   what=f"window {win:#x} to have the keyboard focus")

    def press(self, *keys: str) -> None:
        """Key chords pressed as they are, through XTest (`xdotool key`),
        e.g. press("alt+b"): what a user's hands do."""
        self.run_tool("xdotool", "key", *keys, check=True)

    def active_window(self) -> int | None:
        """The window manager's _NET_ACTIVE_WINDOW, or None."""
        # xprop writes a WINDOW value as "window id # 0x...", without "=".
        value = self.run_tool("xprop", "-root", "_NET_ACTIVE_WINDOW").stdout
        match = re.search(r"0x[0-9a-fA-F]+", value)
        return int(match.group(0), 16) if match and int(match.group(0), 16) else None

    def windows_of_pid(self, pid: int) -> list[int]:
        """Viewable windows whose _NET_WM_PID is `pid`."""
        return self._visible_windows_where("--pid", str(pid))

    def selection_targets(self, selection: str = "clipboard") -> list[str]:
        """The TARGETS that the owner of a selection ("primary",
        "clipboard") offers; empty when it has no owner."""
        result = self.run_tool("xclip", "-o", "-selection", selection, "-t", "TARGETS")
        if result.returncode != 0:
            return []
        return [line.strip() for line in result.stdout.splitlines() if line.strip()]

    def read_selection(self, selection: str = "clipboard", target: str = "UTF8_STRING") -> bytes | None:
        """The bytes a selection's owner gives for one target, exactly as
        sent; None when there is no owner or it refuses the target."""
        result = subprocess.run(
            ["xclip", "-o", "-selection", selection, "-t", target],
            env=self.tool_env(), stdin=subprocess.DEVNULL, capture_output=True, timeout=10)
        return result.stdout if result.returncode == 0 else None

    def close_with_wm(self, win: int) -> None:
        """Close the window the way a user does: activate it and press Alt+F4,
        which openbox turns into a WM_DELETE_WINDOW request to the client."""
        self.activate_and_focus(win, 10)
        self.key("alt+F4")


def _gvariant_string(text: str) -> str:
    """A string in GVariant text form, quoted so that gdbus never reads it
    as another type (an empty string, digits, "true")."""
    return "'" + text.replace("\\", "\\\\").replace("'", "\\'") + "'"


# --------------------------------------------------------------------------
# the throwaway home


LOG_LINE = re.compile(r"^(\d{2}:\d{2}:\d{2})  (.*)$")


class Home:
    """A throwaway HOME for one Orvane process.

    XDG_* variables are unset in `env()`, so every XDG location is the default
    under this directory.
    """

    def __init__(self, path: Path | str, desktop: Desktop | None = None):
        self.path = Path(path)
        self.desktop = desktop
        # Variables set for every program started in this home (SHELL, for
        # one); `env(**extra)` adds to them.
        self.extra_env: dict[str, str] = {}
        for sub in (".local/state", ".config", ".cache", ".local/share/applications", "calls"):
            (self.path / sub).mkdir(parents=True, exist_ok=True)

    # -- environment

    def env(self, **extra: str) -> dict[str, str]:
        env = clean_base_env()
        if self.desktop is not None:
            env.update(self.desktop.env())
        env["HOME"] = str(self.path)
        env.update(self.extra_env)
        env.update(extra)
        return env

    # -- settings

    @property
    def settings_path(self) -> Path:
        return self.path / ".config" / "orvane" / "settings.ini"

    def read_settings(self) -> dict[str, str]:
        values: dict[str, str] = {}
        if not self.settings_path.exists():
            return values
        group = None
        for raw in self.settings_path.read_text(encoding="utf-8").splitlines():
            line = raw.strip()
            if not line or line.startswith("#"):
                continue
            if line.startswith("[") and line.endswith("]"):
                group = line[1:-1]
            elif group == "Orvane" and "=" in line:
                key, value = line.split("=", 1)
                values[key.strip()] = _keyfile_unescape(value.strip())
        return values

    def write_settings(self, **values: str | None) -> None:
        """Merge values into the [Orvane] group of the settings key file; a
        value of None removes the key."""
        merged = self.read_settings()
        for key, value in values.items():
            if value is None:
                merged.pop(key, None)
            else:
                merged[key] = str(value)
        self.settings_path.parent.mkdir(parents=True, exist_ok=True)
        lines = ["[Orvane]"] + [f"{k}={_keyfile_escape(v)}" for k, v in merged.items()]
        self.settings_path.write_text("\n".join(lines) + "\n", encoding="utf-8")

    # -- activity log

    @property
    def log_path(self) -> Path:
        return self.path / ".local" / "state" / "orvane" / "Orvane.log"

    def log_lines(self) -> list[str]:
        """Whole lines of the activity log (a missing file is an empty log).
        A trailing line still being written is left out."""
        try:
            data = self.log_path.read_bytes()
        except FileNotFoundError:
            return []
        text = data.decode("utf-8")
        lines = text.split("\n")
        return lines[:-1]  # the part after the last line feed is incomplete or empty

    def log_messages(self) -> list[str]:
        """The message part of each log line (after "HH:MM:SS  ")."""
        messages = []
        for line in self.log_lines():
            match = LOG_LINE.match(line)
            messages.append(match.group(2) if match else line)
        return messages

    def wait_for_log(
        self,
        predicate: str | Callable[[str], bool],
        timeout: float = DEFAULT_TIMEOUT,
    ) -> str:
        """Wait for a log message that contains the given text (or satisfies
        the predicate) and return it."""
        if isinstance(predicate, str):
            text = predicate
            matches = lambda m: text in m  # noqa: E731
            what = f"log message containing {text!r}"
        else:
            matches = predicate
            what = "matching log message"

        def find():
            for message in self.log_messages():
                if matches(message):
                    return message
            return None

        try:
            return wait_until(find, timeout, what=what)
        except WaitTimeout as exc:
            raise WaitTimeout(f"{exc}; log so far:\n" + "\n".join(self.log_lines())) from None

    # -- hand-off folder

    @property
    def handoff_dir(self) -> Path:
        return self.path / ".cache" / APP_ID

    def write_selection(self, text: str, age_seconds: float = 0.0) -> Path:
        """Leave a selection hand-off as a capture process would."""
        self.handoff_dir.mkdir(parents=True, exist_ok=True)
        path = self.handoff_dir / "selection.txt"
        path.write_text(text, encoding="utf-8")
        if age_seconds:
            stamp = time.time() - age_seconds
            os.utime(path, (stamp, stamp))
        return path

    @property
    def documents_dir(self) -> Path:
        return self.path / "Documents"

    # -- the PDF library on disk

    @property
    def library_dir(self) -> Path:
        """The default library folder, Documents/Orvane."""
        return self.documents_dir / "Orvane"

    def account_dir(self, account: str) -> Path:
        """The folder of an account whose name is already in its stored form."""
        return self.library_dir / account

    def place_pdf(self, account: str, paper_id: str, data: bytes, etag: str = "",
                  synced_at: float | None = None, modified_at: float | None = None,
                  sidecar: bool = True) -> Path:
        """Put a library PDF on disk as a sync would have left it: the file,
        and its sidecar {"id", "etag"} stamped with `synced_at`. The PDF's
        own time is `modified_at` (default: `synced_at`, i.e. no local edits)."""
        folder = self.account_dir(account)
        folder.mkdir(parents=True, exist_ok=True)
        pdf = folder / pdf_file_name(paper_id)
        pdf.write_bytes(data)
        synced_at = time.time() if synced_at is None else synced_at
        modified_at = synced_at if modified_at is None else modified_at
        if sidecar:
            side = sidecar_path(pdf)
            side.write_text(json.dumps({"id": paper_id, "etag": etag}, separators=(",", ":")),
                            encoding="utf-8")
            os.utime(side, (synced_at, synced_at))
        os.utime(pdf, (modified_at, modified_at))
        return pdf

    # -- fixture browser and PDF viewer

    def calls_file(self, name: str) -> Path:
        return self.path / "calls" / f"{name}.jsonl"

    def add_app(self, desktop_id: str, name: str, exec_line: str, mime_types: str = "") -> str:
        """A desktop entry in this home's applications folder; returns its id."""
        entry = (
            "[Desktop Entry]\n"
            "Type=Application\n"
            f"Name={name}\n"
            f"Exec={exec_line}\n"
            f"MimeType={mime_types}\n"
            "Terminal=false\n"
        )
        (self.path / ".local" / "share" / "applications" / desktop_id).write_text(entry, encoding="utf-8")
        return desktop_id

    def install_fixture_apps(self) -> None:
        """Register a recording "browser", "PDF viewer" and "file manager"
        (the handler of folders) as this home's default applications."""
        self.add_app(BROWSER_DESKTOP_ID, "Orvane E2E Browser",
                     f'{PYTHON} "{RECORDER}" "{self.calls_file("browser")}" %u',
                     "x-scheme-handler/http;x-scheme-handler/https;text/html;")
        self.add_app(VIEWER_DESKTOP_ID, "Orvane E2E PDF Viewer",
                     f'{PYTHON} "{RECORDER}" "{self.calls_file("viewer")}" %f', "application/pdf;")
        self.add_app(FILE_MANAGER_DESKTOP_ID, "Orvane E2E File Manager",
                     f'{PYTHON} "{RECORDER}" "{self.calls_file("filemanager")}" %u', "inode/directory;")
        defaults = {
            "x-scheme-handler/http": BROWSER_DESKTOP_ID,
            "x-scheme-handler/https": BROWSER_DESKTOP_ID,
            "text/html": BROWSER_DESKTOP_ID,
            "application/pdf": VIEWER_DESKTOP_ID,
            "inode/directory": FILE_MANAGER_DESKTOP_ID,
        }
        text = "[Default Applications]\n"
        text += "".join(f"{mime}={app}\n" for mime, app in defaults.items())
        text += "\n[Added Associations]\n"
        text += "".join(f"{mime}={app};\n" for mime, app in defaults.items())
        (self.path / ".config" / "mimeapps.list").write_text(text, encoding="utf-8")

    def add_recording_app(self, desktop_id: str, calls_name: str, mime_types: str = "") -> str:
        """One more recording application (not a default for anything), e.g.
        a second PDF viewer named by the PdfViewer setting. Its launches are
        read with `calls(calls_name)`."""
        return self.add_app(desktop_id, f"Orvane E2E {calls_name}",
                            f'{PYTHON} "{RECORDER}" "{self.calls_file(calls_name)}" %f', mime_types)

    def calls(self, name: str) -> list[dict[str, Any]]:
        return read_json_lines(self.calls_file(name))

    def browser_calls(self) -> list[dict[str, Any]]:
        """One record per launch of the fixture browser: {"argv": [...], "cwd", "pid", "time"}."""
        return self.calls("browser")

    def viewer_calls(self) -> list[dict[str, Any]]:
        return self.calls("viewer")

    def file_manager_calls(self) -> list[dict[str, Any]]:
        """Launches of the fixture folder handler: {"argv": [...], ...}; GIO
        hands it a local folder as a plain path."""
        return self.calls("filemanager")

    def wait_for_file_manager_call(self, count: int = 1, timeout: float = DEFAULT_TIMEOUT) -> list[dict[str, Any]]:
        return wait_until(
            lambda: (lambda calls: calls if len(calls) >= count else None)(self.file_manager_calls()),
            timeout, what=f"{count} call(s) of the fixture file manager",
        )

    def wait_for_browser_call(self, count: int = 1, timeout: float = DEFAULT_TIMEOUT) -> list[dict[str, Any]]:
        return wait_until(
            lambda: (lambda calls: calls if len(calls) >= count else None)(self.browser_calls()),
            timeout, what=f"{count} call(s) of the fixture browser",
        )

    def wait_for_viewer_call(self, count: int = 1, timeout: float = DEFAULT_TIMEOUT) -> list[dict[str, Any]]:
        return wait_until(
            lambda: (lambda calls: calls if len(calls) >= count else None)(self.viewer_calls()),
            timeout, what=f"{count} call(s) of the fixture PDF viewer",
        )

    # -- processes

    def processes(self) -> list[int]:
        """Pids of live processes running with this HOME."""
        return pids_with_env(f"HOME={self.path}")

    def end_processes(self, grace: float = 5.0) -> list[tuple[int, list[str]]]:
        """Wait for processes that run with this HOME to go away by themselves,
        then end the rest. Returns those that had to be ended."""
        deadline = time.monotonic() + grace
        while time.monotonic() < deadline and self.processes():
            time.sleep(0.1)
        return end_processes_with_env(f"HOME={self.path}")


def _keyfile_escape(value: str) -> str:
    out = value.replace("\\", "\\\\").replace("\n", "\\n").replace("\t", "\\t").replace("\r", "\\r")
    if out.startswith(" "):
        out = "\\s" + out[1:]
    return out


def _keyfile_unescape(value: str) -> str:
    mapping = {"\\": "\\", "n": "\n", "t": "\t", "r": "\r", "s": " "}
    out = []
    i = 0
    while i < len(value):
        ch = value[i]
        if ch == "\\" and i + 1 < len(value) and value[i + 1] in mapping:
            out.append(mapping[value[i + 1]])
            i += 2
        else:
            out.append(ch)
            i += 1
    return "".join(out)


def pdf_file_name(paper_id: str) -> str:
    """A paper's PDF file name in the account folder: "/" becomes "_"."""
    return paper_id.replace("/", "_") + ".pdf"


def sidecar_path(pdf: Path) -> Path:
    """The hidden sync record beside a library PDF: .NAME.pdf.synced"""
    return pdf.with_name("." + pdf.name + ".synced")


def read_sidecar(pdf: Path) -> Any:
    return json.loads(sidecar_path(pdf).read_text(encoding="utf-8"))


# --------------------------------------------------------------------------
# a file manager on the session bus


FILE_MANAGER_SERVICE = FIXTURES / "bin" / "file_manager1.py"
NOTIFICATIONS_SERVICE = SHARED_FIXTURES / "notifications.py"
NOTIFICATIONS_NAME = "org.freedesktop.Notifications"


class StandInService:
    """A stand-in for a desktop service: a fixture script that owns `name`
    on the test desktop's bus and records each call as one JSON line in
    `calls_file`."""

    script: Path
    name: str

    def __init__(self, desktop: Desktop, calls_file: Path):
        self.desktop = desktop
        self.calls_file = Path(calls_file)
        self.proc: subprocess.Popen | None = None
        self.err_path = self.calls_file.with_suffix(".err")

    def start(self) -> "StandInService":
        if self.desktop.name_has_owner(self.name):
            raise RuntimeError(f"{self.name} is already owned on the test bus")
        with open(self.err_path, "wb") as err:
            self.proc = subprocess.Popen(
                [PYTHON, str(self.script), str(self.calls_file)],
                env=self.desktop.tool_env(),
                stdin=subprocess.DEVNULL,
                stdout=err,
                stderr=err,
                start_new_session=True,
            )

        def owned():
            if self.proc.poll() is not None:
                raise AssertionError(f"the {self.name} stand-in exited with {self.proc.returncode}: "
                                     f"{self.err_path.read_text(errors='replace')}")
            return self.desktop.name_has_owner(self.name)
        wait_until(owned, what=f"the stand-in to own {self.name}")
        return self

    def stop(self) -> None:
        if self.proc is not None:
            stop_process_group(self.proc)
            self.proc = None
            wait_until(lambda: not self.desktop.name_has_owner(self.name), 10,
                       what=f"{self.name} to be released")

    def calls(self) -> list[dict[str, Any]]:
        return read_json_lines(self.calls_file)

    def wait_for_call(self, count: int = 1, timeout: float = DEFAULT_TIMEOUT) -> list[dict[str, Any]]:
        return wait_until(lambda: (lambda calls: calls if len(calls) >= count else None)(self.calls()),
                          timeout, what=f"{count} call(s) of {self.name}")


class FileManagerService(StandInService):
    """A stand-in for the desktop's file manager: owns
    org.freedesktop.FileManager1 and records each method call as
    {"method", "uris", "startup_id"}."""

    script = FILE_MANAGER_SERVICE
    name = FILE_MANAGER1_NAME


class NotificationService(StandInService):
    """A stand-in for the desktop's notification daemon: owns
    org.freedesktop.Notifications and records each Notify call as
    {"method", "app_name", "summary", "body", "actions", "hints", "expire_timeout", ...}
    (tests/fixtures/notifications.py)."""

    script = NOTIFICATIONS_SERVICE
    name = NOTIFICATIONS_NAME


def read_json_lines(path: Path) -> list[dict[str, Any]]:
    """The complete JSON lines of a record file (a missing file has none)."""
    try:
        text = Path(path).read_text(encoding="utf-8")
    except FileNotFoundError:
        return []
    lines = text.split("\n")[:-1]  # a last line without its line feed is still being written
    return [json.loads(line) for line in lines if line.strip()]


# --------------------------------------------------------------------------
# the fixture site


@dataclass
class Request:
    method: str
    path: str
    query: dict[str, list[str]]
    raw_query: str
    headers: dict[str, str]
    host: str  # the Host header
    body: bytes
    time: float


@dataclass
class PageRecord:
    """Something a fixture page reported: `page` is the id of one page load,
    `href` its address at the time, `data` the payload."""
    kind: str
    page: str
    href: str
    data: Any
    time: float = field(default_factory=time.time)


@dataclass
class Reply:
    """A canned answer of a fixture site for one method and path (see
    `FixtureSite.reply`). With `hold` set, the answer waits until the test
    calls `release()`, so a test can act while a transfer is in flight."""
    status: int = 200
    body: bytes = b""
    content_type: str = "application/octet-stream"
    hold: bool = False
    _released: threading.Event = field(default_factory=threading.Event, repr=False)

    def release(self) -> None:
        self._released.set()


class FixtureSite:
    """A real HTTP server on a loopback address serving the fixture pages.

    Pages report to it through POST /record/<kind> (caps, load, event, error,
    click, ack, scenarioDone, mark); it answers GET /scenario with the steps
    a test has set, GET /commands with steps queued while a page is open, and
    GET /api/papers with 200 "[]" (or `papers_status`). Other answers (PDF
    downloads, upload addresses) are set with `reply(path, ...)`; every
    request is recorded with its headers and body.
    """

    IGNORED_PATHS = ("/commands",)

    def __init__(self, host: str = "127.0.0.1", port: int = 0, root: Path = SITE_ROOT,
                 request_log: Path | None = None):
        self.host = host
        self.requested_port = port
        self.root = Path(root)
        self.request_log = request_log
        self.papers_status = 200
        self.vars: dict[str, str] = {}
        self._scenarios: dict[str, list[Any]] = {}
        self._commands: list[dict[str, Any]] = []
        self._requests: list[Request] = []
        self._records: list[PageRecord] = []
        self._replies: dict[tuple[str, str], Reply] = {}
        self._lock = threading.Lock()
        self._server: ThreadingHTTPServer | None = None
        self._thread: threading.Thread | None = None

    # -- lifecycle

    def start(self) -> "FixtureSite":
        site = self

        class Handler(_SiteHandler):
            fixture = site

        server = ThreadingHTTPServer((self.host, self.requested_port), Handler)
        server.daemon_threads = True
        self._server = server
        self._thread = threading.Thread(target=server.serve_forever, kwargs={"poll_interval": 0.1},
                                        name=f"fixture-site-{self.host}", daemon=True)
        self._thread.start()
        return self

    def stop(self) -> None:
        with self._lock:
            held = list(self._replies.values())
        for reply in held:  # a held answer must not keep a handler thread alive
            reply.release()
        if self._server is not None:
            self._server.shutdown()
            self._server.server_close()
            self._server = None
        if self._thread is not None:
            self._thread.join(timeout=5)
            self._thread = None

    def __enter__(self) -> "FixtureSite":
        return self.start()

    def __exit__(self, *exc) -> None:
        self.stop()

    @property
    def port(self) -> int:
        assert self._server is not None, "site not started"
        return self._server.server_address[1]

    @property
    def url(self) -> str:
        """The site address (origin, no trailing slash)."""
        return f"http://{self.host}:{self.port}"

    def template_vars(self) -> dict[str, str]:
        values = {
            "HOST": self.host,
            "PORT": str(self.port),
            "ORIGIN": self.url,
            "LOCAL_URL": f"http://localhost:{self.port}/landed.html",
            "FOREIGN_URL": "http://example.invalid/elsewhere.html",
            "BLANK_URL": f"{self.url}/landed.html?via=blank",
            "POPUP_URL": f"{self.url}/landed.html?via=popup",
        }
        values.update(self.vars)
        return values

    # -- canned answers

    def reply(self, path: str, body: bytes | str = b"", status: int = 200, method: str = "GET",
              content_type: str | None = None, hold: bool = False) -> Reply:
        """Answer `method path` with this status and body from now on (it
        replaces an earlier answer for the same request). A path without a
        canned answer gets the fixture pages (GET) or 404."""
        if isinstance(body, str):
            body = body.encode("utf-8")
        if content_type is None:
            content_type = _CONTENT_TYPES.get(Path(path).suffix, "application/octet-stream") \
                if status < 300 else "text/plain; charset=utf-8"
        answer = Reply(status=status, body=body, content_type=content_type, hold=hold)
        with self._lock:
            self._replies[(method.upper(), path)] = answer
        return answer

    def _reply_for(self, method: str, path: str) -> Reply | None:
        with self._lock:
            return self._replies.get((method, path))

    # -- what pages do

    def set_scenario(self, steps: list[Any], name: str = "default") -> None:
        """Steps a page runs right after it loads. Pages pick the scenario by
        `?s=NAME`, else by their <html data-scenario>, else "default"."""
        with self._lock:
            self._scenarios[name] = list(steps)

    def command(self, steps: list[Any], page: str | None = None) -> int:
        """Queue steps for open pages (only the page load `page` when given);
        returns the command's sequence number for `wait_for_ack`."""
        with self._lock:
            seq = len(self._commands) + 1
            self._commands.append({"seq": seq, "page": page, "steps": list(steps)})
        return seq

    def run_in_page(self, steps: list[Any], page: str | None = None,
                    timeout: float = DEFAULT_TIMEOUT) -> PageRecord:
        """Queue steps and wait until a page acknowledges them; returns the
        acknowledgement (its `page` and `href` tell which page ran them)."""
        seq = self.command(steps, page)
        return self.wait_for_ack(seq, timeout)

    def wait_for_ack(self, seq: int, timeout: float = DEFAULT_TIMEOUT) -> PageRecord:
        return self.wait_for_record("ack", lambda r: r.data.get("seq") == seq, timeout,
                                    what=f"a page to run command {seq}")

    # -- what pages reported

    def records(self, kind: str | None = None) -> list[PageRecord]:
        with self._lock:
            return [r for r in self._records if kind is None or r.kind == kind]

    def wait_for_record(self, kind: str, predicate: Callable[[PageRecord], bool] | None = None,
                        timeout: float = DEFAULT_TIMEOUT, what: str | None = None) -> PageRecord:
        def find():
            for record in self.records(kind):
                if predicate is None or predicate(record):
                    return record
            return None

        try:
            return wait_until(find, timeout, what=what or f"a {kind!r} report from a page on {self.url}")
        except WaitTimeout as exc:
            raise WaitTimeout(f"{exc}\n{self.describe()}") from None

    def caps(self) -> list[PageRecord]:
        """One record per page load: data = {"present": bool, "caps": value}."""
        return self.records("caps")

    def wait_for_caps(self, page: str | None = None, timeout: float = DEFAULT_TIMEOUT) -> PageRecord:
        return self.wait_for_record("caps", (lambda r: r.page == page) if page else None, timeout)

    def loads(self) -> list[PageRecord]:
        """One record per page that finished loading and painting."""
        return self.records("load")

    def wait_for_load(self, predicate: Callable[[PageRecord], bool] | str | None = None,
                      timeout: float = DEFAULT_TIMEOUT) -> PageRecord:
        """Wait for a page load; a string predicate matches the page's path."""
        if isinstance(predicate, str):
            path = predicate
            predicate = lambda r: urllib.parse.urlsplit(r.href).path == path  # noqa: E731
        return self.wait_for_record("load", predicate, timeout)

    def events(self, page: str | None = None) -> list[dict[str, Any]]:
        """Events the pages received through window.panelEvent, in order."""
        return [r.data for r in self.records("event") if page is None or r.page == page]

    def event_records(self) -> list[PageRecord]:
        return self.records("event")

    def wait_for_events(self, predicate: Callable[[list[dict[str, Any]]], Any],
                        timeout: float = DEFAULT_TIMEOUT, what: str = "events") -> Any:
        try:
            return wait_until(lambda: predicate(self.events()), timeout, what=what)
        except WaitTimeout as exc:
            raise WaitTimeout(f"{exc}\n{self.describe()}") from None

    def wait_for_event(self, type_: str, timeout: float = DEFAULT_TIMEOUT) -> dict[str, Any]:
        return self.wait_for_events(
            lambda evs: next((e for e in evs if isinstance(e, dict) and e.get("type") == type_), None),
            timeout, what=f"a {type_!r} event")

    def errors(self) -> list[PageRecord]:
        return self.records("error")

    # -- what reached the server

    def requests(self, path: str | None = None, method: str | None = None,
                 include_polls: bool = False) -> list[Request]:
        with self._lock:
            found = list(self._requests)
        return [
            r for r in found
            if (path is None or r.path == path)
            and (method is None or r.method == method)
            and (include_polls or r.path not in self.IGNORED_PATHS)
        ]

    def wait_for_request(self, path: str, method: str = "GET", timeout: float = DEFAULT_TIMEOUT) -> Request:
        try:
            return wait_until(lambda: next(iter(self.requests(path, method)), None), timeout,
                              what=f"{method} {path} on {self.url}")
        except WaitTimeout as exc:
            raise WaitTimeout(f"{exc}\n{self.describe()}") from None

    def describe(self) -> str:
        """A readable summary for failure messages."""
        lines = [f"requests to {self.url}:"]
        lines += [f"  {r.method} {r.path}{'?' + r.raw_query if r.raw_query else ''} (Host: {r.host})"
                  for r in self.requests()]
        lines.append("page reports:")
        lines += [f"  {r.kind} from {r.href} [{r.page}]: {json.dumps(r.data)[:300]}" for r in self.records()]
        return "\n".join(lines)

    # -- used by the handler

    def _note_request(self, request: Request) -> None:
        with self._lock:
            self._requests.append(request)
        if self.request_log is not None and request.path not in self.IGNORED_PATHS:
            entry = {"method": request.method, "path": request.path, "query": request.raw_query,
                     "host": request.host, "time": request.time}
            with open(self.request_log, "a", encoding="utf-8") as fh:
                fh.write(json.dumps(entry) + "\n")

    def _note_record(self, kind: str, envelope: dict[str, Any]) -> None:
        record = PageRecord(kind=kind, page=str(envelope.get("page", "")),
                            href=str(envelope.get("href", "")), data=envelope.get("data"))
        with self._lock:
            self._records.append(record)

    def _scenario(self, name: str) -> list[Any]:
        with self._lock:
            return list(self._scenarios.get(name, []))

    def _commands_after(self, after: int, page: str) -> tuple[int, list[dict[str, Any]]]:
        with self._lock:
            latest = len(self._commands)
            pending = [c for c in self._commands
                       if c["seq"] > after and (c["page"] is None or c["page"] == page)]
        return latest, pending


_CONTENT_TYPES = {
    ".html": "text/html; charset=utf-8",
    ".js": "text/javascript; charset=utf-8",
    ".css": "text/css; charset=utf-8",
    ".json": "application/json",
    ".pdf": "application/pdf",
    ".txt": "text/plain; charset=utf-8",
}


class _SiteHandler(BaseHTTPRequestHandler):
    fixture: FixtureSite
    protocol_version = "HTTP/1.0"
    server_version = "OrvaneFixtureSite/1"

    def log_message(self, format, *args):  # keep pytest output quiet
        pass

    def _record(self, body: bytes) -> urllib.parse.SplitResult:
        parts = urllib.parse.urlsplit(self.path)
        self.fixture._note_request(Request(
            method=self.command,
            path=parts.path,
            query=urllib.parse.parse_qs(parts.query, keep_blank_values=True),
            raw_query=parts.query,
            headers={k: v for k, v in self.headers.items()},
            host=self.headers.get("Host", ""),
            body=body,
            time=time.time(),
        ))
        return parts

    def _send(self, status: int, body: bytes, content_type: str = "text/plain; charset=utf-8") -> None:
        self.send_response(status)
        self.send_header("Content-Type", content_type)
        self.send_header("Content-Length", str(len(body)))
        self.send_header("Cache-Control", "no-store")
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(body)

    def _send_json(self, value: Any, status: int = 200) -> None:
        self._send(status, json.dumps(value).encode(), "application/json")

    def _read_body(self) -> bytes:
        """The request body, sent with a length or in chunks."""
        if "chunked" in self.headers.get("Transfer-Encoding", "").lower():
            chunks = []
            while True:
                size_line = self.rfile.readline()
                size = int(size_line.split(b";", 1)[0].strip() or b"0", 16)
                if size == 0:
                    while self.rfile.readline() not in (b"\r\n", b"\n", b""):
                        pass  # trailers
                    break
                chunks.append(self.rfile.read(size))
                self.rfile.readline()  # the line end after each chunk
            return b"".join(chunks)
        length = int(self.headers.get("Content-Length") or 0)
        return self.rfile.read(length) if length else b""

    def _send_canned(self, path: str) -> bool:
        answer = self.fixture._reply_for(self.command if self.command != "HEAD" else "GET", path)
        if answer is None:
            return False
        if answer.hold:
            answer._released.wait(timeout=120)
        self._send(answer.status, answer.body, answer.content_type)
        return True

    def do_HEAD(self):
        self.do_GET()

    def do_GET(self):
        parts = self._record(b"")
        path = parts.path
        if self._send_canned(path):
            return
        query = urllib.parse.parse_qs(parts.query)
        if path == "/api/papers":
            status = self.fixture.papers_status
            if status == 200:
                self._send_json([])
            else:
                self._send(status, f"{status} {HTTPStatus(status).phrase}\n".encode())
            return
        if path == "/scenario":
            name = query.get("name", ["default"])[0]
            page = query.get("page", [""])[0]
            latest, _ = self.fixture._commands_after(0, page)
            self._send_json({"steps": self.fixture._scenario(name), "cursor": latest})
            return
        if path == "/commands":
            after = int(query.get("after", ["0"])[0])
            page = query.get("page", [""])[0]
            latest, pending = self.fixture._commands_after(after, page)
            self._send_json({"latest": latest, "commands": pending})
            return
        self._serve_file(path)

    def do_PUT(self):
        parts = self._record(self._read_body())
        if not self._send_canned(parts.path):
            self._send(404, b"not found\n")

    def do_POST(self):
        body = self._read_body()
        parts = self._record(body)
        if self._send_canned(parts.path):
            return
        if parts.path.startswith("/record/"):
            kind = parts.path[len("/record/"):]
            try:
                envelope = json.loads(body.decode("utf-8")) if body else {}
            except ValueError:
                envelope = {"page": "", "href": "", "data": {"unparsable": body.decode(errors="replace")}}
            if not isinstance(envelope, dict):
                envelope = {"page": "", "href": "", "data": envelope}
            self.fixture._note_record(kind, envelope)
            self._send(204, b"")
            return
        self._send(404, b"not found\n")

    def _serve_file(self, path: str) -> None:
        if path == "/" or path == "":
            path = "/index.html"
        root = self.fixture.root.resolve()
        target = (root / path.lstrip("/")).resolve()
        if root not in target.parents or not target.is_file():
            self._send(404, b"not found\n")
            return
        data = target.read_bytes()
        if target.suffix == ".html":
            text = data.decode("utf-8")
            for key, value in self.fixture.template_vars().items():
                text = text.replace("{{" + key + "}}", value)
            data = text.encode("utf-8")
        self._send(200, data, _CONTENT_TYPES.get(target.suffix, "application/octet-stream"))


# --------------------------------------------------------------------------
# Orvane itself


def orvane_binary() -> Path:
    """$ORVANE_BIN (a relative one taken from the folder this process started
    in, since Orvane itself runs in its throwaway home) or build/orvane."""
    return Path(os.environ.get("ORVANE_BIN") or REPO_ROOT / "build" / "orvane").absolute()


# --------------------------------------------------------------------------
# a signed release


RELEASE_VERSION = "7.7.7"
SIGN_TOOL = REPO_ROOT / "build" / "orvane-sign"


def run(*args: Any, **kwargs: Any) -> subprocess.CompletedProcess:
    return subprocess.run([str(a) for a in args], capture_output=True, text=True, **kwargs)


def folder_snapshot(folder: Path) -> dict[str, tuple]:
    """Everything under folder: path -> (kind, mode, sha256 or link target)."""
    found = {}
    for dirpath, dirnames, filenames in os.walk(folder):
        for name in dirnames + filenames:
            path = Path(dirpath) / name
            rel = str(path.relative_to(folder))
            info = path.lstat()
            mode = stat.S_IMODE(info.st_mode)
            if stat.S_ISLNK(info.st_mode):
                found[rel] = ("link", mode, os.readlink(path))
            elif stat.S_ISDIR(info.st_mode):
                found[rel] = ("dir", mode, None)
            elif stat.S_ISREG(info.st_mode):
                found[rel] = ("file", mode, hashlib.sha256(path.read_bytes()).hexdigest())
            else:
                found[rel] = ("other", mode, None)
    return found


def new_key(keys: Path) -> Path:
    """A throwaway key pair made by `orvane-sign keygen` in the new folder
    `keys`; returns the secret key (keys/orvane-update.key)."""
    keys.mkdir(parents=True)
    made = run(SIGN_TOOL, "keygen", keys)
    assert made.returncode == 0, made.stderr
    return keys / "orvane-update.key"


def sign_folder(key: Path, folder: Path, *options: str) -> None:
    """`orvane-sign sign [options] key folder`, which must succeed."""
    signed = run(SIGN_TOOL, "sign", *options, key, folder)
    assert signed.returncode == 0, signed.stderr


def sign_as_other_app(key: Path, folder: Path, app_id: str = "com.example.other") -> None:
    """Rewrites the install folder's MANIFEST to name another app id and
    signs it again with `key`."""
    manifest = folder / "share/orvane/MANIFEST"
    text = manifest.read_text()
    assert text.startswith("app-id com.tarnwick.orvane\n")
    manifest.write_text(text.replace("app-id com.tarnwick.orvane\n", f"app-id {app_id}\n", 1))
    sign_folder(key, folder, "--manifest-only")


def unzip_release(archive: Path, into: Path) -> Path:
    """The release zip unpacked into `into`; returns its install folder, into/Orvane."""
    done = run("unzip", "-q", archive, "-d", into)
    assert done.returncode == 0, done.stderr
    return into / "Orvane"


def make_release(work: Path, version: str = RELEASE_VERSION) -> dict[str, Path]:
    """A throwaway key in work/keys and, made with it by
    scripts/make-release.sh, the release's zip and Debian package in work/out."""
    if not SIGN_TOOL.exists():
        raise FileNotFoundError(f"{SIGN_TOOL} is missing (build first)")
    keys = work / "keys"
    new_key(keys)
    out = work / "out"
    result = run(REPO_ROOT / "scripts" / "make-release.sh", "--key", keys / "orvane-update.key",
                 "--version", version, "--out", out, cwd=REPO_ROOT, timeout=900)
    assert result.returncode == 0, result.stdout + result.stderr
    return {"work": work, "keys": keys, "key": keys / "orvane-update.key", "out": out,
            "zip": out / f"Orvane-{version}-linux-x86_64.zip"}


class _OwnProcess:
    """A process this harness started (`proc`, once started) whose standard
    output and error go to `out_path`."""

    proc: subprocess.Popen | None = None
    out_path: Path

    @property
    def pid(self) -> int:
        assert self.proc is not None
        return self.proc.pid

    def running(self) -> bool:
        return self.proc is not None and self.proc.poll() is None

    def output(self) -> str:
        try:
            return self.out_path.read_text(errors="replace")
        except FileNotFoundError:
            return ""


class Orvane(_OwnProcess):
    """One `orvane` process started in a throwaway home on the desktop."""

    def __init__(self, home: Home, desktop: Desktop, args: Iterable[str] = (), binary: Path | None = None):
        self.home = home
        self.desktop = desktop
        self.args = list(args)
        self.binary = Path(binary) if binary else orvane_binary()
        self.proc: subprocess.Popen | None = None
        self.out_path = home.path.parent / f"orvane-{id(self):x}.out"
        # A command that runs the binary (as its arguments) in place of a
        # plain start: the Wayland tests start Orvane in an application scope
        # through one that execs it, so the pid stays the same.
        self.command_prefix: list[str] = []

    def _check_binary(self) -> None:
        if not self.binary.is_file() or not os.access(self.binary, os.X_OK):
            raise FileNotFoundError(
                f"the orvane binary is missing: {self.binary} (build first, or set ORVANE_BIN)")

    def start(self, wait_for_free_name: bool = True) -> "Orvane":
        self._check_binary()
        if wait_for_free_name:
            # One instance per bus: a process still holding the name would turn
            # this start into a forwarding one.
            wait_until(lambda: not self.desktop.name_has_owner(APP_ID), 10,
                       what=f"the bus name {APP_ID} to be free")
        out = open(self.out_path, "ab")
        try:
            self.proc = subprocess.Popen(
                [*self.command_prefix, str(self.binary), *self.args],
                env=self.home.env(),
                cwd=self.home.path,
                stdin=subprocess.DEVNULL,
                stdout=out,
                stderr=subprocess.STDOUT,
                start_new_session=True,
            )
        finally:
            out.close()
        return self

    def wait_exit(self, timeout: float = DEFAULT_TIMEOUT) -> int:
        assert self.proc is not None
        return self.proc.wait(timeout=timeout)

    def stop(self) -> None:
        """SIGTERM, then SIGKILL if it lingers; then the rest of its process
        group, which this harness created for it."""
        if self.proc is not None:
            stop_process_group(self.proc, grace=10.0)

    def run_again(self, *args: str, timeout: float = DEFAULT_TIMEOUT) -> subprocess.CompletedProcess:
        """Start `orvane` once more in the same home and desktop and wait for
        it to exit (a second start forwards to the running instance)."""
        return run_orvane(self.home, self.desktop, args, timeout=timeout, binary=self.binary)

    # -- windows

    def windows(self, role: str | None = None) -> list[int]:
        """Visible windows of class "orvane" (of this process when running),
        optionally only those with the given WM_WINDOW_ROLE."""
        found = []
        for win in self.desktop.visible_windows("orvane"):
            if self.proc is not None:
                pid = self.desktop.window_property(win, "_NET_WM_PID")
                if pid is not None and pid.isdigit() and int(pid) != self.proc.pid:
                    continue
            if role is not None and self.desktop.window_property(win, "WM_WINDOW_ROLE") != role:
                continue
            found.append(win)
        return found

    def wait_for_window(self, role: str, timeout: float = DEFAULT_TIMEOUT) -> int:
        def find():
            if self.proc is not None and self.proc.poll() is not None:
                raise AssertionError(
                    f"orvane exited with {self.proc.returncode} while waiting for its {role!r} window;"
                    f" output:\n{self.output()}")
            wins = self.windows(role)
            return wins[0] if wins else None
        return wait_until(find, timeout, interval=0.1, what=f"a visible orvane window with role {role!r}")

    def wait_window_hidden(self, win: int, timeout: float = DEFAULT_TIMEOUT) -> None:
        wait_until(lambda: self.desktop.window_info(win).get("map_state") != "IsViewable",
                   timeout, interval=0.1, what=f"window {win:#x} to be hidden")

    def click_in_window(self, win: int, x: int, y: int) -> None:
        self.desktop.click_in_window(win, x, y)


def run_orvane(home: Home, desktop: Desktop, args: Iterable[str] = (), timeout: float = DEFAULT_TIMEOUT,
               binary: Path | None = None) -> subprocess.CompletedProcess:
    """Run `orvane ARGS` to completion in its own process group; on time-out
    the group is ended and subprocess.TimeoutExpired is raised."""
    binary = Path(binary) if binary else orvane_binary()
    if not binary.is_file():
        raise FileNotFoundError(f"the orvane binary is missing: {binary} (build first, or set ORVANE_BIN)")
    proc = subprocess.Popen(
        [str(binary), *args],
        env=home.env(),
        cwd=home.path,
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        start_new_session=True,
    )
    try:
        out, err = proc.communicate(timeout=timeout)
    except subprocess.TimeoutExpired:
        stop_process_group(proc)
        proc.communicate()
        raise
    return subprocess.CompletedProcess(proc.args, proc.returncode, out.decode(errors="replace"),
                                       err.decode(errors="replace"))


# --------------------------------------------------------------------------
# a fixture project for the local development server


DEV_SERVER = FIXTURES / "devserver" / "serve.py"


class DevProject:
    """A project directory whose `.venv/bin/uvicorn` starts the fixture dev
    server (fixtures/devserver/serve.py) instead of the real site."""

    def __init__(self, path: Path | str):
        self.path = Path(path)
        bin_dir = self.path / ".venv" / "bin"
        bin_dir.mkdir(parents=True, exist_ok=True)
        uvicorn = bin_dir / "uvicorn"
        uvicorn.write_text(
            "#!/bin/sh\n"
            "# Stand-in for uvicorn in a fixture project: serves the fixture site.\n"
            f'exec {PYTHON} "{DEV_SERVER}" "$@"\n'
        )
        uvicorn.chmod(0o755)

    @property
    def pid_file(self) -> Path:
        return self.path / "server.pid"

    def pid(self) -> int | None:
        try:
            text = self.pid_file.read_text().strip()
        except FileNotFoundError:
            return None
        return int(text) if text.isdigit() else None

    def call(self) -> dict[str, Any] | None:
        """{"argv": [...], "cwd": ...} of the uvicorn start, once it happened."""
        try:
            return json.loads((self.path / "uvicorn-call.json").read_text())
        except (FileNotFoundError, ValueError):
            return None

    def requests(self) -> list[dict[str, Any]]:
        return read_json_lines(self.path / "requests.jsonl")

    def stop(self) -> None:
        """End the server this project started, by its recorded pid."""
        pid = self.pid()
        if pid is not None and pid_alive(pid) and str(DEV_SERVER) in process_cmdline(pid):
            terminate_pids([pid])
            wait_until(lambda: not pid_alive(pid), 10, what=f"dev server pid {pid} to exit")


# --------------------------------------------------------------------------
# the agent: a stand-in for Claude Code, the login shell, the real tool


AGENT_FIXTURES = FIXTURES / "agent"
STAND_IN_AGENT = AGENT_FIXTURES / "stand_in_claude.py"
LOGIN_SHELL = AGENT_FIXTURES / "login_shell.py"
# Where scripts/install-claude-code.sh puts the real tool.
CLAUDE_CODE_PREFIX = REPO_ROOT / "build" / "claude-code"


class StandInAgent:
    """A `claude` for one test home (fixtures/agent/stand_in_claude.py): it
    records every start (arguments, working folder, prompt, the files in its
    working folder) and then plays the steps of its plan. See that file for
    the steps."""

    def __init__(self, home: Home):
        self.home = home
        self.state = home.path / "agent-stand-in"

    def install(self, steps: list[dict[str, Any]] | None = None,
                at: Path | str = ".local/bin/claude") -> Path:
        """Write the executable at `at` (relative to the home unless
        absolute) and set its plan. Returns the executable's path."""
        self.state.mkdir(parents=True, exist_ok=True)
        self.plan(steps or [])
        target = Path(at) if Path(at).is_absolute() else self.home.path / at
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_text(
            "#!/bin/sh\n"
            "# Stand-in for Claude Code in an end-to-end test home.\n"
            f'exec {PYTHON} "{STAND_IN_AGENT}" "$@"\n'
        )
        target.chmod(0o755)
        return target

    def plan(self, steps: list[dict[str, Any]]) -> None:
        """What the next starts do once they have read their prompt."""
        tmp = self.state / "plan.json.tmp"
        tmp.write_text(json.dumps({"steps": steps}), encoding="utf-8")
        tmp.replace(self.state / "plan.json")

    def release(self, name: str) -> None:
        """Let a start that waits at {"waitFile": name} go on."""
        (self.state / name).write_text("go\n")

    def runs(self) -> list[dict[str, Any]]:
        return read_json_lines(self.state / "runs.jsonl")

    def wait_for_run(self, count: int = 1, timeout: float = DEFAULT_TIMEOUT) -> list[dict[str, Any]]:
        return wait_until(lambda: (lambda runs: runs if len(runs) >= count else None)(self.runs()),
                          timeout, what=f"{count} start(s) of the stand-in agent")


class LoginShell:
    """A stand-in for the user's login shell (fixtures/agent/login_shell.py),
    made the home's $SHELL. It answers `-lc "command -v claude"` with
    `answer`, optionally only once `wait_file` exists, and records its calls."""

    def __init__(self, home: Home, answer: str = "", wait_file: Path | None = None):
        self.home = home
        self.wait_file = wait_file
        (home.path / "login-shell.json").write_text(
            json.dumps({"answer": answer, "waitFile": str(wait_file) if wait_file else None}),
            encoding="utf-8")
        home.extra_env["SHELL"] = str(LOGIN_SHELL)

    def release(self) -> None:
        assert self.wait_file is not None
        self.wait_file.write_text("go\n")

    def calls(self) -> list[dict[str, Any]]:
        return self.home.calls("login-shell")

    def wait_for_call(self, timeout: float = DEFAULT_TIMEOUT) -> list[dict[str, Any]]:
        return wait_until(self.calls, timeout, what="a call of the stand-in login shell")


def claude_code_executable() -> Path | None:
    """The real Claude Code installed by scripts/install-claude-code.sh, or
    None when it is not there."""
    path = CLAUDE_CODE_PREFIX / "bin" / "claude"
    return path if path.is_file() and os.access(path, os.X_OK) else None


# --------------------------------------------------------------------------
# the reference library site (site/), run for real


SITE_DIR = REPO_ROOT / "site"
_ACCESS_LINE = re.compile(r'"(?P<method>[A-Z]+) (?P<target>\S+) HTTP/[\d.]+" (?P<status>\d{3})')


@dataclass
class SiteRequest:
    """One request as the real site's access log shows it."""
    method: str
    path: str
    raw_query: str
    status: int

    @property
    def query(self) -> dict[str, list[str]]:
        return urllib.parse.parse_qs(self.raw_query, keep_blank_values=True)


def free_port(host: str = "127.0.0.1") -> int:
    with contextlib.closing(socket.socket(socket.AF_INET, socket.SOCK_STREAM)) as sock:
        sock.bind((host, 0))
        return sock.getsockname()[1]


class ReferenceSite:
    """The bundled library site, started the way its README says
    (`.venv/bin/uvicorn main:app --port N` in site/) on a free loopback port,
    with its data in a folder of the test's own. Its console output (uvicorn's
    access log among it) goes to `log_path`; `requests()` reads the requests
    back from there."""

    def __init__(self, data_dir: Path, log_path: Path, site_dir: Path = SITE_DIR):
        self.site_dir = Path(site_dir)
        self.data_dir = Path(data_dir)
        self.log_path = Path(log_path)
        self.port: int | None = None
        self.proc: subprocess.Popen | None = None

    @property
    def uvicorn(self) -> Path:
        return self.site_dir / ".venv" / "bin" / "uvicorn"

    @property
    def url(self) -> str:
        return f"http://127.0.0.1:{self.port}"

    def start(self, attempts: int = 3) -> "ReferenceSite":
        if not os.access(self.uvicorn, os.X_OK):
            raise FileNotFoundError(
                f"{self.uvicorn} is missing: the build prepares it (scripts/prepare-site-venv.sh)")
        self.data_dir.mkdir(parents=True, exist_ok=True)
        env = clean_base_env()
        env["ORVANE_SITE_DATA"] = str(self.data_dir)
        env["PYTHONUNBUFFERED"] = "1"
        for _ in range(attempts):
            self.port = free_port()
            with open(self.log_path, "ab") as log:
                self.proc = subprocess.Popen(
                    [str(self.uvicorn), "main:app", "--port", str(self.port)],
                    cwd=self.site_dir, env=env, stdin=subprocess.DEVNULL,
                    stdout=log, stderr=subprocess.STDOUT, start_new_session=True)

            def up():
                if self.proc.poll() is not None:
                    return "exited"
                try:
                    with urllib.request.urlopen(self.url + "/api/me", timeout=2) as answer:
                        return "up" if answer.status == 200 else None
                except OSError:
                    return None
            state = wait_until(up, 30, interval=0.1, what=f"the reference site on {self.url}")
            if state == "up":
                return self
            # Lost the port to someone else between choosing and binding it.
        raise RuntimeError(f"the reference site did not start; its output:\n{self.output()}")

    def stop(self) -> None:
        if self.proc is not None:
            stop_process_group(self.proc)
            self.proc = None

    def output(self) -> str:
        try:
            return self.log_path.read_text(errors="replace")
        except FileNotFoundError:
            return ""

    def get(self, path: str) -> bytes:
        """GET a path from the site ourselves (not through a page)."""
        with urllib.request.urlopen(self.url + path, timeout=10) as answer:
            return answer.read()

    def get_json(self, path: str) -> Any:
        return json.loads(self.get(path).decode("utf-8"))

    def requests(self, path: str | None = None, method: str | None = None) -> list[SiteRequest]:
        found = []
        for line in self.output().splitlines():
            match = _ACCESS_LINE.search(line)
            if not match:
                continue
            target = urllib.parse.urlsplit(match["target"])
            request = SiteRequest(match["method"], target.path, target.query, int(match["status"]))
            if (path is None or request.path == path) and (method is None or request.method == method):
                found.append(request)
        return found

    def wait_for_request(self, predicate: Callable[[SiteRequest], bool],
                         timeout: float = DEFAULT_TIMEOUT, what: str = "a request") -> SiteRequest:
        try:
            return wait_until(lambda: next((r for r in self.requests() if predicate(r)), None),
                              timeout, what=f"{what} to reach {self.url}")
        except WaitTimeout as exc:
            tail = "\n".join(self.output().splitlines()[-40:])
            raise WaitTimeout(f"{exc}; site output (last lines):\n{tail}") from None

    def describe(self) -> str:
        return f"reference site {self.url}, output:\n{self.output()}"


# --------------------------------------------------------------------------
# other applications for the capture tests: real X clients, real buses


CAPTURE_FIXTURES = FIXTURES / "bin"
TEXT_WINDOW = CAPTURE_FIXTURES / "text_window.py"
CLIPBOARD_OWNER = CAPTURE_FIXTURES / "clipboard_owner.py"
PTY_TERMINAL = CAPTURE_FIXTURES / "pty_terminal.py"
SIGNAL_RECORDER = CAPTURE_FIXTURES / "signal_recorder.py"
QUOTE_SIGNAL = "com.tarnwick.orvane.quote"
ASK_SIGNAL = "nl.tarnwick.pendrel.ask"


class SessionBus:
    """One more private D-Bus session bus, for a second Orvane on the same
    display that must not find the first one's bus name."""

    def __init__(self, scratch: Path):
        self.scratch = Path(scratch)
        self.proc: subprocess.Popen | None = None
        self.address: str | None = None

    def start(self) -> "SessionBus":
        self.scratch.mkdir(parents=True, exist_ok=True)
        env = clean_base_env()
        env["HOME"] = str(self.scratch)
        self.proc, self.address = start_session_bus(env, self.scratch / "dbus.err")
        return self

    def stop(self) -> list[tuple[int, list[str]]]:
        """Stop the daemon and end what still carries its address (its
        activated services, our children). Returns those leftovers."""
        if self.proc is not None:
            stop_process_group(self.proc)
            if self.proc.stdout:
                self.proc.stdout.close()
            self.proc = None
        if not self.address:
            return []
        return end_processes_with_env(f"DBUS_SESSION_BUS_ADDRESS={self.address}")


class _Client(_OwnProcess):
    """A fixture program on the test desktop, in a process group of its own,
    with a state folder through which it reports."""

    def __init__(self, desktop: Desktop, state: Path):
        self.desktop = desktop
        self.state = Path(state)
        self.state.mkdir(parents=True, exist_ok=True)
        self.proc: subprocess.Popen | None = None
        self.out_path = self.state / "output.txt"

    def _spawn(self, argv: list[str], env: dict[str, str] | None = None) -> None:
        with open(self.out_path, "ab") as out:
            self.proc = subprocess.Popen(argv, env=env or self.desktop.tool_env(), cwd=self.state,
                                         stdin=subprocess.DEVNULL, stdout=out, stderr=subprocess.STDOUT,
                                         start_new_session=True)

    def _alive_or_fail(self, what: str) -> None:
        if self.proc is not None and self.proc.poll() is not None:
            raise AssertionError(f"{what} exited with {self.proc.returncode}: {self.output()}")

    def stop(self) -> None:
        if self.proc is not None:
            stop_process_group(self.proc)
            self.proc = None


class TextWindow(_Client):
    """A real GTK text view with its text selected and the keyboard focus
    (fixtures/bin/text_window.py). It owns PRIMARY like any GTK program, or
    with `no_primary` only copies to the CLIPBOARD on Ctrl+C. `keys()` are
    the key presses that reached it."""

    WM_CLASS = "orvane-e2e-text"

    def __init__(self, desktop: Desktop, state: Path, text: str,
                 select: tuple[int, int] | None = None, no_primary: bool = False):
        super().__init__(desktop, state)
        self.text = text
        self.select = select
        self.no_primary = no_primary
        self.window = 0

    def start(self, activate: bool = True) -> "TextWindow":
        """Show the window; with `activate` (a desktop with a window manager)
        also bring it to the front and wait for its keyboard focus."""
        text_file = self.state / "text.txt"
        text_file.write_text(self.text, encoding="utf-8", newline="")
        argv = [PYTHON, str(TEXT_WINDOW), str(self.state), str(text_file)]
        if self.select:
            argv += ["--select", str(self.select[0]), str(self.select[1])]
        if self.no_primary:
            argv.append("--no-primary")
        self._spawn(argv)

        def ready():
            self._alive_or_fail("the text window")
            return json.loads((self.state / "ready.json").read_text(encoding="utf-8"))
        info = wait_until(ready, what="the text window to show its selection")
        self.window = info["window"]
        if activate:
            self.desktop.activate_and_focus(self.window)
        return self

    @property
    def selected_text(self) -> str:
        start, end = self.select or (0, len(self.text))
        return self.text[start:end]

    def keys(self) -> list[dict[str, Any]]:
        return read_json_lines(self.state / "keys.jsonl")


class ClipboardOwner(_Client):
    """An application that owns the CLIPBOARD with several targets, each
    with exact bytes (fixtures/bin/clipboard_owner.py). `lost()` turns true
    once another client has taken the CLIPBOARD."""

    def __init__(self, desktop: Desktop, state: Path, targets: dict[str, bytes]):
        super().__init__(desktop, state)
        self.targets = dict(targets)

    def start(self) -> "ClipboardOwner":
        argv = [PYTHON, str(CLIPBOARD_OWNER), str(self.state)]
        for n, (name, data) in enumerate(self.targets.items()):
            path = self.state / f"target-{n}.bin"
            path.write_bytes(data)
            argv += [name, str(path)]
        self._spawn(argv)

        def owned():
            self._alive_or_fail("the clipboard owner")
            return json.loads((self.state / "owner.json").read_text(encoding="utf-8"))
        info = wait_until(owned, what="the fixture to own the CLIPBOARD")
        if not info["owned"]:
            raise AssertionError("the fixture could not take the CLIPBOARD")
        return self

    def lost(self) -> bool:
        return (self.state / "lost").exists()


class TrapTerminal(_Client):
    """An xterm whose shell records every SIGINT it gets (`trap 'echo SIGINT
    >> interrupts' INT`) and every byte typed into it (the terminal in
    non-canonical mode, signals still on), with nothing selected."""

    def __init__(self, desktop: Desktop, state: Path, title: str = "orvane-e2e-xterm"):
        super().__init__(desktop, state)
        self.title = title
        self.window = 0

    def start(self) -> "TrapTerminal":
        script = (
            "trap 'echo SIGINT >> interrupts' INT; "
            "stty -icanon -echo min 1; "
            "echo $$ > ready; "
            "while :; do dd bs=1 count=1 status=none >> typed; done"
        )
        self._spawn(["xterm", "-T", self.title, "-geometry", "80x20+40+40",
                     "-e", "/bin/sh", "-c", script])

        def shown():
            self._alive_or_fail("xterm")
            if not (self.state / "ready").exists():
                return None
            ids = self.desktop.windows_titled(self.title)
            return ids[0] if ids else None
        self.window = wait_until(shown, what="the xterm with its trap")
        self.desktop.activate_and_focus(self.window)
        return self

    def interrupts(self) -> list[str]:
        try:
            return (self.state / "interrupts").read_text().splitlines()
        except FileNotFoundError:
            return []

    def typed(self) -> bytes:
        try:
            return (self.state / "typed").read_bytes()
        except FileNotFoundError:
            return b""


class PtyTerminal(_Client):
    """A terminal emulator no table knows (fixtures/bin/pty_terminal.py): a
    GTK window of class "Orvane-e2e-pty" holding a pseudo-terminal master,
    with a shell on its slave that records every SIGINT. Ctrl+C typed into
    the window reaches the shell as SIGINT, as in a real terminal. `keys()`
    are the key presses that reached the window."""

    WM_CLASS = "Orvane-e2e-pty"

    def __init__(self, desktop: Desktop, state: Path):
        super().__init__(desktop, state)
        self.window = 0
        self.shell = 0

    def start(self) -> "PtyTerminal":
        self._spawn([PYTHON, str(PTY_TERMINAL), str(self.state)])

        def ready():
            self._alive_or_fail("the pty terminal")
            return json.loads((self.state / "ready.json").read_text(encoding="utf-8"))
        info = wait_until(ready, what="the pty terminal and its shell")
        self.window = info["window"]
        self.shell = info["shell"]
        self.desktop.activate_and_focus(self.window)
        return self

    def keys(self) -> list[dict[str, Any]]:
        return read_json_lines(self.state / "keys.jsonl")

    def interrupts(self) -> list[str]:
        try:
            return (self.state / "interrupts").read_text().splitlines()
        except FileNotFoundError:
            return []


class PdfViewerWindow(_Client):
    """zathura showing one PDF at a page, with no bars and the page fitted
    to the window width, so a page's text lies at a known place: a point
    (x, y) of the page in PDF points is at window pixel (x, y) * scale,
    measured from the top of the page shown."""

    def __init__(self, desktop: Desktop, state: Path, pdf: Path, page: int = 1,
                 width: int = 800, height: int = 600):
        super().__init__(desktop, state)
        self.pdf = Path(pdf)
        self.page = page
        self.width = width
        self.height = height
        self.window = 0

    def start(self) -> "PdfViewerWindow":
        config = self.state / "config"
        config.mkdir(exist_ok=True)
        (config / "zathurarc").write_text(
            'set guioptions ""\n'
            'set adjust-open "width"\n'
            "set page-padding 0\n"
            f"set window-width {self.width}\n"
            f"set window-height {self.height}\n"
            "set selection-clipboard primary\n"
            "set selection-notification false\n")
        data = self.state / "data"
        data.mkdir(exist_ok=True)
        self._spawn(["zathura", "--config-dir", str(config), "--data-dir", str(data),
                     "--cache-dir", str(data), "-P", str(self.page), str(self.pdf)])

        def shown():
            self._alive_or_fail("zathura")
            ids = self.desktop.windows_of_pid(self.pid)
            return ids[0] if ids else None
        self.window = wait_until(shown, what="zathura's window")
        self.desktop.activate_and_focus(self.window)
        return self

    def select_across(self, y_pixels: int, x_from: int, x_to: int) -> None:
        """Drag the pointer across the page at one height, as a user selects
        a line of text (zathura puts the selection on PRIMARY)."""
        win = str(self.window)
        tool = self.desktop.run_tool
        tool("xdotool", "mousemove", "--window", win, str(x_from), str(y_pixels), check=True)
        tool("xdotool", "mousedown", "1", check=True)
        for step in range(1, 9):
            x = x_from + (x_to - x_from) * step // 8
            tool("xdotool", "mousemove", "--window", win, str(x), str(y_pixels), check=True)
        tool("xdotool", "mouseup", "1", check=True)


class SignalRecorder(_Client):
    """Records D-Bus signals on a session bus (fixtures/bin/signal_recorder.py):
    `signals()` gives {"interface", "member", "path", "sender", "args"} in order."""

    def __init__(self, desktop: Desktop, state: Path, names: Iterable[str],
                 bus_address: str | None = None):
        super().__init__(desktop, state)
        self.names = list(names)
        self.bus_address = bus_address

    def start(self) -> "SignalRecorder":
        env = self.desktop.tool_env()
        if self.bus_address:
            env["DBUS_SESSION_BUS_ADDRESS"] = self.bus_address
        self._spawn([PYTHON, str(SIGNAL_RECORDER), str(self.state / "signals.jsonl"), *self.names], env)
        wait_until(lambda: (self._alive_or_fail("the signal recorder"), "ready" in self.output())[1],
                   what="the signal recorder to subscribe")
        return self

    def signals(self, name: str | None = None) -> list[dict[str, Any]]:
        found = read_json_lines(self.state / "signals.jsonl")
        if name is None:
            return found
        interface, member = name.rsplit(".", 1)
        return [s for s in found if s["interface"] == interface and s["member"] == member]

    def wait_for_signal(self, name: str, count: int = 1, timeout: float = DEFAULT_TIMEOUT) -> list[dict[str, Any]]:
        return wait_until(lambda: (lambda got: got if len(got) >= count else None)(self.signals(name)),
                          timeout, what=f"{count} {name} signal(s)")


class Program(_Client):
    """Any other program on the test desktop, ready once its output holds
    the text `ready`."""

    def __init__(self, desktop: Desktop, state: Path, argv: list[str], ready: str):
        super().__init__(desktop, state)
        self.argv = list(argv)
        self.ready = ready

    def start(self) -> "Program":
        self._spawn(self.argv)
        wait_until(lambda: (self._alive_or_fail(self.argv[-1]), self.ready in self.output())[1],
                   what=f"{self.argv} to say {self.ready!r}")
        return self


SIZED_WINDOW = CAPTURE_FIXTURES / "sized_window.py"
SIZED_ID = "orvane-e2e-sized.desktop"
SIZED_NEW_ID = "orvane-e2e-sized-new.desktop"
SIZED_WM_CLASS = "orvane-e2e-sized"


class SizedApp:
    """The placement tests' application (fixtures/bin/sized_window.py), a
    real GTK program that runs once per session and opens the files of a
    second start in the instance that runs. It is registered in the test's
    home as the default application for plain text (SIZED_ID; SIZED_NEW_ID
    starts a new instance), and `stop()` ends every process of it.
    `layout({title: [x, y, width, height]})` says where its windows open."""

    def __init__(self, home: Home, desktop: Desktop, state: Path):
        self.home = home
        self.desktop = desktop
        self.state = state
        self.state.mkdir(parents=True)
        self.started: list[subprocess.Popen] = []
        for desktop_id, extra in ((SIZED_ID, ""), (SIZED_NEW_ID, " --new-instance")):
            home.add_app(desktop_id, "Orvane E2E Sized", f'{PYTHON} "{SIZED_WINDOW}" "{state}"{extra} %F',
                         "text/plain;")
        mimeapps = home.path / ".config" / "mimeapps.list"
        text = mimeapps.read_text(encoding="utf-8")
        text = text.replace("[Default Applications]\n",
                            f"[Default Applications]\ntext/plain={SIZED_ID}\n", 1)
        mimeapps.write_text(text, encoding="utf-8")

    def layout(self, frames: dict[str, list[int]]) -> None:
        (self.state / "layout.json").write_text(json.dumps(frames), encoding="utf-8")

    def windows(self) -> list[dict]:
        return read_json_lines(self.state / "windows.jsonl")

    def wait_window(self, title: str) -> dict:
        return wait_until(
            lambda: next((w for w in self.windows() if w["title"] == title), None),
            what=f"a window titled {title!r}")

    def start(self, *files: str) -> subprocess.Popen:
        """Starts the application directly (not through orvane)."""
        proc = subprocess.Popen([PYTHON, str(SIZED_WINDOW), str(self.state), *files],
                                env=self.home.env(), stdin=subprocess.DEVNULL,
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.started.append(proc)
        return proc

    def stop(self) -> None:
        pids = {w["pid"] for w in self.windows()} | {p.pid for p in self.started}
        for pid in pids:
            if pid_alive(pid):
                os.kill(pid, signal.SIGTERM)
        for proc in self.started:
            try:
                proc.wait(timeout=5)
            except subprocess.TimeoutExpired:
                proc.kill()
        wait_until(lambda: not any(pid_alive(pid) for pid in pids), what="the sized windows to close")


class Clients:
    """Every fixture program a test starts, stopped at its end."""

    def __init__(self, desktop: Desktop, scratch: Path):
        self.desktop = desktop
        self.scratch = Path(scratch)
        self.started: list[_Client] = []
        self._count = 0

    def _state(self, kind: str) -> Path:
        self._count += 1
        return self.scratch / f"{self._count:02d}-{kind}"

    def _keep(self, client):
        self.started.append(client)
        return client.start()

    def text_window(self, text: str, select: tuple[int, int] | None = None,
                    no_primary: bool = False) -> TextWindow:
        return self._keep(TextWindow(self.desktop, self._state("text"), text, select, no_primary))

    def clipboard_owner(self, targets: dict[str, bytes]) -> ClipboardOwner:
        return self._keep(ClipboardOwner(self.desktop, self._state("clipboard"), targets))

    def trap_terminal(self) -> TrapTerminal:
        return self._keep(TrapTerminal(self.desktop, self._state("xterm"), f"orvane-e2e-xterm-{self._count}"))

    def pty_terminal(self) -> PtyTerminal:
        return self._keep(PtyTerminal(self.desktop, self._state("pty")))

    def pdf_viewer(self, pdf: Path, page: int = 1) -> PdfViewerWindow:
        return self._keep(PdfViewerWindow(self.desktop, self._state("zathura"), pdf, page))

    def signal_recorder(self, names: Iterable[str], bus_address: str | None = None) -> SignalRecorder:
        return self._keep(SignalRecorder(self.desktop, self._state("signals"), names, bus_address))

    def program(self, argv: list[str], ready: str) -> Program:
        return self._keep(Program(self.desktop, self._state("program"), argv, ready))

    def stop(self) -> None:
        for client in reversed(self.started):
            client.stop()


def text_pdf(pages: list[str], size: tuple[float, float] = (600, 400), font_size: float = 24,
             baseline: float = 200, left: float = 30) -> bytes:
    """A PDF with real text: one line per page, written at (left, baseline)
    in points from the page's top-left corner."""
    import io

    import cairo

    out = io.BytesIO()
    surface = cairo.PDFSurface(out, *size)
    context = cairo.Context(surface)
    for line in pages:
        context.select_font_face("DejaVu Sans")
        context.set_font_size(font_size)
        context.move_to(left, baseline)
        context.show_text(line)
        context.show_page()
    surface.finish()
    return out.getvalue()
