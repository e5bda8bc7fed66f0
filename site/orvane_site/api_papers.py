"""The papers API: listing and search, PDF download and upload, text, notes.

Paper ids may hold "/" ("cs/0101123"), so every route takes the id as a
`path` parameter: /api/papers/cs/0101123/pdf names the PDF of cs/0101123.
A client may also percent-encode the slash (cs%2F0101123); the server
decodes the path before routing, so both spellings reach the same paper.
The last segment names the sub-resource, which is why ids may not end in
"pdf", "text" or "notes" (ids.py). Routes with a suffix are declared before
the bare /api/papers/{id} so that they win.
"""

from __future__ import annotations

from urllib.parse import quote

from fastapi import APIRouter, Depends, HTTPException, Request
from fastapi.responses import JSONResponse, PlainTextResponse, Response
from pydantic import BaseModel, conint, constr
from starlette.concurrency import run_in_threadpool

from . import ids
from .http_helpers import (BodyTooLarge, if_none_match_hits, pdf_response, quoted_etag, read_body,
                   site_base, text_error)
from .search import match_paper
from .site import Site, get_site
from .store import PaperExists, PdfInfo, UnknownPaper, is_pdf, iso_of_mtime
from .text import TextUnavailable, pdf_title

router = APIRouter(prefix="/api/papers")


def paper_urls(base: str, paper_id: str) -> dict:
    # Slashes stay as they are (the id spans segments); anything else that
    # a URL path cannot carry is percent-encoded.
    path = f"{base}/api/papers/{quote(paper_id, safe='/')}"
    return {
        "pdf_url": f"{path}/pdf",
        # Uploads go to the same address as downloads, with PUT.
        "upload_url": f"{path}/pdf",
        "text_url": f"{path}/text",
        "notes_url": f"{path}/notes",
    }


def paper_json(base: str, meta: dict, pdf: PdfInfo | None) -> dict:
    out = {
        "id": meta["id"],
        "title": meta.get("title") or meta["id"],
        "authors": meta.get("authors", []),
        "year": meta.get("year"),
        "venue": meta.get("venue", ""),
        "abstract": meta.get("abstract", ""),
        "added": meta.get("added"),
        "etag": pdf.etag if pdf else "",
        "size": pdf.size if pdf else 0,
        "updated": iso_of_mtime(pdf.mtime) if pdf else None,
        "notes": meta.get("notes", []),
    }
    out.update(paper_urls(base, meta["id"]))
    return out


def full_text_or_none(site: Site, paper_id: str) -> str | None:
    pdf = site.papers.pdf(paper_id)
    if pdf is None:
        return None
    try:
        return site.text.text_of(paper_id, pdf)
    except TextUnavailable:
        return None


@router.get("")
def list_papers(request: Request, q: str = "", site: Site = Depends(get_site)):
    """Every paper in display order; with `q`, only the matches, best first."""
    base = site_base(request)
    if not q.strip():
        return [paper_json(base, m, site.papers.pdf(m["id"])) for m in site.papers.all()]
    ranked = []
    for position, meta in enumerate(site.papers.all()):
        found = match_paper(meta, q, lambda: full_text_or_none(site, meta["id"]))
        if found is not None:
            item = paper_json(base, meta, site.papers.pdf(meta["id"]))
            item["match"] = {"fields": found.fields, "snippet": found.snippet}
            ranked.append((-found.score, position, item))
    ranked.sort(key=lambda entry: entry[:2])
    return [item for _, _, item in ranked]


@router.api_route("/{paper_id:path}/pdf", methods=["GET", "HEAD"])
def download_pdf(paper_id: str, request: Request, site: Site = Depends(get_site)):
    found = site.papers.read_pdf(paper_id)
    if found is None:
        raise HTTPException(404, f"no PDF for paper {paper_id}")
    data, etag = found
    return pdf_response(request, data, etag, paper_id.replace("/", "_") + ".pdf")


