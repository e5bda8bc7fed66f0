"""End-to-end checks of the self-update: an installed copy (the release zip
unzipped into a throwaway folder) runs on the test desktop, its page asks
for "updateApp" with an archive served on loopback, and what happens is seen
from outside: the page's events, the activity log, the install folder on
disk, the work folders in TMPDIR and the processes that run.

The newer release is the installed folder (7.7.7) re-signed as 8.0.0 with
the same key, the older one the same folder re-signed as 1.0.0; the tampered
archives are made from the newer one. Archives are stored without
compression, which keeps making them cheap.
"""

from __future__ import annotations

import json
import os
import shutil
import stat
import subprocess
import urllib.request
import zipfile
from pathlib import Path

import pytest

from harness import (
    SIGN_TOOL,
    Orvane,
    folder_snapshot as snapshot,
    new_key,
    pid_alive,
    port_is_free,
    run,
    sign_as_other_app,
    sign_folder,
    terminate_pids,
    unzip_release,
    wait_until,
)

NEW_VERSION = "8.0.0"
OLD_VERSION = "1.0.0"
UPDATE_TIMEOUT = 90.0
STAGES = ["downloading", "unpacking", "checking signature", "installing"]
NOT_SIGNED_LIKE_THIS = "the downloaded app is not signed like this one (code {})"


# --------------------------------------------------------------------------
# folders and archives


def zip_folder(parent: Path, top: str, archive: Path) -> Path:
    """Packs parent/top as the archive's top entry; links stay links."""
    packed = run("zip", "-qry0", archive, top, cwd=parent)
    assert packed.returncode == 0, packed.stderr
    return archive


def manifest_version(folder: Path) -> str:
    return (folder / "share/orvane/MANIFEST").read_text().splitlines()[1]


class Releases:
    """The installed release and the archives made from it, made on demand
    once per module."""

    def __init__(self, release: dict, work: Path):
        self.release = release
        self.key = release["key"]
        self.work = work
        self.made: dict[str, Path] = {}
        self.unzipped = unzip_release(release["zip"], work / "unzipped")

    def install(self, into: Path) -> Path:
        """A fresh installed copy at into/Orvane."""
        into.mkdir(parents=True, exist_ok=True)
        copied = run("cp", "-a", self.unzipped, into / "Orvane")
        assert copied.returncode == 0, copied.stderr
        return into / "Orvane"

    def newer_folder(self, name: str) -> Path:
        """A copy of the release re-signed as the newer version, at
        work/NAME/Orvane."""
        folder = self.install(self.work / name)
        sign_folder(self.key, folder, "--version", NEW_VERSION)
        return folder

    def archive(self, name: str) -> Path:
        if name not in self.made:
            self.made[name] = getattr(self, "_make_" + name.replace("-", "_"))()
        return self.made[name]

    def _make_good(self) -> Path:
        folder = self.newer_folder("good")
        assert run(SIGN_TOOL, "verify", folder).returncode == 0
        return zip_folder(folder.parent, "Orvane", self.work / "good.zip")

    def _make_older(self) -> Path:
        folder = self.install(self.work / "older")
        sign_folder(self.key, folder, "--version", OLD_VERSION)
        return zip_folder(folder.parent, "Orvane", self.work / "older.zip")

    def _make_nested(self) -> Path:
        folder = self.newer_folder("nested/Outer")
        return zip_folder(folder.parent.parent, "Outer", self.work / "nested.zip")

    def _make_other_key(self) -> Path:
        other_key = new_key(self.work / "other-keys")
        folder = self.install(self.work / "other-key")
        sign_folder(other_key, folder, "--version", NEW_VERSION)
        return zip_folder(folder.parent, "Orvane", self.work / "other-key.zip")

    def _make_changed_file(self) -> Path:
        folder = self.newer_folder("changed-file")
        main = folder / "share/orvane/site/main.py"
        main.write_bytes(main.read_bytes() + b"\n# changed after signing\n")
        return zip_folder(folder.parent, "Orvane", self.work / "changed-file.zip")

    def _make_added_file(self) -> Path:
        folder = self.newer_folder("added-file")
        (folder / "share/orvane/site/added.py").write_text("print('not signed')\n")
        return zip_folder(folder.parent, "Orvane", self.work / "added-file.zip")

    def _make_other_app_id(self) -> Path:
        folder = self.newer_folder("other-app-id")
        sign_as_other_app(self.key, folder)
        return zip_folder(folder.parent, "Orvane", self.work / "other-app-id.zip")


