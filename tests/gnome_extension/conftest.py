"""Fixtures for the tests of Orvane's GNOME Shell extension against a real
headless gnome-shell 43 (tests/wayland/sessions.py GnomeSession).

- `gnome`        one session for the module, the extension enabled
- `owner`        a private bus connection that owns com.tarnwick.orvane
                 (what Orvane is to the extension): `call(method, sig, *args)`,
                 `hotkeys()` (the HotkeyPressed signals it got)
- `stranger`     a private bus connection that owns nothing
- `native`       starts native Wayland GTK windows
                 (tests/e2e/wayland/fixtures/native_window.py) in the session,
                 all ended at the test's end

The extension comes from $ORVANE_GNOME_EXTENSION or the build's
share/gnome-shell/extensions/orvane@tarnwick.com.
"""

from __future__ import annotations

import json
import signal
import subprocess
import sys
import time
from pathlib import Path

import pytest

HERE = Path(__file__).resolve().parent
REPO = HERE.parents[1]
sys.path.insert(0, str(REPO / "tests" / "wayland"))
sys.path.insert(0, str(REPO / "tests" / "e2e"))


from gi.repository import Gio, GLib  # noqa: E402

from harness import wait_until  # noqa: E402
from sessions import GnomeSession  # noqa: E402

ORVANE_NAME = "com.tarnwick.orvane"
SHELL_PATH = "/com/tarnwick/orvane/Shell"
SHELL_INTERFACE = "com.tarnwick.orvane.Shell"
NATIVE_WINDOW = REPO / "tests" / "e2e" / "wayland" / "fixtures" / "native_window.py"
PYTHON = "/usr/bin/python3"


def pump(seconds: float = 0.0) -> None:
    """Dispatch what the private connections received (signals)."""
    context = GLib.MainContext.default()
    deadline = time.monotonic() + seconds
    while True:
        while context.pending():
            context.iteration(False)
        if time.monotonic() >= deadline:
            return
        time.sleep(0.01)


def clipboard_variant(contents: list[tuple[str, bytes]]) -> GLib.Variant:
    """An a(say) of (MIME type, bytes) pairs."""
    items = [GLib.Variant.new_tuple(GLib.Variant.new_string(mimetype),
                                    GLib.Variant.new_from_bytes(GLib.VariantType("ay"),
                                                                GLib.Bytes(data), True))
             for mimetype, data in contents]
    return GLib.Variant.new_array(GLib.VariantType("(say)"), items)


