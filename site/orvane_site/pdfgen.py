"""Typesetting a paper (title, authors, abstract, sections, references) as a PDF.

Cairo's PDF surface writes real text with embedded font subsets, so
`pdftotext` and any PDF viewer's search find every word. Layout is done first
(lines placed on pages), then drawn, so that every page footer can say
"n / N". One column, ragged right: plain line placement keeps the text that
`pdftotext` reads back identical to the source words.
"""

from __future__ import annotations

import io
from dataclasses import dataclass, field

import cairo

PAGE_W, PAGE_H = 612.0, 792.0  # US Letter, in points
MARGIN_X, MARGIN_TOP, MARGIN_BOTTOM = 78.0, 72.0, 72.0
TEXT_W = PAGE_W - 2 * MARGIN_X
SERIF, SANS = "DejaVu Serif", "DejaVu Sans"
NORMAL, ITALIC = cairo.FONT_SLANT_NORMAL, cairo.FONT_SLANT_ITALIC
REGULAR, BOLD = cairo.FONT_WEIGHT_NORMAL, cairo.FONT_WEIGHT_BOLD
# Fixed so that the same paper always gives the same bytes, hence the same etag.
CREATE_DATE = "2024-01-15T09:00:00Z"


@dataclass(frozen=True)
class Font:
    family: str
    size: float
    slant: int = NORMAL
    weight: int = REGULAR

    @property
    def leading(self) -> float:
        return round(self.size * 1.38, 2)


TITLE = Font(SERIF, 17, weight=BOLD)
AUTHORS = Font(SERIF, 11, slant=ITALIC)
META = Font(SANS, 8.5)
ABSTRACT_HEAD = Font(SERIF, 10, weight=BOLD)
ABSTRACT = Font(SERIF, 9.5)
HEADING = Font(SERIF, 12, weight=BOLD)
BODY = Font(SERIF, 10.5)
REFERENCE = Font(SERIF, 9)
RUNNING = Font(SANS, 7.5)


@dataclass
class Line:
    font: Font
    x: float
    y: float  # baseline
    text: str


@dataclass
class Page:
    lines: list[Line] = field(default_factory=list)


class Typesetter:
    """Places wrapped lines on pages, top to bottom."""

    def __init__(self) -> None:
        # A scratch context to measure text with the same font machinery.
        self._measure = cairo.Context(cairo.ImageSurface(cairo.FORMAT_A8, 1, 1))
        self.pages: list[Page] = [Page()]
        self.y = MARGIN_TOP

    def width(self, font: Font, text: str) -> float:
        ctx = self._measure
        ctx.select_font_face(font.family, font.slant, font.weight)
        ctx.set_font_size(font.size)
        return ctx.text_extents(text).x_advance

    def wrap(self, font: Font, text: str, width: float) -> list[str]:
        lines: list[str] = []
        current = ""
        for word in text.split():
            candidate = f"{current} {word}" if current else word
            if current and self.width(font, candidate) > width:
                lines.append(current)
                current = word
            else:
                current = candidate
        if current:
            lines.append(current)
        return lines

    def room(self) -> float:
        return PAGE_H - MARGIN_BOTTOM - self.y

    def new_page(self) -> None:
        self.pages.append(Page())
        self.y = MARGIN_TOP

    def space(self, points: float) -> None:
        # Vertical space at the top of a page is dropped: it would only push
        # the first line down.
        if self.y > MARGIN_TOP:
            self.y += points

    def keep(self, points: float) -> None:
        """Start a new page unless `points` of height fit on this one."""
        if self.room() < points:
            self.new_page()

    def line(self, font: Font, text: str, x: float = MARGIN_X) -> None:
        self.keep(font.leading)
        self.y += font.leading
        self.pages[-1].lines.append(Line(font, x, self.y - font.leading * 0.28, text))

    def paragraph(self, font: Font, text: str, indent: float = 0.0,
                  hanging: float = 0.0, centred: bool = False) -> None:
        width = TEXT_W - 2 * indent
        first, *rest = self.wrap(font, text, width) or [""]
        rest_lines = self.wrap(font, " ".join(rest), width - hanging) if rest else []
        for i, text_line in enumerate([first, *rest_lines]):
            x = MARGIN_X + indent + (hanging if i else 0.0)
            if centred:
                x = MARGIN_X + (TEXT_W - self.width(font, text_line)) / 2
            self.line(font, text_line, x)


