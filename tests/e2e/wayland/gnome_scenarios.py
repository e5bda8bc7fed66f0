"""What the GNOME end-to-end tests share: the session with the test
observer beside Orvane's extension, and `GnomeView`, the shell's own view of
the windows and the CLIPBOARD as the observer reports it (so that a
placement is checked independently of the extension under test).

The shell's coordinates: monitor 1 (1600 x 1000) at x 0..1600, monitor 2
(1280 x 800) at x 1600..2880, y downwards; Orvane's log writes y upwards
from the primary's bottom edge.
"""

from __future__ import annotations

import json
import shutil
from typing import Any

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

from harness import wait_until  # noqa: E402
from wayland_harness import REPO_ROOT, _SessionDesktop  # noqa: E402
from sessions import GNOME_EXTENSION_UUID, GnomeSession  # noqa: E402

OBSERVER_UUID = "orvane-test-observer@tarnwick.com"
OBSERVER_DIR = REPO_ROOT / "tests" / "wayland" / "gnome-observer"
OBSERVER_PATH = "/com/tarnwick/orvane/TestObserver"
OBSERVER_INTERFACE = "com.tarnwick.orvane.TestObserver"


class GnomeTestSession(_SessionDesktop, GnomeSession):
    """A GNOME Shell session for one test, with the test observer enabled
    beside Orvane's extension (which `extension` says how to offer:
    "enabled", "disabled" = installed and off, "missing" = not installed)."""

    def __init__(self, extension: str = "enabled"):
        assert extension in ("enabled", "disabled", "missing"), extension
        super().__init__(enable_extension=extension == "enabled",
                         install_extension=extension != "missing")
        self._bus: Gio.DBusConnection | None = None

    def _write_settings(self) -> None:
        enabled = [OBSERVER_UUID] + ([GNOME_EXTENSION_UUID] if self.enable_extension else [])
        self.settings_keyfile.parent.mkdir(parents=True, exist_ok=True)
        self.settings_keyfile.write_text(
            "[org/gnome/shell]\n"
            f"enabled-extensions={enabled!r}\n"
            "disable-user-extensions=false\n"
            "welcome-dialog-last-shown-version='999'\n"
            "[org/gnome/desktop/interface]\n"
            "enable-animations=false\n")

    def _install_extension(self) -> None:
        super()._install_extension()
        target = self.root / "data" / "gnome-shell" / "extensions" / OBSERVER_UUID
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copytree(OBSERVER_DIR, target)

    def env(self) -> dict[str, str]:
        """What a program in the session gets. The shell's own settings and
        extensions folders are left out: a program's HOME (a test's
        throwaway home) decides where it keeps its files."""
        env = super().env()
        env.pop("XDG_CONFIG_HOME", None)
        env.pop("XDG_DATA_HOME", None)
        return env

    def press(self, *chords: str) -> int:  # type: ignore[override]
        """Presses the chords one after the other; the epoch milliseconds at
        which the last one was sent."""
        sent = 0
        for chord in chords:
            sent = GnomeSession.press(self, chord)
        return sent

    def bus(self) -> Gio.DBusConnection:
        if self._bus is None:
            self._bus = Gio.DBusConnection.new_for_address_sync(
                self.env()["DBUS_SESSION_BUS_ADDRESS"],
                Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION,
                None, None)
        return self._bus

    def stop(self, *args, **kwargs):
        if self._bus is not None:
            self._bus.close_sync(None)
            self._bus = None
        return super().stop(*args, **kwargs)


def centred(monitor: dict[str, int], size: tuple[int, int]) -> tuple[int, int, int, int]:
    """A frame of `size` centred on a monitor, rounded as Orvane rounds
    (half a pixel up)."""
    return (int(monitor["x"] + (monitor["width"] - size[0]) / 2 + 0.5),
            int(monitor["y"] + (monitor["height"] - size[1]) / 2 + 0.5), size[0], size[1])


def frame_of(window: dict[str, Any]) -> tuple[int, int, int, int]:
    return (window["x"], window["y"], window["width"], window["height"])


class GnomeView:
    """The shell's view, through the test observer."""

    def __init__(self, session: GnomeTestSession):
        self.session = session

    def call(self, method: str, signature: str | None = None, *args: Any) -> Any:
        parameters = GLib.Variant(signature, args) if signature else None
        reply = self.session.bus().call_sync("org.gnome.Shell", OBSERVER_PATH, OBSERVER_INTERFACE,
                                             method, parameters, None, Gio.DBusCallFlags.NONE,
                                             10000, None)
        return reply.unpack()

    def state(self) -> dict[str, Any]:
        return json.loads(self.call("Windows")[0])

    def windows(self) -> list[dict[str, Any]]:
        return [w for w in self.state()["windows"] if w["type"] == 0]  # normal windows

    def monitors(self) -> list[dict[str, int]]:
        return json.loads(self.call("Monitors")[0])["monitors"]

    def windows_of(self, pid: int) -> list[dict[str, Any]]:
        return [w for w in self.windows() if w["pid"] == pid]

    def window_of(self, pid: int, title: str | None = None) -> dict[str, Any] | None:
        for window in self.windows_of(pid):
            if title is None or window["title"] == title:
                return window
        return None

    def wait_window_of(self, pid: int, title: str | None = None, what: str = "the window") -> dict[str, Any]:
        return wait_until(lambda: self.window_of(pid, title), what=what)

    def focused(self) -> dict[str, Any] | None:
        return next((w for w in self.state()["windows"] if w["focused"]), None)

    def move(self, window: dict[str, Any], x: int, y: int) -> None:
        assert self.call("Move", "(tii)", window["id"], x, y)[0], window
        wait_until(lambda: (lambda w: w and (w["x"], w["y"]) == (x, y))(
            next((w for w in self.windows() if w["id"] == window["id"]), None)),
            what=f"window {window['id']} to move to {x}, {y}")

    def activate(self, window: dict[str, Any]) -> None:
        assert self.call("Activate", "(t)", window["id"])[0], window
        wait_until(lambda: (self.focused() or {}).get("id") == window["id"],
                   what=f"window {window['id']} to have the keyboard")

    def clipboard_types(self) -> list[str]:
        return list(self.call("ClipboardTypes")[0])

    def clipboard(self, mime: str) -> bytes:
        return bytes(self.call("ClipboardContent", "(s)", mime)[0])

    def set_primary(self, text: str) -> None:
        self.call("SetPrimary", "(s)", text)

    def set_clipboard(self, mime: str, data: bytes) -> None:
        self.call("SetClipboard", "(say)", mime, data)