@pytest.fixture(scope="module")
def releases(release, tmp_path_factory):
    return Releases(release, tmp_path_factory.mktemp("update-archives"))


# --------------------------------------------------------------------------
# running an installed copy


def executable_of(pid: int) -> str | None:
    try:
        return os.readlink(f"/proc/{pid}/exe")
    except OSError:
        return None


def pids_running(executable: Path) -> list[int]:
    wanted = str(executable)
    return [int(p) for p in os.listdir("/proc") if p.isdigit() and executable_of(int(p)) == wanted]


class UpdateRun:
    """One installed copy started on the desktop with its page on `site`."""

    def __init__(self, home, desktop, site, request, tmp_path: Path, binary: Path,
                 tmpdir: Path | None = None):
        self.home = home
        self.site = site
        self.tmpdir = tmpdir or tmp_path / "tmp"
        self.tmpdir.mkdir(parents=True, exist_ok=True)
        home.extra_env["TMPDIR"] = str(self.tmpdir)
        home.write_settings(AppURL=site.url)
        site.set_scenario([{"post": {"action": "hello", "account": "alice"}}])
        self.orvane = Orvane(home, desktop, binary=binary)
        request.node._orvanes = [self.orvane]
        request.addfinalizer(self.orvane.stop)
        self.orvane.start()
        self.page = site.wait_for_record("scenarioDone", timeout=60).page

    def finals(self) -> list[dict]:
        return [e for e in self.update_events() if e["type"] == "updateDone"]

    def update(self, address: str) -> dict:
        """Posts "updateApp" and waits for its final event."""
        earlier = len(self.finals())
        self.site.run_in_page([{"post": {"action": "updateApp", "url": address}}], page=self.page)
        wait_until(lambda: len(self.finals()) > earlier, UPDATE_TIMEOUT,
                   what=f"the end of the update from {address}\n{self.site.describe()}")
        return self.finals()[earlier]

    def update_events(self) -> list[dict]:
        return [e for e in self.site.events(self.page)
                if e.get("type") in ("updateProgress", "updateDone")]

    def update_log(self) -> list[str]:
        return [m for m in self.home.log_messages() if m.startswith("update")]

    def work_folders(self) -> list[str]:
        return sorted(p.name for p in self.tmpdir.iterdir() if p.name.startswith("orvane-update-"))

    def still_running(self) -> bool:
        return self.orvane.proc.poll() is None


def progress(*stages: str) -> list[dict]:
    return [{"type": "updateProgress", "stage": s} for s in stages]


def failed(message: str) -> dict:
    return {"type": "updateDone", "ok": False, "error": message}


def serve(site, name: str, archive: Path) -> str:
    site.reply(f"/releases/{name}", archive.read_bytes(), content_type="application/zip")
    return f"{site.url}/releases/{name}"


def trashed(home) -> list[str]:
    """What the home's trash holds besides its own folders."""
    trash = home.path / ".local/share/Trash"
    return sorted(str(p.relative_to(trash)) for p in trash.rglob("*") if not p.is_dir() or p.is_symlink())


def banners(home) -> list[str]:
    return [m for m in home.log_messages() if m.startswith("=== Orvane")]


# --------------------------------------------------------------------------
# a good update


def check_good_update(run_: UpdateRun, releases: Releases, installed: Path, site) -> None:
    old = run_.orvane.proc
    done = run_.update(serve(site, f"Orvane-{NEW_VERSION}.zip", releases.archive("good")))
    assert done == {"type": "updateDone", "ok": True}, run_.home.log_messages()
    assert run_.update_events() == progress(*STAGES) + [done]
    # The old process quits by itself, normally.
    assert old.wait(timeout=30) == 0

    # A new process starts from the same path.
    executable = installed / "bin" / "orvane"
    new_pids = wait_until(lambda: [p for p in pids_running(executable) if p != old.pid], 30,
                          what=f"a new orvane from {executable}")
    try:
        assert len(new_pids) == 1, new_pids
        new_pid = new_pids[0]
        assert os.readlink(f"/proc/{new_pid}/exe") == str(executable)
        wait_until(lambda: len(banners(run_.home)) == 2, what="the relaunched copy's start banner")
        assert run_.update_log() == ["update: " + s for s in STAGES] + ["update: installed, relaunching"]

        # The folder is now the newer release, exactly as it was signed.
        verified = run(SIGN_TOOL, "verify", installed)
        assert verified.returncode == 0, verified.stderr
        assert manifest_version(installed) == f"version {NEW_VERSION}"
        assert snapshot(installed) == snapshot(releases.work / "good" / "Orvane")
        # Nothing is left behind: no work folder, no old copy.
        assert run_.work_folders() == []
        assert list(run_.tmpdir.iterdir()) == []
        assert sorted(p.name for p in installed.parent.iterdir()) == ["Orvane"]
        assert trashed(run_.home) == []
    finally:
        terminate_pids(new_pids)
        wait_until(lambda: not any(pid_alive(p) for p in new_pids), 15, what="the relaunched orvane to end")


