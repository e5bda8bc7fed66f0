"""Headless Wayland sessions for tests: KWin 5.27 (with XWayland and the
desktop portals) and mutter 43, each on private runtime, configuration and
D-Bus folders, so several can run at the same time.

`KWinSession().start()`, `MutterSession().start()` and
`GnomeSession().start()` (gnome-shell with Orvane's extension) bring a
session up;
`env()` is what a program needs to live in it, `stop()` ends every process
the session started (by pid) and removes its folders. The command-line
wrappers run-in-kwin-session, run-in-mutter-session and
run-in-gnome-session, and the pytest
fixtures of tests/e2e/wayland, are built on these classes.

`app_scope(app_id)` puts a process into a cgroup named like the systemd
user scope a desktop launcher makes (app-<app id>-<n>.scope), which is
where xdg-desktop-portal reads a host application's id from.

Processes are ended only by the pids this module started, or, for what
they left behind, by a marker variable in the environment that only this
module's children carry (ORVANE_WAYLAND_SESSION=<the session's folder>).
"""

from __future__ import annotations

import contextlib
import os
import secrets
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from typing import Callable

WAYLAND_DIR = Path(__file__).resolve().parent
REPO_ROOT = WAYLAND_DIR.parents[1]
sys.path.insert(0, str(REPO_ROOT / "tests" / "e2e"))

from harness import (  # noqa: E402
    WaitTimeout,
    clean_base_env,
    end_processes_with_env,
    pid_alive,
    start_session_bus,
    stop_process_group,
    wait_until,
)

KWIN_BINARY = Path("/usr/bin/kwin_wayland")
MUTTER_BINARY = Path("/usr/bin/mutter")
PORTAL_KDE = Path("/usr/lib/x86_64-linux-gnu/libexec/xdg-desktop-portal-kde")
PORTAL = Path("/usr/libexec/xdg-desktop-portal")
X11_SOCKET_DIR = Path("/tmp/.X11-unix")

PORTAL_KDE_NAME = "org.freedesktop.impl.portal.desktop.kde"
PORTAL_NAME = "org.freedesktop.portal.Desktop"
KWIN_NAME = "org.kde.KWin"

MARKER = "ORVANE_WAYLAND_SESSION"
START_TIMEOUT = 30.0

# Variables of the caller's own desktop session that must not reach anything
# started in a test session.
_CALLER_SESSION_VARS = ("DISPLAY", "WAYLAND_DISPLAY", "XAUTHORITY", "DBUS_SESSION_BUS_ADDRESS",
                        "DBUS_SYSTEM_BUS_ADDRESS", "XDG_RUNTIME_DIR", "XDG_SESSION_TYPE",
                        "XDG_CURRENT_DESKTOP", "XDG_SESSION_DESKTOP", "DESKTOP_SESSION",
                        "GDK_BACKEND", "QT_QPA_PLATFORM", "SESSION_MANAGER", "GNOME_SETUP_DISPLAY")


class SessionError(RuntimeError):
    """The session could not be started; `log` names the compositor's log."""

    def __init__(self, message: str, log: Path | None = None):
        super().__init__(message + (f" (compositor log: {log})" if log else ""))
        self.log = log


def _unique_suffix() -> str:
    return f"{os.getpid()}-{secrets.token_hex(3)}"


def _bus_name_has_owner(env: dict[str, str], name: str) -> bool:
    result = subprocess.run(
        ["gdbus", "call", "--session", "--dest", "org.freedesktop.DBus",
         "--object-path", "/org/freedesktop/DBus",
         "--method", "org.freedesktop.DBus.NameHasOwner", name],
        env=env, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=10)
    return result.returncode == 0 and result.stdout.strip() == "(true,)"


