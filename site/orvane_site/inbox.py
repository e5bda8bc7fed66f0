"""The inbox: PDFs that arrived from outside the library (dropped on Orvane).

Files live flat in the data folder's inbox/ under the name they came with.
A second file of the same name is kept beside the first as "name (2).pdf"
rather than replacing it: the inbox is a place to collect things, and the
sender (Orvane, for a Dock drop) has no way to ask for a replace.
"""

from __future__ import annotations

import threading
from dataclasses import dataclass
from pathlib import Path

from .store import etag_of, iso_of_mtime, write_atomically

MAX_NAME_LENGTH = 200


def is_valid_name(name: str) -> bool:
    """A plain file name: no folders, no hidden files, no control characters."""
    if not name or len(name) > MAX_NAME_LENGTH:
        return False
    if "/" in name or "\\" in name or name.startswith("."):
        return False
    return all(ord(c) >= 32 and c != "\x7f" for c in name)


@dataclass(frozen=True)
class InboxFile:
    name: str
    path: Path
    size: int
    received: str
    etag: str
    mtime_ns: int


class Inbox:
    def __init__(self, folder: Path):
        self.folder = folder
        self._lock = threading.Lock()

    def _free_name(self, name: str) -> str:
        if not (self.folder / name).exists():
            return name
        stem, dot, ext = name.rpartition(".")
        if not dot or not stem:
            stem, ext = name, ""
        n = 2
        while True:
            candidate = f"{stem} ({n}).{ext}" if ext else f"{stem} ({n})"
            if not (self.folder / candidate).exists():
                return candidate
            n += 1

    def put(self, name: str, data: bytes) -> InboxFile:
        """Store a file under its name, or a free variant of it."""
        with self._lock:
            self.folder.mkdir(parents=True, exist_ok=True)
            stored = self._free_name(name)
            write_atomically(self.folder / stored, data)
            found = self.get(stored)
            assert found is not None
            return found

    def get(self, name: str) -> InboxFile | None:
        if not is_valid_name(name):
            return None
        path = self.folder / name
        try:
            st = path.stat()
        except FileNotFoundError:
            return None
        if not path.is_file():
            return None
        return InboxFile(name, path, st.st_size, iso_of_mtime(st.st_mtime),
                         etag_of(path.read_bytes()), st.st_mtime_ns)

    def list(self) -> list[InboxFile]:
        """Every file, newest first."""
        if not self.folder.is_dir():
            return []
        files = []
        for entry in self.folder.iterdir():
            found = self.get(entry.name)
            if found is not None:
                files.append(found)
        files.sort(key=lambda f: (-f.mtime_ns, f.name))
        return files

    def remove(self, name: str) -> bool:
        with self._lock:
            found = self.get(name)
            if found is None:
                return False
            found.path.unlink()
            return True
