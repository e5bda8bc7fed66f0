"""Plain text of a paper's PDF, for search and for the agent's turns.

The text comes from `pdftotext` (poppler-utils) so that it follows the PDF as
it is now, edits and uploads included. Results are kept per etag: a PDF
version is extracted once. Without `pdftotext`, a sample paper whose PDF is
still the generated one falls back to the generator's own words.
"""

from __future__ import annotations

import shutil
import subprocess
import threading
from pathlib import Path

from . import pdfgen, samples
from .store import PdfInfo, etag_of

PDFTOTEXT_TIMEOUT_S = 30


class TextUnavailable(Exception):
    """No way to get this PDF's text; the message says why."""


class TextExtractor:
    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._by_etag: dict[str, str] = {}

    def text_of(self, paper_id: str, pdf: PdfInfo) -> str:
        with self._lock:
            cached = self._by_etag.get(pdf.etag)
        if cached is not None:
            return cached
        text = self._extract(paper_id, pdf)
        with self._lock:
            self._by_etag[pdf.etag] = text
        return text

    def _extract(self, paper_id: str, pdf: PdfInfo) -> str:
        tool = shutil.which("pdftotext")
        if tool is None:
            # Rendering is deterministic, so an unchanged sample PDF has the
            # etag of a fresh rendering, and its source words are its text.
            paper = samples.sample_by_id(paper_id)
            if paper is not None and etag_of(pdfgen.render_pdf(paper)) == pdf.etag:
                return pdfgen.plain_text(paper)
            raise TextUnavailable("pdftotext (poppler-utils) is not installed")
        return run_pdftotext(tool, pdf.path)


def run_pdftotext(tool: str, path: Path) -> str:
    try:
        done = subprocess.run([tool, "-enc", "UTF-8", str(path), "-"],
                              capture_output=True, timeout=PDFTOTEXT_TIMEOUT_S)
    except subprocess.TimeoutExpired as exc:
        raise TextUnavailable("pdftotext took too long") from exc
    if done.returncode != 0:
        reason = done.stderr.decode("utf-8", "replace").strip().splitlines()
        raise TextUnavailable("pdftotext failed: " + (reason[-1] if reason else f"exit {done.returncode}"))
    # Pages are separated by form feeds; a blank line reads better in plain text.
    return done.stdout.decode("utf-8", "replace").replace("\f", "\n")


def pdf_title(path: Path) -> str:
    """The Title of a PDF's document information, or "" when it has none."""
    tool = shutil.which("pdfinfo")
    if tool is None:
        return ""
    try:
        done = subprocess.run([tool, "-enc", "UTF-8", str(path)], capture_output=True,
                              timeout=PDFTOTEXT_TIMEOUT_S)
    except subprocess.TimeoutExpired:
        return ""
    for line in done.stdout.decode("utf-8", "replace").splitlines():
        if line.startswith("Title:"):
            return line[len("Title:"):].strip()
    return ""
