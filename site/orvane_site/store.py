"""The paper library on disk: metadata, PDFs with their etags, and notes.

Layout of the data folder:
    papers.json          every paper's metadata and notes, in display order
    pdfs/<stem>.pdf      one PDF per paper (stem from ids.file_stem)

Request handlers run on a thread pool, so every read-modify-write of the
metadata happens under one lock, and files are replaced atomically (write a
temporary file, then rename) so that a download never sees half a PDF.
"""

from __future__ import annotations

import hashlib
import json
import os
import tempfile
import threading
import uuid
from dataclasses import dataclass
from datetime import datetime, timezone
from pathlib import Path
from typing import Callable, Iterable

from . import ids

PDF_MAGIC = b"%PDF-"


def etag_of(data: bytes) -> str:
    """The version tag of a PDF: the first 32 hex digits of its SHA-256.

    A content hash (not a counter) means an upload of identical bytes keeps
    the etag, and Orvane's local copy then still counts as current.
    """
    return hashlib.sha256(data).hexdigest()[:32]


def is_pdf(data: bytes) -> bool:
    return data.startswith(PDF_MAGIC)


def now_iso() -> str:
    return datetime.now(timezone.utc).isoformat(timespec="seconds")


def iso_of_mtime(mtime: float) -> str:
    return datetime.fromtimestamp(mtime, timezone.utc).isoformat(timespec="seconds")


def write_atomically(path: Path, data: bytes) -> None:
    path.parent.mkdir(parents=True, exist_ok=True)
    fd, tmp = tempfile.mkstemp(prefix=".tmp-", dir=path.parent)
    try:
        with os.fdopen(fd, "wb") as out:
            out.write(data)
        os.chmod(tmp, 0o644)
        os.replace(tmp, path)
    except BaseException:
        try:
            os.unlink(tmp)
        except OSError:
            pass
        raise


class PaperExists(Exception):
    """An upload without upsert named a paper that already has a PDF."""


class UnknownPaper(Exception):
    pass


@dataclass(frozen=True)
class PdfInfo:
    path: Path
    etag: str
    size: int
    mtime: float


@dataclass(frozen=True)
class SeedPaper:
    """A paper to put in a fresh library: its metadata and its PDF bytes."""

    meta: dict
    pdf: bytes