@pytest.mark.parametrize("apps", [
    "apps",
    # Every character of the path reaches the relaunch as it is: none is
    # read by the shell.
    "it's \"odd\" $HOME `false` $(false); a  b \\ & | > <",
], ids=["plain", "shell-characters"])
def test_good_update_swaps_the_folder_and_relaunches_from_the_same_path(
        releases, home, desktop, site, request, tmp_path, apps):
    installed = releases.install(tmp_path / apps)
    run_ = UpdateRun(home, desktop, site, request, tmp_path, installed / "bin" / "orvane")
    check_good_update(run_, releases, installed, site)


def test_good_update_with_the_temporary_folder_on_another_file_system(
        releases, home, desktop, site, request, tmp_path):
    shm = Path("/dev/shm")
    if not shm.is_dir() or os.stat(shm).st_dev == os.stat(tmp_path).st_dev:
        pytest.skip("/dev/shm is not a separate file system here")
    tmpdir = Path(subprocess.check_output(["mktemp", "-d", "/dev/shm/orvane-e2e-XXXXXX"], text=True).strip())
    request.addfinalizer(lambda: shutil.rmtree(tmpdir, ignore_errors=True))
    installed = releases.install(tmp_path / "apps")
    run_ = UpdateRun(home, desktop, site, request, tmp_path, installed / "bin" / "orvane", tmpdir=tmpdir)
    check_good_update(run_, releases, installed, site)


# --------------------------------------------------------------------------
# refusals that leave the installed copy as it is


@pytest.fixture
def running_copy(releases, home, desktop, site, request, tmp_path):
    installed = releases.install(tmp_path / "apps")
    before = snapshot(installed)
    run_ = UpdateRun(home, desktop, site, request, tmp_path, installed / "bin" / "orvane")
    yield run_, installed, before


def update_libraries_mapped(run_: UpdateRun) -> set[str]:
    """Which of the libraries the update opens (to unpack, and to hash and
    check signatures) the running copy has mapped."""
    with open(f"/proc/{run_.orvane.proc.pid}/maps") as maps:
        mapped = maps.read()
    return {name for name in ("libarchive", "libsodium") if f"/{name}." in mapped}


def assert_untouched(run_: UpdateRun, installed: Path, before: dict) -> None:
    assert snapshot(installed) == before
    assert sorted(p.name for p in installed.parent.iterdir()) == ["Orvane"]
    assert trashed(run_.home) == []
    assert run_.still_running()
    assert manifest_version(installed) == "version 7.7.7"


def test_malformed_update_requests_are_ignored_or_fail_without_a_download(running_copy, site):
    run_, installed, before = running_copy
    # An address that is not a string is ignored: no event, no log line.
    run_.site.run_in_page([{"post": {"action": "updateApp", "url": 42}},
                           {"post": {"action": "updateApp", "url": ["http://x/a.zip"]}},
                           {"post": {"action": "updateApp"}}], page=run_.page)
    wait_until(lambda: run_.home.log_messages().count("message: updateApp") == 3,
               what="the three messages to be logged")
    assert run_.update_events() == []
    assert run_.update_log() == []
    # Addresses that are no address at all, or lead nowhere, or are huge.
    for address in ("", "not an address", "http://127.0.0.1:1/nothing.zip",
                    site.url + "/releases/" + "a" * 100_000 + ".zip"):
        done = run_.update(address)
        assert done["ok"] is False and done["error"], (address[:60], done)
        if address in ("", "not an address"):
            assert done == failed("no download address")
    assert [e for e in run_.update_events() if e["type"] == "updateProgress"] == progress("downloading") * 2
    assert run_.work_folders() == []
    assert_untouched(run_, installed, before)