@router.put("/{paper_id:path}/pdf")
async def upload_pdf(paper_id: str, request: Request, site: Site = Depends(get_site)):
    """Store a new version of a paper's PDF, or a new paper.

    Replacing an existing paper's PDF needs the header "x-upsert: true";
    without it the answer is 409, so that creating can never overwrite.
    """
    exists = site.papers.get(paper_id) is not None
    if not exists and not ids.is_valid_new_id(paper_id):
        return text_error(400, f"'{paper_id}' is not a valid paper id")
    try:
        data = await read_body(request)
    except BodyTooLarge:
        return text_error(413, "too big")
    if not is_pdf(data):
        return text_error(415, "only PDF files can be stored (the body does not start with %PDF-)")
    upsert = request.headers.get("x-upsert", "").strip().lower() == "true"
    try:
        created, pdf = await run_in_threadpool(site.papers.put_pdf, paper_id, data, upsert)
    except PaperExists:
        return text_error(409, f"paper {paper_id} already has a PDF; send 'x-upsert: true' to replace it")
    if created:
        title = await run_in_threadpool(pdf_title, pdf.path)
        if title:
            site.papers.update_meta(paper_id, {"title": title})
    base = site_base(request)
    meta = site.papers.get(paper_id)
    body = {"id": paper_id, "etag": pdf.etag, "size": pdf.size, "created": created,
            "paper": paper_json(base, meta, pdf)}
    headers = {"ETag": quoted_etag(pdf.etag)}
    if created:
        headers["Location"] = body["paper"]["pdf_url"]
    return JSONResponse(body, status_code=201 if created else 200, headers=headers)


@router.get("/{paper_id:path}/text", response_class=PlainTextResponse)
def paper_text(paper_id: str, request: Request, site: Site = Depends(get_site)):
    """The PDF's current text, as plain UTF-8 (what an agent turn reads)."""
    pdf = site.papers.pdf(paper_id)
    if pdf is None:
        raise HTTPException(404, f"no PDF for paper {paper_id}")
    tag = f"{pdf.etag}-text"
    if if_none_match_hits(request, tag):
        return Response(status_code=304, headers={"ETag": quoted_etag(tag)})
    try:
        text = site.text.text_of(paper_id, pdf)
    except TextUnavailable as exc:
        return text_error(503, str(exc))
    return PlainTextResponse(text, headers={"ETag": quoted_etag(tag), "Cache-Control": "no-cache"})


class NoteIn(BaseModel):
    text: constr(strip_whitespace=True, min_length=1, max_length=20000)
    comment: constr(max_length=20000) = ""
    page: conint(ge=0) = 0
    source: constr(max_length=40) = ""


@router.get("/{paper_id:path}/notes")
def list_notes(paper_id: str, site: Site = Depends(get_site)):
    meta = site.papers.get(paper_id)
    if meta is None:
        raise HTTPException(404, f"no paper {paper_id}")
    return meta.get("notes", [])


@router.post("/{paper_id:path}/notes", status_code=201)
def add_note(paper_id: str, note: NoteIn, site: Site = Depends(get_site)):
    try:
        return site.papers.add_note(paper_id, note.text, note.comment, note.page, note.source)
    except UnknownPaper:
        raise HTTPException(404, f"no paper {paper_id}")


@router.delete("/{paper_id:path}/notes/{note_id}", status_code=204)
def delete_note(paper_id: str, note_id: str, site: Site = Depends(get_site)):
    try:
        removed = site.papers.delete_note(paper_id, note_id)
    except UnknownPaper:
        raise HTTPException(404, f"no paper {paper_id}")
    if not removed:
        raise HTTPException(404, f"no note {note_id} on paper {paper_id}")
    return Response(status_code=204)


@router.get("/{paper_id:path}")
def get_paper(paper_id: str, request: Request, site: Site = Depends(get_site)):
    meta = site.papers.get(paper_id)
    if meta is None:
        raise HTTPException(404, f"no paper {paper_id}")
    return paper_json(site_base(request), meta, site.papers.pdf(paper_id))