class WaylandSession:
    """What every headless session has: a folder of its own (runtime,
    configuration, data, cache, home, logs), a private session bus, a
    compositor, and the processes started in it."""

    desktop_name = ""  # XDG_CURRENT_DESKTOP
    kind = "wayland"

    def __init__(self, keep_logs_on_failure: bool = True):
        self.id = _unique_suffix()
        self.socket = f"wayland-orvane-{self.kind}-{self.id}"
        self.keep_logs_on_failure = keep_logs_on_failure
        self.root: Path | None = None
        self.logs: Path | None = None
        self.bus_address: str | None = None
        self.display: str | None = None  # XWayland's DISPLAY, when there is one
        self.xauthority: str | None = None
        self.procs: list[tuple[str, subprocess.Popen]] = []
        self.leftovers: list[tuple[int, list[str]]] = []

    # -- folders and environment

    @property
    def runtime_dir(self) -> Path:
        assert self.root is not None
        return self.root / "runtime"

    @property
    def compositor_log(self) -> Path:
        assert self.logs is not None
        return self.logs / f"{self.kind}.log"

    def _make_folders(self) -> None:
        self.root = Path(tempfile.mkdtemp(prefix=f"orvane-{self.kind}-session-"))
        self.logs = Path(tempfile.mkdtemp(prefix=f"orvane-{self.kind}-logs-"))
        for sub in ("runtime", "config", "data", "cache", "home", "bin"):
            (self.root / sub).mkdir(mode=0o700)
        os.chmod(self.runtime_dir, 0o700)
        # xdg-desktop-portal activates the document portal at start, which
        # mounts a FUSE file system in the runtime folder; tests need none,
        # and a mount left behind by a killed session would outlive it. A
        # service file of the session's own data folder shadows the system's.
        services = self.root / "data" / "dbus-1" / "services"
        services.mkdir(parents=True)
        (services / "org.freedesktop.portal.Documents.service").write_text(
            "[D-BUS Service]\nName=org.freedesktop.portal.Documents\nExec=/bin/false\n")

    def service_env(self) -> dict[str, str]:
        """The environment of the session's own services (compositor, bus,
        portals): everything XDG under the session's folder."""
        assert self.root is not None
        env = clean_base_env()
        for name in _CALLER_SESSION_VARS:
            env.pop(name, None)
        env.update({
            "HOME": str(self.root / "home"),
            "XDG_RUNTIME_DIR": str(self.runtime_dir),
            "XDG_CONFIG_HOME": str(self.root / "config"),
            "XDG_DATA_HOME": str(self.root / "data"),
            "XDG_CACHE_HOME": str(self.root / "cache"),
            "XDG_CURRENT_DESKTOP": self.desktop_name,
            "XDG_SESSION_TYPE": "wayland",
            MARKER: str(self.root),
        })
        if self.bus_address:
            env["DBUS_SESSION_BUS_ADDRESS"] = self.bus_address
        return env

    def env(self) -> dict[str, str]:
        """The variables a program needs to live in this session (to be laid
        over its own environment)."""
        env = {
            "WAYLAND_DISPLAY": self.socket,
            "DBUS_SESSION_BUS_ADDRESS": self.bus_address or "",
            "XDG_RUNTIME_DIR": str(self.runtime_dir),
            "XDG_SESSION_TYPE": "wayland",
            "XDG_CURRENT_DESKTOP": self.desktop_name,
            MARKER: str(self.root),
        }
        if self.display:
            env["DISPLAY"] = self.display
        if self.xauthority:
            env["XAUTHORITY"] = self.xauthority
        return env

    def command_env(self, base: dict[str, str] | None = None) -> dict[str, str]:
        """`base` (default: this process's environment) without the caller's
        desktop session, with this session's variables."""
        env = dict(os.environ if base is None else base)
        for name in _CALLER_SESSION_VARS:
            env.pop(name, None)
        env.update(self.env())
        return env

    # -- processes

    def spawn(self, name: str, argv: list[str], env: dict[str, str],
              log: Path | None = None, **kwargs) -> subprocess.Popen:
        """Start one service of the session in a process group of its own,
        its output into `log` (default: logs/NAME.log)."""
        assert self.logs is not None
        log = log or self.logs / f"{name}.log"
        with open(log, "ab") as out:
            proc = subprocess.Popen(argv, env=env, stdin=subprocess.DEVNULL, stdout=out,
                                    stderr=subprocess.STDOUT, start_new_session=True,
                                    cwd=str(self.root), **kwargs)
        self.procs.append((name, proc))
        return proc

    def _check_alive(self) -> None:
        for name, proc in self.procs:
            if proc.poll() is not None:
                raise SessionError(f"{name} exited with status {proc.returncode} while the "
                                   f"session was starting (its log: {self.logs / (name + '.log')})",
                                   self.compositor_log)

    def _wait(self, condition: Callable[[], object], what: str,
              timeout: float = START_TIMEOUT) -> object:
        def check():
            self._check_alive()
            return condition()
        try:
            return wait_until(check, timeout=timeout, interval=0.05, what=what)
        except WaitTimeout as exc:
            raise SessionError(str(exc), self.compositor_log) from None

    def wait_for_bus_name(self, name: str, timeout: float = START_TIMEOUT) -> None:
        env = self.service_env()
        self._wait(lambda: _bus_name_has_owner(env, name), f"{name} on the session bus", timeout)

    def name_has_owner(self, name: str) -> bool:
        return _bus_name_has_owner(self.service_env(), name)

    def socket_ready(self) -> bool:
        return (self.runtime_dir / self.socket).is_socket()

    # -- lifecycle

    def start(self) -> "WaylandSession":
        try:
            self._make_folders()
            bus, self.bus_address = start_session_bus(self.service_env(), self.logs / "dbus.log")
            self.procs.append(("dbus-daemon", bus))
            self._start_compositor()
        except BaseException:
            self.stop(failed=True)
            raise
        return self

    def _start_compositor(self) -> None:
        raise NotImplementedError

    def stop(self, failed: bool = False) -> list[tuple[int, list[str]]]:
        """End every process of the session (the last started first), then
        whatever still carries the session's marker; remove the session's
        folder, and its logs unless `failed` (they are kept for a look).
        Returns the leftovers as (pid, command line) pairs."""
        for _name, proc in reversed(self.procs):
            stop_process_group(proc)
            if proc.stdout:
                proc.stdout.close()
        self.procs = []
        leftovers = []
        if self.root is not None:
            markers = [f"{MARKER}={self.root}"]
            if self.bus_address:
                markers.append(f"DBUS_SESSION_BUS_ADDRESS={self.bus_address}")
            leftovers = end_processes_with_env(*markers)
            shutil.rmtree(self.root, ignore_errors=True)
            self.root = None
        if self.logs is not None and not (failed and self.keep_logs_on_failure):
            shutil.rmtree(self.logs, ignore_errors=True)
            self.logs = None
        self.leftovers = leftovers
        return leftovers

    def __enter__(self) -> "WaylandSession":
        return self.start()

    def __exit__(self, exc_type, exc, tb) -> None:
        self.stop(failed=exc_type is not None)