def test_archive_answered_with_404_fails_the_download(running_copy, site):
    run_, installed, before = running_copy
    site.reply("/releases/missing.zip", "<html>no such release</html>", status=404,
               content_type="text/html")
    done = run_.update(f"{site.url}/releases/missing.zip")
    assert done == failed("download failed (HTTP 404)")
    assert run_.update_events() == progress("downloading") + [done]
    assert run_.update_log() == ["update: downloading", "update failed: download failed (HTTP 404)"]
    assert run_.work_folders() == []  # the answer body was not kept
    assert_untouched(run_, installed, before)


def test_archive_with_the_app_one_level_down_holds_no_app(running_copy, releases, site):
    run_, installed, before = running_copy
    done = run_.update(serve(site, "nested.zip", releases.archive("nested")))
    assert done == failed("the download held no app")
    assert run_.update_events() == progress("downloading", "unpacking") + [done]
    assert run_.update_log() == ["update: downloading", "update: unpacking",
                                 "update failed: the download held no app"]
    assert_untouched(run_, installed, before)


@pytest.mark.parametrize("archive,code", [
    ("other-key", 1),
    ("other-app-id", 2),
    ("changed-file", 4),
    ("added-file", 5),
])
def test_archive_not_signed_like_this_copy_is_refused_with_its_code(running_copy, releases, site,
                                                                    archive, code):
    run_, installed, before = running_copy
    # The update's libraries are opened by the update, not at launch.
    assert update_libraries_mapped(run_) == set()
    done = run_.update(serve(site, archive + ".zip", releases.archive(archive)))
    assert update_libraries_mapped(run_) == {"libarchive", "libsodium"}
    message = NOT_SIGNED_LIKE_THIS.format(code)
    assert done == failed(message)
    assert run_.update_events() == progress("downloading", "unpacking", "checking signature") + [done]
    log = run_.update_log()
    assert log[:3] == ["update: downloading", "update: unpacking", "update: checking signature"], log
    assert log[-1] == "update failed: " + message, log
    assert len(log) == 5, log  # and one line that says why
    # The refused download stays in its work folder; nothing else moved.
    assert len(run_.work_folders()) == 1
    assert_untouched(run_, installed, before)


def test_older_signed_release_is_refused_and_the_copy_kept(running_copy, releases, site):
    run_, installed, before = running_copy
    done = run_.update(serve(site, f"Orvane-{OLD_VERSION}.zip", releases.archive("older")))
    message = f"the download is older than this app ({OLD_VERSION} < 7.7.7)"
    assert done == failed(message)
    assert run_.update_events() == progress("downloading", "unpacking", "checking signature") + [done]
    assert run_.update_log() == ["update: downloading", "update: unpacking", "update: checking signature",
                                 "update failed: " + message]
    assert len(run_.work_folders()) == 1
    assert_untouched(run_, installed, before)


@pytest.mark.parametrize("variable,message,stages,why", [
    ("ORVANE_ARCHIVE_LIBRARY", "could not unpack the download", ["downloading", "unpacking"],
     "update: zip archives cannot be unpacked ("),
    ("ORVANE_SODIUM_LIBRARY", "could not read this app's own signature", STAGES[:3],
     "update: signatures cannot be made or checked ("),
], ids=["archive", "sodium"])
def test_an_update_library_that_cannot_be_opened_fails_the_update_and_the_log_says_why_once(
        releases, home, desktop, site, request, tmp_path, variable, message, stages, why):
    installed = releases.install(tmp_path / "apps")
    before = snapshot(installed)
    missing = "libno-such-library-for-the-update.so.1"
    home.extra_env[variable] = missing
    run_ = UpdateRun(home, desktop, site, request, tmp_path, installed / "bin" / "orvane")
    for _ in range(2):
        start = len(run_.update_events())
        done = run_.update(serve(site, f"Orvane-{NEW_VERSION}.zip", releases.archive("good")))
        assert done == failed(message)
        assert run_.update_events()[start:] == progress(*stages) + [done]
    log = run_.update_log()
    said = [line for line in log if line.startswith(why)]
    assert len(said) == 1 and missing in said[0], log
    assert log.count("update failed: " + message) == 2, log
    assert len(run_.work_folders()) == 2
    assert_untouched(run_, installed, before)