def layout(paper: dict) -> list[Page]:
    ts = Typesetter()
    ts.paragraph(TITLE, paper["title"], centred=True)
    ts.space(8)
    ts.paragraph(AUTHORS, ", ".join(paper["authors"]), centred=True)
    ts.space(2)
    meta = f"{paper.get('venue', 'Preprint')}, {paper['year']}  \u00b7  id {paper['id']}"
    ts.paragraph(META, meta, centred=True)
    ts.space(16)
    ts.paragraph(ABSTRACT_HEAD, "Abstract", centred=True)
    ts.space(2)
    ts.paragraph(ABSTRACT, paper["abstract"], indent=28)
    for number, section in enumerate(paper["sections"], start=1):
        ts.space(12)
        # A heading never ends a page: keep it with two lines of its text.
        ts.keep(HEADING.leading + 2 * BODY.leading)
        ts.paragraph(HEADING, f"{number}  {section['heading']}")
        ts.space(3)
        for i, text in enumerate(section["paragraphs"]):
            if i:
                ts.space(5)
            ts.paragraph(BODY, text)
    ts.space(14)
    ts.keep(HEADING.leading + 2 * REFERENCE.leading)
    ts.paragraph(HEADING, "References")
    ts.space(3)
    for number, ref in enumerate(paper["references"], start=1):
        ts.space(2)
        ts.paragraph(REFERENCE, f"[{number}] {ref}", hanging=16)
    return ts.pages


def render_pdf(paper: dict) -> bytes:
    """The paper as the bytes of a PDF file."""
    pages = layout(paper)
    out = io.BytesIO()
    surface = cairo.PDFSurface(out, PAGE_W, PAGE_H)
    surface.set_metadata(cairo.PDFMetadata.TITLE, paper["title"])
    surface.set_metadata(cairo.PDFMetadata.AUTHOR, ", ".join(paper["authors"]))
    surface.set_metadata(cairo.PDFMetadata.SUBJECT, f"Sample paper {paper['id']}")
    surface.set_metadata(cairo.PDFMetadata.CREATOR, "Orvane reference library site")
    surface.set_metadata(cairo.PDFMetadata.CREATE_DATE, CREATE_DATE)
    ctx = cairo.Context(surface)
    total = len(pages)
    for number, page in enumerate(pages, start=1):
        ctx.set_source_rgb(0.45, 0.45, 0.45)
        _draw(ctx, Line(RUNNING, MARGIN_X, MARGIN_TOP - 30, f"Orvane sample library \u2014 {paper['id']}"))
        footer = f"{number} / {total}"
        _draw(ctx, Line(RUNNING, (PAGE_W - _width(ctx, RUNNING, footer)) / 2,
                        PAGE_H - MARGIN_BOTTOM + 34, footer))
        ctx.set_source_rgb(0.07, 0.07, 0.07)
        for line in page.lines:
            _draw(ctx, line)
        ctx.show_page()
    surface.finish()
    return out.getvalue()


def _width(ctx: cairo.Context, font: Font, text: str) -> float:
    ctx.select_font_face(font.family, font.slant, font.weight)
    ctx.set_font_size(font.size)
    return ctx.text_extents(text).x_advance


def _draw(ctx: cairo.Context, line: Line) -> None:
    ctx.select_font_face(line.font.family, line.font.slant, line.font.weight)
    ctx.set_font_size(line.font.size)
    ctx.move_to(line.x, line.y)
    ctx.show_text(line.text)


def plain_text(paper: dict) -> str:
    """The paper's words as plain text, in reading order.

    Served as the paper text when `pdftotext` is not installed; it holds the
    same words as the PDF, without the running headers and page numbers.
    """
    parts = [paper["title"], ", ".join(paper["authors"]),
             f"{paper.get('venue', 'Preprint')}, {paper['year']} \u00b7 id {paper['id']}",
             "", "Abstract", paper["abstract"]]
    for number, section in enumerate(paper["sections"], start=1):
        parts += ["", f"{number} {section['heading']}"]
        parts += [p for text in section["paragraphs"] for p in ("", text)][1:]
    parts += ["", "References"]
    parts += [f"[{n}] {ref}" for n, ref in enumerate(paper["references"], start=1)]
    return "\n".join(parts) + "\n"
