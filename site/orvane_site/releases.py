"""Release archives of Orvane, offered to the program for its self-update.

The folder named by ORVANE_SITE_RELEASES holds archives named
"Orvane-<V>-linux-x86_64.zip", V being digits and dots (1.2.3) with an
optional "-suffix" of letters, digits and dots (1.3.0-rc1). Only regular
files directly in that folder count; a symbolic link counts when it leads
to a regular file inside the folder. Everything else is never offered or
served, whatever it is called.
"""

from __future__ import annotations

import os
import re
import stat
from dataclasses import dataclass
from pathlib import Path

# ASCII only: \d would also take digits of other scripts.
_ARCHIVE_NAME = re.compile(r"Orvane-([0-9]+(?:\.[0-9]+)*)(?:-([A-Za-z0-9.]+))?-linux-x86_64\.zip",
                           re.ASCII)


@dataclass(frozen=True)
class Release:
    name: str  # the archive's file name
    version: str  # V as written in the name
    path: Path  # the regular file it is (a link already followed)
    size: int


def archive_version(name: str) -> str | None:
    """V of an archive name, or None when the name is not one."""
    match = _ARCHIVE_NAME.fullmatch(name)
    if match is None:
        return None
    return match.group(1) + (f"-{match.group(2)}" if match.group(2) else "")


def version_order(version: str) -> tuple:
    """A sort key: numeric parts compared as numbers, part by part.

    Parts are compared by their digits without leading zeros (shorter is
    smaller, then digit by digit), so a version with hundreds of digits
    costs no big-number arithmetic. For equal numbers, a version without a
    suffix is newer than one with a suffix (1.3.0 after 1.3.0-rc1); suffixes
    compare as text.
    """
    numbers, _, suffix = version.partition("-")
    parts = []
    for part in numbers.split("."):
        digits = part.lstrip("0")
        parts.append((len(digits), digits))
    return (tuple(parts), suffix == "", suffix)


def releases_folder() -> Path | None:
    """The folder named by ORVANE_SITE_RELEASES, or None when it is unset."""
    value = os.environ.get("ORVANE_SITE_RELEASES", "")
    return Path(value) if value else None


def _regular_file_inside(folder: Path, name: str) -> tuple[Path, os.stat_result] | None:
    """The file `name` in `folder` when it is, or leads to, a regular file inside it."""
    candidate = folder / name
    try:
        own = os.lstat(candidate)
        if stat.S_ISREG(own.st_mode):
            return candidate, own
        if not stat.S_ISLNK(own.st_mode):
            return None
        real_folder = os.path.realpath(folder)
        target = os.path.realpath(candidate)
        if os.path.dirname(target) != real_folder:
            return None
        followed = os.stat(target, follow_symlinks=False)
        if not stat.S_ISREG(followed.st_mode):
            return None
        return Path(target), followed
    except (OSError, ValueError):
        return None


def _release(folder: Path, name: str, version: str) -> Release | None:
    """The archive `name` (of `version`) in `folder`, when it is a regular file inside it."""
    found = _regular_file_inside(folder, name)
    if found is None:
        return None
    path, info = found
    return Release(name, version, path, info.st_size)


def release_named(name: str) -> Release | None:
    """The archive of that exact name in the releases folder, or None."""
    folder = releases_folder()
    version = archive_version(name)
    if folder is None or version is None:
        return None
    return _release(folder, name, version)


def newest_release() -> Release | None:
    """The archive with the highest version in the releases folder, or None."""
    folder = releases_folder()
    if folder is None:
        return None
    best_key, best = None, None
    try:
        with os.scandir(folder) as entries:
            for entry in entries:
                version = archive_version(entry.name)
                if version is None:
                    continue
                # The name breaks a tie between equal versions, so the answer
                # does not depend on the order the folder lists its files.
                key = (version_order(version), entry.name)
                if best_key is None or key > best_key:
                    release = _release(folder, entry.name, version)
                    if release is not None:
                        best_key, best = key, release
    except (OSError, ValueError):
        return None
    return best