def hostile_zip(path: Path, entries: list[tuple[str, bytes, int]]) -> Path:
    """A zip whose entries are (name, data, unix mode); a mode with S_IFLNK
    makes the data the link's target."""
    with zipfile.ZipFile(path, "w") as archive:
        for name, data, mode in entries:
            info = zipfile.ZipInfo(name)
            info.create_system = 3  # unix, so the mode below counts
            info.external_attr = mode << 16
            archive.writestr(info, data)
    return path


def test_archive_with_entries_escaping_the_work_folder_is_refused(running_copy, site, tmp_path):
    run_, installed, before = running_copy
    tmpdir = run_.tmpdir
    outside = tmp_path / "outside"
    outside.mkdir()
    cases = {
        "dotdot.zip": [
            ("Orvane/readme.txt", b"inside\n", stat.S_IFREG | 0o644),
            ("../escaped.txt", b"escaped\n", stat.S_IFREG | 0o644),
            ("Orvane/../../escaped-too.txt", b"escaped\n", stat.S_IFREG | 0o644),
        ],
        "absolute-link.zip": [
            ("Orvane/readme.txt", b"inside\n", stat.S_IFREG | 0o644),
            ("Orvane/way-out", str(outside).encode(), stat.S_IFLNK | 0o777),
            ("Orvane/way-out/planted.txt", b"planted\n", stat.S_IFREG | 0o644),
        ],
        "relative-link.zip": [
            ("Orvane/readme.txt", b"inside\n", stat.S_IFREG | 0o644),
            ("Orvane/up", b"../../..", stat.S_IFLNK | 0o777),
            ("Orvane/up/planted-by-relative.txt", b"planted\n", stat.S_IFREG | 0o644),
        ],
    }
    for n, (name, entries) in enumerate(cases.items()):
        address = serve(site, name, hostile_zip(tmp_path / name, entries))
        earlier = len(run_.update_events())
        run_.update(address)
        events = run_.update_events()[earlier:]
        assert events == progress("downloading", "unpacking") + [failed("could not unpack the download")], \
            (name, events)
        assert run_.update_log()[-1] == "update failed: could not unpack the download"
        assert len(run_.work_folders()) == n + 1

    # Nothing was written where the entries pointed.
    assert sorted(p.name for p in tmpdir.iterdir() if not p.name.startswith("orvane-update-")) == []
    assert list(outside.iterdir()) == []
    assert not (tmpdir.parent / "planted-by-relative.txt").exists()
    for work in run_.work_folders():
        # The link itself was not made either.
        assert not (tmpdir / work / "Orvane/way-out").is_symlink()
        assert not (tmpdir / work / "Orvane/up").is_symlink()
    assert_untouched(run_, installed, before)


# --------------------------------------------------------------------------
# installs the update cannot replace: private mount namespaces


def mounting_works(tmp_path: Path) -> str | None:
    """None when this process may make a private mount namespace and mount
    in it; else why not."""
    if shutil.which("unshare") is None:
        return "unshare is missing"
    probe = tmp_path / "mount-probe"
    probe.mkdir()
    result = run("unshare", "-m", "sh", "-c", f"mount -t tmpfs -o size=1m probe '{probe}'")
    probe.rmdir()
    return None if result.returncode == 0 else f"cannot mount in a private namespace: {result.stderr.strip()}"


def wrapper(path: Path, script: str, *args: Path) -> Path:
    """An executable that runs `script` in a private mount namespace (nothing
    it mounts is seen outside) and ends by exec'ing orvane in the same pid."""
    quoted = " ".join(f"'{a}'" for a in args)
    path.write_text(f"#!/bin/sh\nexec unshare -m sh -ec '{script}' sh {quoted}\n")
    path.chmod(0o755)
    return path


