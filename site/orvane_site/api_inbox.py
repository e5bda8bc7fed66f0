"""The inbox API: PDFs dropped on Orvane land here and can join the library.

The file name is one path segment; a client percent-encodes it
(encodeURIComponent), so names with blanks or brackets arrive intact. A
name holding "/" cannot be stored.
"""

from __future__ import annotations

from urllib.parse import quote

from fastapi import APIRouter, Body, Depends, HTTPException, Request
from fastapi.responses import JSONResponse, Response
from starlette.concurrency import run_in_threadpool

from . import ids
from .api_papers import paper_json
from .http_helpers import BodyTooLarge, pdf_response, read_body, site_base, text_error
from .inbox import InboxFile, is_valid_name
from .site import Site, get_site
from .store import PaperExists, is_pdf
from .text import pdf_title

router = APIRouter(prefix="/api/inbox")


def inbox_json(base: str, item: InboxFile) -> dict:
    url = f"{base}/api/inbox/{quote(item.name, safe='')}"
    return {"name": item.name, "size": item.size, "received": item.received,
            "etag": item.etag, "url": url, "import_url": f"{url}/import"}


@router.get("")
def list_inbox(request: Request, site: Site = Depends(get_site)):
    """Every file in the inbox, newest first."""
    base = site_base(request)
    return [inbox_json(base, item) for item in site.inbox.list()]


@router.put("/{name}")
async def put_inbox(name: str, request: Request, site: Site = Depends(get_site)):
    """Store a dropped PDF. Never replaces: a taken name gets " (2)" etc."""
    if not is_valid_name(name):
        return text_error(400, f"'{name}' is not a plain file name")
    try:
        data = await read_body(request)
    except BodyTooLarge:
        return text_error(413, "too big")
    if not is_pdf(data):
        return text_error(415, "only PDF files can be put in the inbox (the body does not start with %PDF-)")
    stored = await run_in_threadpool(site.inbox.put, name, data)
    body = inbox_json(site_base(request), stored)
    body["requested"] = name
    return JSONResponse(body, status_code=201, headers={"Location": body["url"]})


@router.api_route("/{name}", methods=["GET", "HEAD"])
def get_inbox_file(name: str, request: Request, site: Site = Depends(get_site)):
    item = site.inbox.get(name)
    if item is None:
        raise HTTPException(404, f"no file {name} in the inbox")
    data = item.path.read_bytes()
    return pdf_response(request, data, item.etag, item.name)


@router.delete("/{name}", status_code=204)
def delete_inbox_file(name: str, site: Site = Depends(get_site)):
    if not site.inbox.remove(name):
        raise HTTPException(404, f"no file {name} in the inbox")
    return Response(status_code=204)


@router.post("/{name}/import", status_code=201)
def import_inbox_file(name: str, request: Request, site: Site = Depends(get_site),
                      paper_id: str = Body("", embed=True, alias="id")):
    """Move an inbox file into the library as a new paper.

    The id is the one given, or one made from the file name. The new paper's
    title is the PDF's own title when it has one, else the file name.
    """
    item = site.inbox.get(name)
    if item is None:
        raise HTTPException(404, f"no file {name} in the inbox")
    paper_id = paper_id.strip() or ids.id_from_file_name(name)
    if not ids.is_valid_new_id(paper_id):
        raise HTTPException(400, f"'{paper_id}' is not a valid paper id")
    title = pdf_title(item.path) or (name[:-4] if name.lower().endswith(".pdf") else name)
    try:
        _, pdf = site.papers.put_pdf(paper_id, item.path.read_bytes(), upsert=False,
                                     new_meta=lambda: {"title": title, "source": "inbox"})
    except PaperExists:
        raise HTTPException(409, f"paper {paper_id} already exists")
    site.inbox.remove(name)
    return paper_json(site_base(request), site.papers.get(paper_id), pdf)