class Peer:
    """A connection of its own to the session's bus."""

    def __init__(self, session: GnomeSession):
        flags = (Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT |
                 Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION)
        self.bus = Gio.DBusConnection.new_for_address_sync(session.bus_address, flags, None, None)
        self.signals: list[tuple[str, tuple]] = []
        self._subscription = self.bus.signal_subscribe(
            "org.gnome.Shell", SHELL_INTERFACE, None, SHELL_PATH, None,
            Gio.DBusSignalFlags.NONE,
            lambda _c, _sender, _path, _iface, name, params: self.signals.append(
                (name, params.unpack())))

    @property
    def unique_name(self) -> str:
        return self.bus.get_unique_name()

    def call(self, method: str, signature: str | None = None, *args, timeout_ms: int = 10000):
        params = GLib.Variant(signature, tuple(args)) if signature else None
        reply = self.bus.call_sync("org.gnome.Shell", SHELL_PATH, SHELL_INTERFACE, method, params,
                                   None, Gio.DBusCallFlags.NONE, timeout_ms, None)
        return reply.unpack()

    def call_raw(self, method: str, params: GLib.Variant | None, timeout_ms: int = 10000) -> GLib.Variant:
        return self.bus.call_sync("org.gnome.Shell", SHELL_PATH, SHELL_INTERFACE, method, params,
                                  None, Gio.DBusCallFlags.NONE, timeout_ms, None)

    def restore_clipboard(self, contents: list[tuple[str, bytes]], timeout_ms: int = 60000) -> tuple:
        """RestoreClipboard with the contents built without a Python object
        per byte (PyGObject's way takes seconds a megabyte)."""
        return self.call_raw("RestoreClipboard", GLib.Variant.new_tuple(clipboard_variant(contents)),
                             timeout_ms).unpack()

    def save_clipboard(self) -> list[tuple[str, bytes]]:
        (array,) = [self.call_raw("SaveClipboard", None).get_child_value(0)]
        return [(array.get_child_value(i).get_child_value(0).get_string(),
                 array.get_child_value(i).get_child_value(1).get_data_as_bytes().get_data())
                for i in range(array.n_children())]

    def bus_call(self, method: str, signature: str, *args):
        return self.bus.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                  "org.freedesktop.DBus", method, GLib.Variant(signature, args),
                                  None, Gio.DBusCallFlags.NONE, 10000, None).unpack()

    def own(self) -> None:
        # 4: DBUS_NAME_FLAG_DO_NOT_QUEUE; 1: the primary owner now.
        (result,) = self.bus_call("RequestName", "(su)", ORVANE_NAME, 4)
        assert result == 1, f"could not own {ORVANE_NAME} (RequestName answered {result})"

    def release(self) -> None:
        self.bus_call("ReleaseName", "(s)", ORVANE_NAME)

    def hotkeys(self) -> list[tuple]:
        return self.signals_named("HotkeyPressed")

    def signals_named(self, name: str) -> list[tuple]:
        pump()
        return [params for signal, params in self.signals if signal == name]

    def move_second_monitor(self, dy: int) -> None:
        """Moves the second monitor `dy` pixels down (for this session only)
        through mutter's own display configuration, as GNOME's Settings does."""
        def display_config(method: str, params: GLib.Variant | None = None):
            return self.bus.call_sync(
                "org.gnome.Mutter.DisplayConfig", "/org/gnome/Mutter/DisplayConfig",
                "org.gnome.Mutter.DisplayConfig", method, params, None, Gio.DBusCallFlags.NONE,
                10000, None).unpack()
        serial, monitors, logical, _properties = display_config("GetCurrentState")
        current_mode = {monitor[0][0]: mode[0] for monitor in monitors for mode in monitor[1]
                        if mode[6].get("is-current")}
        layout = [(x, y + (0 if primary else dy), scale, transform, primary,
                   [(monitor_ids[0][0], current_mode[monitor_ids[0][0]], {})])
                  for x, y, scale, transform, primary, monitor_ids, _ in logical]
        # 1: temporary, not written to monitors.xml.
        display_config("ApplyMonitorsConfig", GLib.Variant(
            "(uua(iiduba(ssa{sv}))a{sv})", (serial, 1, layout, {})))

    def close(self) -> None:
        self.bus.signal_unsubscribe(self._subscription)
        self.bus.close_sync(None)


class NativeWindow:
    def __init__(self, session: GnomeSession, state: Path, text: str, title: str):
        env = session.command_env()
        env["GDK_BACKEND"] = "wayland"
        self.state = state
        self.text = text
        self.title = title
        self.proc = subprocess.Popen([PYTHON, str(NATIVE_WINDOW), str(state), "--text", text,
                                      "--title", title], env=env, stdin=subprocess.DEVNULL,
                                     start_new_session=True)

        def ready():
            assert self.proc.poll() is None, f"native_window.py exited ({self.proc.returncode})"
            return json.loads((state / "ready.json").read_text(encoding="utf-8"))
        self.info = wait_until(ready, timeout=15, what=f"the native window {title!r} to get the keyboard")
        self.pid = self.proc.pid

    def _lines(self, name: str) -> list[dict]:
        path = self.state / name
        if not path.exists():
            return []
        return [json.loads(line) for line in path.read_text(encoding="utf-8").splitlines()
                if line.strip()]

    def keys(self) -> list[str]:
        return [k["key"] for k in self._lines("keys.jsonl")]

    def stop(self) -> None:
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(5)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait(5)


@pytest.fixture(scope="module")
def gnome():
    # GNOME binds no key to full screen by default; Super+F does here.
    session = GnomeSession(extra_settings="[org/gnome/desktop/wm/keybindings]\n"
                                          "toggle-fullscreen=['<Super>f']\n")
    session.start()
    failed = False
    try:
        yield session
    except BaseException:
        failed = True
        raise
    finally:
        logs = session.logs
        session.stop(failed=failed)
        if failed and logs:
            print(f"the GNOME session's logs: {logs}", file=sys.stderr)


@pytest.fixture(scope="module")
def owner(gnome):
    peer = Peer(gnome)
    peer.own()
    yield peer
    peer.close()


@pytest.fixture
def stranger(gnome):
    peer = Peer(gnome)
    yield peer
    peer.close()


@pytest.fixture
def native(gnome, tmp_path):
    started: list[NativeWindow] = []

    def start(text: str = "Orvane native text", title: str = "Orvane GNOME native") -> NativeWindow:
        window = NativeWindow(gnome, tmp_path / f"native-{len(started)}", text, title)
        started.append(window)
        return window
    yield start
    for window in started:
        window.stop()