class PaperStore:
    def __init__(self, root: Path):
        self.root = root
        self.pdf_dir = root / "pdfs"
        self.meta_path = root / "papers.json"
        self._lock = threading.RLock()
        self._papers: dict[str, dict] = {}
        # (size, mtime_ns) -> etag per id, so a listing hashes a PDF only
        # when its file changed since the last look.
        self._etag_cache: dict[str, tuple[int, int, str]] = {}

    # ----- loading and seeding -------------------------------------------

    def open(self, seed: Callable[[], Iterable[SeedPaper]]) -> None:
        """Load the library, filling it from `seed` when there is none yet.

        "None yet" means no papers.json: a library whose papers were all
        deleted stays empty rather than growing the samples back.
        """
        with self._lock:
            self.pdf_dir.mkdir(parents=True, exist_ok=True)
            if self.meta_path.exists():
                try:
                    doc = json.loads(self.meta_path.read_text("utf-8"))
                    self._papers = {p["id"]: p for p in doc["papers"]}
                except (ValueError, KeyError, TypeError) as exc:
                    # Refuse to start rather than seed over someone's library.
                    raise RuntimeError(f"{self.meta_path} is damaged ({exc}); "
                                       "repair it, or move it away to start with the samples") from exc
                return
            self._papers = {}
            for item in seed():
                meta = dict(item.meta)
                meta.setdefault("notes", [])
                meta.setdefault("added", now_iso())
                write_atomically(self._pdf_path(meta["id"]), item.pdf)
                self._papers[meta["id"]] = meta
            self._save()

    def _save(self) -> None:
        doc = {"version": 1, "papers": list(self._papers.values())}
        text = json.dumps(doc, indent=1, ensure_ascii=False)
        write_atomically(self.meta_path, text.encode("utf-8"))

    # ----- reading ---------------------------------------------------------

    def _pdf_path(self, paper_id: str) -> Path:
        return self.pdf_dir / (ids.file_stem(paper_id) + ".pdf")

    def ids(self) -> list[str]:
        with self._lock:
            return list(self._papers)

    def get(self, paper_id: str) -> dict | None:
        """A copy of the paper's metadata, or None."""
        with self._lock:
            meta = self._papers.get(paper_id)
            return json.loads(json.dumps(meta)) if meta is not None else None

    def all(self) -> list[dict]:
        with self._lock:
            return [json.loads(json.dumps(m)) for m in self._papers.values()]

    def pdf(self, paper_id: str) -> PdfInfo | None:
        """The paper's PDF file and its current etag, or None without one."""
        with self._lock:
            if paper_id not in self._papers:
                return None
            path = self._pdf_path(paper_id)
            try:
                st = path.stat()
            except FileNotFoundError:
                return None
            cached = self._etag_cache.get(paper_id)
            if cached and cached[0] == st.st_size and cached[1] == st.st_mtime_ns:
                tag = cached[2]
            else:
                tag = etag_of(path.read_bytes())
                self._etag_cache[paper_id] = (st.st_size, st.st_mtime_ns, tag)
            return PdfInfo(path, tag, st.st_size, st.st_mtime)

    def read_pdf(self, paper_id: str) -> tuple[bytes, str] | None:
        """The PDF's bytes and the etag of exactly those bytes, or None.

        Hashing what is sent (rather than trusting a cached tag) keeps the
        ETag header true even when an upload replaces the file mid-request.
        """
        with self._lock:
            if paper_id not in self._papers:
                return None
            try:
                data = self._pdf_path(paper_id).read_bytes()
            except FileNotFoundError:
                return None
        return data, etag_of(data)

    # ----- writing ---------------------------------------------------------

    def update_meta(self, paper_id: str, fields: dict) -> None:
        """Change descriptive fields (title, authors...) of a paper."""
        with self._lock:
            meta = self._papers.get(paper_id)
            if meta is None:
                raise UnknownPaper(paper_id)
            for key in ("id", "notes", "added"):
                fields.pop(key, None)
            meta.update(fields)
            self._save()

    def put_pdf(self, paper_id: str, data: bytes, upsert: bool,
                new_meta: Callable[[], dict] | None = None) -> tuple[bool, PdfInfo]:
        """Store a PDF for a paper; answers (created, new PDF info).

        An existing paper's PDF is only replaced when `upsert` is set, so a
        client that meant to create a paper cannot overwrite one by accident.
        A new paper gets the metadata `new_meta` gives (title, authors...).
        """
        with self._lock:
            exists = paper_id in self._papers
            if exists and not upsert:
                raise PaperExists(paper_id)
            path = self._pdf_path(paper_id)
            write_atomically(path, data)
            st = path.stat()
            self._etag_cache[paper_id] = (st.st_size, st.st_mtime_ns, etag_of(data))
            if not exists:
                meta = {"id": paper_id, "title": paper_id, "authors": [], "year": None,
                        "abstract": "", "source": "upload"}
                meta.update(new_meta() if new_meta else {})
                meta.update({"id": paper_id, "added": now_iso(), "notes": []})
                self._papers[paper_id] = meta
            else:
                self._papers[paper_id]["replaced"] = now_iso()
            self._save()
            info = self.pdf(paper_id)
            assert info is not None
            return (not exists, info)

    def add_note(self, paper_id: str, text: str, comment: str = "",
                 page: int = 0, source: str = "") -> dict:
        with self._lock:
            meta = self._papers.get(paper_id)
            if meta is None:
                raise UnknownPaper(paper_id)
            note = {"id": uuid.uuid4().hex[:12], "text": text, "comment": comment,
                    "page": page, "source": source, "created": now_iso()}
            meta.setdefault("notes", []).append(note)
            self._save()
            return dict(note)

    def delete_note(self, paper_id: str, note_id: str) -> bool:
        with self._lock:
            meta = self._papers.get(paper_id)
            if meta is None:
                raise UnknownPaper(paper_id)
            notes = meta.get("notes", [])
            kept = [n for n in notes if n.get("id") != note_id]
            if len(kept) == len(notes):
                return False
            meta["notes"] = kept
            self._save()
            return True