def test_read_only_install_asks_to_be_moved_before_any_download(
        releases, home, desktop, site, request, tmp_path):
    reason = mounting_works(tmp_path)
    if reason:
        pytest.skip(reason)
    installed = releases.install(tmp_path / "apps")
    before = snapshot(installed)
    mounted = tmp_path / "mounted" / "Orvane"
    mounted.mkdir(parents=True)
    binary = wrapper(tmp_path / "run-read-only",
                     'mount --bind "$1" "$2"; mount -o remount,ro,bind "$2"; exec "$2/bin/orvane"',
                     installed, mounted)
    run_ = UpdateRun(home, desktop, site, request, tmp_path, binary)
    pid = run_.orvane.proc.pid
    assert executable_of(pid) == str(mounted / "bin" / "orvane")

    address = serve(site, f"Orvane-{NEW_VERSION}.zip", releases.archive("good"))
    done = run_.update(address)
    message = "Move Orvane into your Applications folder first, then update."
    assert done == failed(message)
    assert run_.update_events() == [done]
    assert run_.update_log() == ["update failed: " + message]
    assert site.requests(f"/releases/Orvane-{NEW_VERSION}.zip") == []
    assert run_.work_folders() == []
    assert run_.still_running()
    assert snapshot(installed) == before
    # Outside the namespace the mount point stayed an empty folder.
    assert list(mounted.iterdir()) == []