def _ensure_x11_socket_dir() -> None:
    """XWayland refuses a /tmp/.X11-unix that is not root's with mode 1777,
    and the first compositor that creates it would own it: make it first."""
    subprocess.run(["install", "-d", "-m", "1777", str(X11_SOCKET_DIR)], check=True)


class KWinSession(WaylandSession):
    """KWin 5.27, headless (`--virtual`, two outputs of 1600 x 1000), with
    XWayland, xdg-desktop-portal-kde and xdg-desktop-portal on the private
    bus. KWin's fake-input is open to every client of the session
    (KWIN_WAYLAND_NO_PERMISSION_CHECKS, for tests only), which is how
    orvane_fake_keys presses keys."""

    desktop_name = "KDE"
    kind = "kwin"

    def __init__(self, width: int = 1600, height: int = 1000, outputs: int = 2,
                 portals: bool = True, keep_logs_on_failure: bool = True):
        super().__init__(keep_logs_on_failure)
        self.width = width
        self.height = height
        self.outputs = outputs
        self.portals = portals

    def _start_compositor(self) -> None:
        assert self.root is not None
        if not KWIN_BINARY.exists():
            raise SessionError(f"{KWIN_BINARY} is missing (scripts/install-deps.sh installs kwin-wayland)")
        _ensure_x11_socket_dir()
        # /usr/bin/kwin_wayland carries the file capability cap_sys_resource,
        # which a container may refuse to grant ("Operation not permitted");
        # a copy carries none.
        kwin = self.root / "bin" / "kwin_wayland"
        shutil.copyfile(KWIN_BINARY, kwin)
        os.chmod(kwin, 0o755)
        # KWin starts the programs named on its command line once Wayland and
        # XWayland are up, with WAYLAND_DISPLAY, DISPLAY and XAUTHORITY set:
        # this one writes that environment down for us.
        reported = self.root / "kwin-child.env"
        reporter = self.root / "bin" / "report-env"
        reporter.write_text(
            "#!/bin/sh\n"
            f"env -0 > '{reported}.tmp' && mv '{reported}.tmp' '{reported}'\n")
        os.chmod(reporter, 0o755)

        env = self.service_env()
        env.update({"KWIN_COMPOSE": "Q", "KWIN_WAYLAND_NO_PERMISSION_CHECKS": "1"})
        self.spawn("kwin", [str(kwin), "--virtual", "--width", str(self.width),
                            "--height", str(self.height), "--output-count", str(self.outputs),
                            "--socket", self.socket, "--xwayland", "--no-lockscreen",
                            str(reporter)], env, log=self.compositor_log)
        self._wait(self.socket_ready, f"KWin's Wayland socket {self.socket}")
        self._wait(reported.exists, "KWin to start XWayland and the session's programs")
        child_env = dict(item.split("=", 1) for item in
                         reported.read_bytes().decode(errors="replace").split("\0") if "=" in item)
        self.display = child_env.get("DISPLAY") or None
        self.xauthority = child_env.get("XAUTHORITY") or None
        if not self.display:
            raise SessionError("KWin started no XWayland (no DISPLAY in its programs' environment)",
                               self.compositor_log)
        display_number = self.display.lstrip(":").split(".")[0]
        self._wait(lambda: (X11_SOCKET_DIR / f"X{display_number}").is_socket(),
                   f"XWayland's socket for {self.display}")
        self.wait_for_bus_name(KWIN_NAME)

        # Programs the bus activates (kglobalaccel, the permission store) get
        # the session's variables too.
        names = ["WAYLAND_DISPLAY", "DISPLAY", "XDG_CURRENT_DESKTOP", "XDG_SESSION_TYPE",
                 "XDG_RUNTIME_DIR", "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME",
                 "KWIN_WAYLAND_NO_PERMISSION_CHECKS", MARKER]
        update_env = self.service_env()
        update_env.update(self.env())
        update_env["KWIN_WAYLAND_NO_PERMISSION_CHECKS"] = "1"
        if self.xauthority:
            names.append("XAUTHORITY")
        result = subprocess.run(["dbus-update-activation-environment", *names], env=update_env,
                                stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=20)
        if result.returncode != 0:
            raise SessionError(f"dbus-update-activation-environment failed: {result.stderr.strip()}")
        if self.portals:
            self._start_portals()

    def _start_portals(self) -> None:
        env = self.service_env()
        env.update(self.env())
        # Without Qt's Wayland platform (qtwayland5) the KDE portal starts
        # but silently offers no GlobalShortcuts.
        env["QT_QPA_PLATFORM"] = "wayland"
        self.spawn("xdg-desktop-portal-kde", [str(PORTAL_KDE)], env)
        self.wait_for_bus_name(PORTAL_KDE_NAME)
        env.pop("QT_QPA_PLATFORM")
        self.spawn("xdg-desktop-portal", [str(PORTAL), "-r"], env)
        self.wait_for_bus_name(PORTAL_NAME)


