"""The running site's state: one library, one inbox, one text extractor."""

from __future__ import annotations

from dataclasses import dataclass
from pathlib import Path
from typing import Iterator

from fastapi import Request

from . import pdfgen, samples
from .inbox import Inbox
from .store import PaperStore, SeedPaper
from .text import TextExtractor, TextUnavailable


def sample_seed() -> Iterator[SeedPaper]:
    """The sample papers, typeset afresh (about 10 ms each)."""
    for paper in samples.SAMPLE_PAPERS:
        meta = {key: paper[key] for key in ("id", "title", "authors", "year", "venue", "abstract")}
        meta["source"] = "sample"
        yield SeedPaper(meta, pdfgen.render_pdf(paper))


@dataclass
class Site:
    data: Path
    papers: PaperStore
    inbox: Inbox
    text: TextExtractor

    @classmethod
    def open(cls, data: Path) -> "Site":
        data.mkdir(parents=True, exist_ok=True)
        papers = PaperStore(data)
        papers.open(sample_seed)
        return cls(data, papers, Inbox(data / "inbox"), TextExtractor())

    def warm_text(self) -> None:
        for paper_id in self.papers.ids():
            pdf = self.papers.pdf(paper_id)
            if pdf is None:
                continue
            try:
                self.text.text_of(paper_id, pdf)
            except TextUnavailable:
                return  # no pdftotext: nothing to warm


def get_site(request: Request) -> Site:
    return request.app.state.site