def test_failed_final_move_puts_the_old_copy_back(releases, home, desktop, site, request, tmp_path):
    reason = mounting_works(tmp_path)
    if reason:
        pytest.skip(reason)
    source = releases.install(tmp_path / "apps")
    before = snapshot(source)
    used = int(run("du", "-s", "--block-size=1", source).stdout.split()[0])
    # Room for one copy and not for two: installing the new copy beside the
    # old one runs out of space (or, moved by rename, crosses file systems).
    size_kib = (used * 3 // 2) // 1024
    small = tmp_path / "small"
    small.mkdir()
    binary = wrapper(tmp_path / "run-on-small-disk",
                     f'mount -t tmpfs -o size={size_kib}k orvane-small "$2"; cp -a "$1" "$2/Orvane"; '
                     'exec "$2/Orvane/bin/orvane"',
                     source, small)
    run_ = UpdateRun(home, desktop, site, request, tmp_path, binary)
    pid = run_.orvane.proc.pid
    installed = small / "Orvane"
    assert executable_of(pid) == str(installed / "bin" / "orvane")
    # The small disk is seen only through the process's own view of the tree.
    inside = Path(f"/proc/{pid}/root{small}")
    assert snapshot(inside / "Orvane") == before

    done = run_.update(serve(site, f"Orvane-{NEW_VERSION}.zip", releases.archive("good")))
    assert done["type"] == "updateDone" and done["ok"] is False, done
    assert done["error"].startswith("could not install the new app: "), done
    assert run_.update_events() == progress(*STAGES) + [done]
    assert run_.update_log() == ["update: " + s for s in STAGES] + ["update failed: " + done["error"]]

    assert run_.still_running()
    assert snapshot(inside / "Orvane") == before
    # Nothing else is left on the small disk: no half copy, no trashed copy.
    leftovers = sorted(str(p.relative_to(inside)) for p in inside.rglob("*")
                       if not str(p.relative_to(inside)).startswith("Orvane"))
    assert all(p.startswith(".Trash") for p in leftovers), leftovers
    assert not any(p.is_file() or p.is_symlink() for p in inside.glob(".Trash*/**/*")), leftovers
    assert trashed(run_.home) == []
    assert list(small.iterdir()) == []  # outside the namespace: an empty folder


# --------------------------------------------------------------------------
# the whole round: the bundled site offers the newer release


SITE_PORT = 8000  # the development server is always started there


def site_servers_in(site_folder: Path) -> list[int]:
    """uvicorn processes whose working folder is site_folder."""
    found = []
    for name in os.listdir("/proc"):
        if not name.isdigit():
            continue
        try:
            cwd = os.readlink(f"/proc/{name}/cwd")
            argv = Path(f"/proc/{name}/cmdline").read_bytes().split(b"\0")
        except OSError:
            continue
        if cwd == str(site_folder) and any(a.endswith(b"uvicorn") for a in argv):
            found.append(int(name))
    return found


def offer(address: str) -> dict | None:
    try:
        with urllib.request.urlopen(address + "/api/update", timeout=2) as answer:
            return json.loads(answer.read())
    except (OSError, ValueError):
        return None


def test_the_bundled_site_offers_the_newer_release_and_the_copy_updates_itself(
        releases, home, desktop, request, tmp_path):
    if not port_is_free("127.0.0.1", SITE_PORT):
        pytest.skip(f"127.0.0.1:{SITE_PORT} is taken by another process; the development server is always started there")
    installed = releases.install(tmp_path / "apps")
    site_folder = installed / "share/orvane/site"
    shelf = tmp_path / "releases"
    shelf.mkdir()
    shutil.copy(releases.archive("good"), shelf / f"Orvane-{NEW_VERSION}-linux-x86_64.zip")
    # The site is the installed copy's own, started by the program itself;
    # what it needs reaches it through the program's environment.
    home.extra_env["ORVANE_SITE_RELEASES"] = str(shelf)
    home.extra_env["ORVANE_SITE_DATA"] = str(tmp_path / "site-data")
    home.extra_env["TMPDIR"] = str(tmp_path / "tmp")
    (tmp_path / "tmp").mkdir()
    home.write_settings(AppURL=f"http://127.0.0.1:{SITE_PORT}", ProjectDir=None)
    servers: list[int] = []

    def end_servers():
        terminate_pids(servers + site_servers_in(site_folder))
        # The next test that needs the port finds it free.
        wait_until(lambda: port_is_free("127.0.0.1", SITE_PORT), 15, what=f"port {SITE_PORT} to be free")
    request.addfinalizer(end_servers)
    orvane = Orvane(home, desktop, binary=installed / "bin" / "orvane")
    request.addfinalizer(orvane.stop)
    orvane.start()

    site_address = f"http://127.0.0.1:{SITE_PORT}"
    offered = wait_until(lambda: offer(site_address), 60, what="the bundled site to answer /api/update")
    assert offered["version"] == NEW_VERSION, offered
    assert offered["url"] == f"{site_address}/releases/Orvane-{NEW_VERSION}-linux-x86_64.zip"
    servers[:] = site_servers_in(site_folder)
    assert len(servers) == 1, servers
    old_server = servers[0]

    # The library page shows the offer as a full-width button at the top of
    # the page, right under the window's menu bar (about 25 px); a click on
    # it sends "updateApp" (a click that lands before the button is shown
    # hits the page's title bar and does nothing).
    library = orvane.wait_for_window("library")
    home.wait_for_log(lambda m: m == "message: hello", timeout=60)
    width = desktop.window_info(library)["width"]

    def clicked():
        if "message: updateApp" in home.log_messages():
            return True
        orvane.click_in_window(library, width // 2, 44)
        return None
    wait_until(clicked, 30, interval=1.0, what="the Update available button to send updateApp")

    wait_until(lambda: "update: installed, relaunching" in home.log_messages() or
               any(m.startswith("update failed") for m in home.log_messages()),
               UPDATE_TIMEOUT, what="the update to end")
    assert [m for m in home.log_messages() if m.startswith("update")] == \
        ["update: " + s for s in STAGES] + ["update: installed, relaunching"]
    assert orvane.proc.wait(timeout=30) == 0
    # The old copy's site server is ended with it.
    assert f"bundled site: ended its server (pid {old_server}) that ran from the old copy" in \
        home.log_messages()
    wait_until(lambda: not pid_alive(old_server), 15, what="the old copy's site server to end")

    # The new copy starts from the same path and brings up its own site.
    executable = installed / "bin" / "orvane"
    new_pids = wait_until(lambda: [p for p in pids_running(executable) if p != orvane.proc.pid], 30,
                          what=f"a new orvane from {executable}")
    request.addfinalizer(lambda: terminate_pids(new_pids))
    assert len(new_pids) == 1, new_pids
    assert manifest_version(installed) == f"version {NEW_VERSION}"
    new_servers = wait_until(lambda: [p for p in site_servers_in(site_folder) if p != old_server], 60,
                             what="the new copy's site server")
    servers[:] = new_servers
    # It serves from the new folder: the same offer, which now is the
    # running release, so no button is shown (the page sees release 8.0.0).
    assert wait_until(lambda: offer(site_address), 60, what="the new site")["version"] == NEW_VERSION
    assert (Path(f"/proc/{new_servers[0]}/cwd").resolve()) == site_folder
    verified = run(SIGN_TOOL, "verify", installed)
    assert verified.returncode == 0, verified.stderr
    assert wait_until(lambda: len(banners(home)) == 2, 30, what="the relaunched copy's start banner")