class MutterSession(WaylandSession):
    """mutter 43, headless, one virtual monitor of 1600 x 1000, no XWayland:
    a Wayland desktop for which Orvane has no backend. mutter gets an empty
    second bus as its system bus (with none it may give up where
    /run/systemd/seats exists)."""

    desktop_name = "GNOME"
    kind = "mutter"

    def __init__(self, monitors: tuple[str, ...] = ("1600x1000",), keep_logs_on_failure: bool = True):
        super().__init__(keep_logs_on_failure)
        self.monitors = monitors
        self.system_bus_address: str | None = None

    def service_env(self) -> dict[str, str]:
        env = super().service_env()
        if self.system_bus_address:
            env["DBUS_SYSTEM_BUS_ADDRESS"] = self.system_bus_address
        return env

    def _start_compositor(self) -> None:
        assert self.logs is not None
        if not MUTTER_BINARY.exists():
            raise SessionError(f"{MUTTER_BINARY} is missing (scripts/install-deps.sh installs mutter)")
        system_bus, self.system_bus_address = start_session_bus(self.service_env(),
                                                                self.logs / "system-dbus.log")
        self.procs.append(("system-dbus-daemon", system_bus))
        argv = [str(MUTTER_BINARY), "--wayland", "--headless", "--no-x11",
                "--wayland-display", self.socket]
        for monitor in self.monitors:
            argv += ["--virtual-monitor", monitor]
        env = self.service_env()
        env["GSETTINGS_BACKEND"] = "memory"
        self.spawn("mutter", argv, env, log=self.compositor_log)
        self._wait(self.socket_ready, f"mutter's Wayland socket {self.socket}")
        self.wait_for_bus_name("org.gnome.Mutter.DisplayConfig")



GNOME_SHELL_BINARY = Path("/usr/bin/gnome-shell")
GNOME_EXTENSION_UUID = "orvane@tarnwick.com"


def default_gnome_extension_dir() -> Path:
    """The built extension: $ORVANE_GNOME_EXTENSION, or the one the build
    puts beside build/orvane (beside $ORVANE_BIN when that is set)."""
    named = os.environ.get("ORVANE_GNOME_EXTENSION")
    if named:
        return Path(named)
    binary = os.environ.get("ORVANE_BIN")
    build = Path(binary).resolve().parent if binary else REPO_ROOT / "build"
    return build / "share" / "gnome-shell" / "extensions" / GNOME_EXTENSION_UUID


def default_gnome_extension_45_dir() -> Path:
    """The GNOME 45+ (ES module) form of the built extension:
    $ORVANE_GNOME_EXTENSION_45, or share/orvane/gnome-shell-45 of the build."""
    named = os.environ.get("ORVANE_GNOME_EXTENSION_45")
    if named:
        return Path(named)
    return (default_gnome_extension_dir().parents[2] / "orvane" / "gnome-shell-45" /
            GNOME_EXTENSION_UUID)


class GnomeSession(MutterSession):
    """GNOME Shell 43, headless (`gnome-shell --wayland --headless --no-x11`),
    two virtual monitors (1600 x 1000 and 1280 x 800), on a private session
    bus with an empty second bus as its system bus. Settings come from a
    keyfile (GSETTINGS_BACKEND=keyfile) written before the start; Orvane's
    extension is copied into $XDG_DATA_HOME/gnome-shell/extensions and, unless
    `enable_extension` is false, enabled there (the shell reads extensions
    only at its start). `extra_settings` is appended to that keyfile
    ("[org/gnome/...]\nkey=value\n" groups). The overview, open at start,
    is closed over D-Bus (org.gnome.Shell OverviewActive), so a new window
    gets the focus."""

    kind = "gnome"

    def __init__(self, monitors: tuple[str, ...] = ("1600x1000", "1280x800"),
                 enable_extension: bool = True, extension_dir: Path | None = None,
                 install_extension: bool = True, extra_settings: str = "",
                 keep_logs_on_failure: bool = True):
        super().__init__(monitors, keep_logs_on_failure)
        self.extra_settings = extra_settings
        self.enable_extension = enable_extension
        self.install_extension = install_extension
        self.extension_dir = Path(extension_dir) if extension_dir else default_gnome_extension_dir()
        self.shell: subprocess.Popen | None = None
        self.keys: subprocess.Popen | None = None
        self.key_fifo: Path | None = None
        import threading
        self.key_lock = threading.Lock()

    @property
    def settings_keyfile(self) -> Path:
        assert self.root is not None
        return self.root / "config" / "glib-2.0" / "settings" / "keyfile"

    def service_env(self) -> dict[str, str]:
        env = super().service_env()
        env["GSETTINGS_BACKEND"] = "keyfile"
        env["XDG_SESSION_DESKTOP"] = "gnome"
        return env

    def env(self) -> dict[str, str]:
        env = super().env()
        if self.key_fifo:
            env["ORVANE_GNOME_KEYS"] = str(self.key_fifo)
        env["GSETTINGS_BACKEND"] = "keyfile"
        env["XDG_CONFIG_HOME"] = str(self.root / "config")
        env["XDG_DATA_HOME"] = str(self.root / "data")
        return env

    def _write_settings(self) -> None:
        enabled = f"['{GNOME_EXTENSION_UUID}']" if self.enable_extension else "@as []"
        self.settings_keyfile.parent.mkdir(parents=True, exist_ok=True)
        self.settings_keyfile.write_text(
            "[org/gnome/shell]\n"
            f"enabled-extensions={enabled}\n"
            "disable-user-extensions=false\n"
            "welcome-dialog-last-shown-version='999'\n"
            "[org/gnome/desktop/interface]\n"
            "enable-animations=false\n" + self.extra_settings)

    def _install_extension(self) -> None:
        assert self.root is not None
        if not self.install_extension:
            return
        if not (self.extension_dir / "metadata.json").is_file():
            raise SessionError(f"no built extension in {self.extension_dir} (build the target "
                               "orvane_gnome_extension, or set ORVANE_GNOME_EXTENSION)")
        target = self.root / "data" / "gnome-shell" / "extensions" / GNOME_EXTENSION_UUID
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copytree(self.extension_dir, target, symlinks=False)

    def _start_compositor(self) -> None:
        assert self.logs is not None
        if not GNOME_SHELL_BINARY.exists():
            raise SessionError(f"{GNOME_SHELL_BINARY} is missing (scripts/install-deps.sh "
                               "installs gnome-shell)")
        self._write_settings()
        self._install_extension()
        system_bus, self.system_bus_address = start_session_bus(self.service_env(),
                                                                self.logs / "system-dbus.log")
        self.procs.append(("system-dbus-daemon", system_bus))
        argv = [str(GNOME_SHELL_BINARY), "--wayland", "--headless", "--no-x11",
                "--wayland-display", self.socket]
        for monitor in self.monitors:
            argv += ["--virtual-monitor", monitor]
        self.shell = self.spawn("gnome-shell", argv, self.service_env(), log=self.compositor_log)
        self._wait(self.socket_ready, f"gnome-shell's Wayland socket {self.socket}")
        self.wait_for_bus_name("org.gnome.Shell")
        # At startup-complete the shell opens its overview (and logs this
        # line); closing it before then does not last.
        self._wait(self._startup_complete, "gnome-shell to complete its start")
        self._wait(self._close_overview, "gnome-shell to close its overview")
        self._start_key_presser()

    # -- keys

    def _start_key_presser(self) -> None:
        """One long-lived org.gnome.Mutter.RemoteDesktop client for the whole
        session. Its virtual keyboard is also the seat's only keyboard: with
        none, the shell gives no Wayland client the keyboard focus."""
        assert self.logs is not None
        env = self.service_env()
        env.update(self.env())
        with open(self.logs / "keys.log", "ab") as err:
            self.keys = subprocess.Popen(
                [sys.executable, str(WAYLAND_DIR / "gnome_keys.py"), "--stdin"], env=env,
                stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=err,
                start_new_session=True, text=True, bufsize=1)
        self.procs.append(("gnome-keys", self.keys))
        line = self._read_key_reply(START_TIMEOUT)
        if line != "ready":
            raise SessionError(f"the key presser did not start ({line!r}; its log: "
                               f"{self.logs / 'keys.log'})", self.compositor_log)

    def _read_key_reply(self, timeout: float) -> str:
        import select

        assert self.keys is not None and self.keys.stdout is not None
        ready, _, _ = select.select([self.keys.stdout], [], [], timeout)
        if not ready:
            raise SessionError("the key presser did not answer in time")
        return self.keys.stdout.readline().strip()

    def press(self, chord: str) -> int:
        """Press and release `chord` ("alt+b", "ctrl+a", ...) through the
        session's remote-desktop keyboard; returns the epoch milliseconds at
        which the presses were sent. "down CHORD" presses and holds the
        keys, "up CHORD" releases them."""
        if "\n" in chord or self.keys is None or self.keys.stdin is None:
            raise ValueError(f"cannot press {chord!r}")
        with self.key_lock:
            self.keys.stdin.write(chord + "\n")
            self.keys.stdin.flush()
            line = self._read_key_reply(10)
        if not line.isdigit():
            raise SessionError(f"the key presser refused {chord!r}: {line}")
        return int(line)

    def serve_key_fifo(self) -> Path:
        """A named pipe in the session's runtime folder: every line written
        to it is pressed as a chord (for commands run in the session, which
        find it in $ORVANE_GNOME_KEYS)."""
        import threading

        fifo = self.runtime_dir / "orvane-keys"
        os.mkfifo(fifo, 0o600)

        def serve() -> None:
            while self.root is not None:
                try:
                    with open(fifo, encoding="utf-8", errors="replace") as fh:
                        for line in fh:
                            with contextlib.suppress(ValueError, SessionError):
                                self.press(line.strip())
                except OSError:
                    return
        threading.Thread(target=serve, daemon=True).start()
        self.key_fifo = fifo
        return fifo

    def _startup_complete(self) -> bool:
        try:
            return b"GNOME Shell started at" in self.compositor_log.read_bytes()
        except OSError:
            return False

    def shell_call(self, interface: str, method: str, *args: str,
                   path: str = "/org/gnome/Shell", timeout: float = 10) -> subprocess.CompletedProcess:
        return subprocess.run(
            ["gdbus", "call", "--session", "--dest", "org.gnome.Shell", "--object-path", path,
             "--method", f"{interface}.{method}", *args],
            env=self.service_env(), stdin=subprocess.DEVNULL, capture_output=True, text=True,
            timeout=timeout)

    def _close_overview(self) -> bool:
        set_result = self.shell_call("org.freedesktop.DBus.Properties", "Set", "org.gnome.Shell",
                                     "OverviewActive", "<false>")
        if set_result.returncode != 0:
            return False
        got = self.shell_call("org.freedesktop.DBus.Properties", "Get", "org.gnome.Shell",
                              "OverviewActive")
        return got.returncode == 0 and "false" in got.stdout

    def extension_state(self) -> str:
        """The shell's view of Orvane's extension: its GetExtensionInfo
        answer as text ("" when the call fails)."""
        result = self.shell_call("org.gnome.Shell.Extensions", "GetExtensionInfo",
                                 GNOME_EXTENSION_UUID)
        return result.stdout if result.returncode == 0 else ""

    @property
    def shell_pid(self) -> int | None:
        return self.shell.pid if self.shell else None

# --------------------------------------------------------------------------
# the app scope


APP_SCOPE_UNIT_PREFIX = "app-"


def _cgroup_mounts() -> list[Path]:
    """Mount points of the hierarchies systemd tracks processes in: the
    unified (cgroup2) one and, on a hybrid or legacy layout, the named
    `name=systemd` v1 one. libsystemd reads one of them depending on the
    layout; a process is moved in both so either reading finds it."""
    mounts = []
    with open("/proc/self/mountinfo", encoding="utf-8") as fh:
        for line in fh:
            fields = line.split()
            try:
                sep = fields.index("-")
            except ValueError:
                continue
            mount_point, fstype, super_options = fields[4], fields[sep + 1], fields[sep + 3]
            if fstype == "cgroup2" or (fstype == "cgroup" and "name=systemd" in super_options.split(",")):
                mounts.append(Path(mount_point.replace("\\040", " ")))
    return mounts


class AppScopeError(RuntimeError):
    pass


class AppScope:
    """A cgroup at user.slice/user-UID.slice/user@UID.service/app.slice/
    app-APPID-N.scope in every systemd-tracking hierarchy, which is what
    `systemd-run --user --scope --unit=app-APPID-N.scope` makes on a real
    desktop. Needs write access to the cgroup file system (root in these
    containers)."""

    def __init__(self, app_id: str, instance: str | None = None):
        if not app_id or any(c in app_id for c in "/\\-\0") or app_id.startswith("."):
            # A '-' would have to be escaped in a unit name (\x2d); the ids we
            # use have none.
            raise AppScopeError(f"unusable app id {app_id!r}")
        self.app_id = app_id
        self.instance = instance or _unique_suffix().replace("-", "")
        uid = os.getuid()
        self.relative = Path(f"user.slice/user-{uid}.slice/user@{uid}.service/app.slice/"
                             f"{APP_SCOPE_UNIT_PREFIX}{app_id}-{self.instance}.scope")
        self.mounts = _cgroup_mounts()
        self.paths = [m / self.relative for m in self.mounts]
        self.created: list[Path] = []

    @property
    def unit(self) -> str:
        return self.relative.name

    def create(self) -> "AppScope":
        if not self.mounts:
            raise AppScopeError("no cgroup2 or name=systemd cgroup hierarchy is mounted")
        for mount, path in zip(self.mounts, self.paths):
            # Remember each level we make, to remove exactly those afterwards.
            level = mount
            for part in self.relative.parts:
                level = level / part
                if not level.exists():
                    try:
                        level.mkdir()
                    except OSError as exc:
                        raise AppScopeError(f"cannot create the cgroup {level}: {exc}") from exc
                    self.created.append(level)
        return self

    def enter(self, pid: int = 0) -> None:
        """Move `pid` (0: the calling process) into the scope everywhere."""
        for path in self.paths:
            try:
                with open(path / "cgroup.procs", "w", encoding="ascii") as fh:
                    fh.write(f"{pid}\n")
            except OSError as exc:
                raise AppScopeError(f"cannot move pid {pid or os.getpid()} into {path}: {exc}") from exc

    def pids(self) -> list[int]:
        found: set[int] = set()
        for path in self.paths:
            with contextlib.suppress(OSError):
                found.update(int(p) for p in (path / "cgroup.procs").read_text().split())
        return sorted(found)

    def remove(self) -> bool:
        """Remove the cgroups this scope made, deepest first; a level that
        still holds a process (or another scope) stays. True when all went."""
        ok = True
        for level in sorted(self.created, key=lambda p: len(p.parts), reverse=True):
            try:
                level.rmdir()
            except FileNotFoundError:
                pass
            except OSError:
                ok = False
        self.created = []
        return ok

    def wrap(self, argv: list[str]) -> list[str]:
        """`argv` run through a shell that moves itself into the scope and
        then execs the program, which so keeps the shell's pid and starts in
        the scope (create() first). Exit status 125 when the move fails."""
        procs = " ".join(shlex.quote(str(p / "cgroup.procs")) for p in self.paths)
        script = (f'for procs in {procs}; do echo $$ > "$procs" || exit 125; done; '
                  'exec "$@"')
        return ["/bin/sh", "-c", script, "in-app-scope", *argv]

    def preexec(self) -> Callable[[], None]:
        """A `preexec_fn` for subprocess.Popen that moves the child into the
        scope before it runs its program (create() first)."""
        paths = [str(p / "cgroup.procs") for p in self.paths]

        def move_self() -> None:
            for procs in paths:
                fd = os.open(procs, os.O_WRONLY)
                try:
                    os.write(fd, b"0\n")
                finally:
                    os.close(fd)
        return move_self


def systemd_unit_of(pid: int) -> str | None:
    """The user unit of `pid` as libsystemd reads it (what the portal uses),
    or None when libsystemd finds none."""
    import ctypes

    try:
        lib = ctypes.CDLL("libsystemd.so.0")
    except OSError:
        return None
    out = ctypes.c_char_p()
    lib.sd_pid_get_user_unit.argtypes = [ctypes.c_int, ctypes.POINTER(ctypes.c_char_p)]
    if lib.sd_pid_get_user_unit(pid, ctypes.byref(out)) < 0 or not out.value:
        return None
    value = out.value.decode()
    libc = ctypes.CDLL(None)
    libc.free(out)
    return value


# --------------------------------------------------------------------------
# the command-line wrappers


def run_command_in_session(session: WaylandSession, argv: list[str], timeout: float | None,
                           program: str) -> int:
    """Start `session`, run `argv` in it, stop the session; returns the
    command's exit status (124 when it timed out, 125 when the session did
    not start, 128+N when this wrapper was ended by signal N)."""
    received: list[int] = []
    child: subprocess.Popen | None = None

    def on_signal(signum, _frame):
        received.append(signum)
        if child is not None and child.poll() is None:
            with contextlib.suppress(ProcessLookupError):
                os.kill(child.pid, signum)

    for sig in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
        signal.signal(sig, on_signal)
    status = 125
    failed = True
    try:
        try:
            session.start()
        except (SessionError, OSError, subprocess.SubprocessError) as exc:
            print(f"{program}: the session did not start: {exc}", file=sys.stderr)
            return 125
        if received:
            return 128 + received[0]
        try:
            child = subprocess.Popen(argv, env=session.command_env(), start_new_session=True)
        except OSError as exc:
            print(f"{program}: cannot run {argv[0]}: {exc}", file=sys.stderr)
            return 127
        deadline = None if timeout is None else time.monotonic() + timeout
        timed_out = False
        while child.poll() is None:
            if deadline is not None and time.monotonic() > deadline:
                print(f"{program}: {argv[0]} still ran after {timeout:g} s; ending it",
                      file=sys.stderr)
                timed_out = True
                break
            if len(received) > 1:
                break  # asked twice: stop waiting for it to finish on its own
            time.sleep(0.05)
        # Also ends what the command left running in its process group.
        stop_process_group(child)
        if timed_out:
            status = 124
        else:
            code = child.returncode
            status = code if code >= 0 else 128 - code
        failed = status != 0
        return status
    finally:
        log = session.logs
        session.stop(failed=failed)
        if failed and log is not None and log.exists():
            print(f"{program}: the session's logs are kept in {log} "
                  f"(compositor: {log / (session.kind + '.log')})", file=sys.stderr)
        if session.leftovers:
            print(f"{program}: ended processes left in the session: {session.leftovers}",
                  file=sys.stderr)


def wrapper_main(session_factory: Callable[[], WaylandSession], argv: list[str], usage: str) -> int:
    import argparse

    program = Path(argv[0]).name
    parser = argparse.ArgumentParser(prog=program, description=usage,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--timeout", type=float, default=None,
                        help="end the command after this many seconds (exit status 124)")
    parser.add_argument("command", nargs=argparse.REMAINDER)
    args = parser.parse_args(argv[1:])
    command = args.command[1:] if args.command[:1] == ["--"] else args.command
    if not command:
        parser.error("no command given")
    return run_command_in_session(session_factory(), command, args.timeout, program)
