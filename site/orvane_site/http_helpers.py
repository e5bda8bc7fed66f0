"""Small HTTP helpers shared by the API modules."""

from __future__ import annotations

from urllib.parse import quote

from fastapi import Request
from fastapi.responses import PlainTextResponse, Response

from .config import MAX_PDF_BYTES


class BodyTooLarge(Exception):
    pass


async def read_body(request: Request, limit: int = MAX_PDF_BYTES) -> bytes:
    """The request body, refusing more than `limit` bytes without reading it all."""
    declared = request.headers.get("content-length", "")
    if declared.isdigit() and int(declared) > limit:
        raise BodyTooLarge()
    chunks, total = [], 0
    async for chunk in request.stream():
        total += len(chunk)
        if total > limit:
            raise BodyTooLarge()
        chunks.append(chunk)
    return b"".join(chunks)


def text_error(status: int, message: str) -> PlainTextResponse:
    """An error with a plain-text body.

    Used by the upload endpoints: Orvane reports a failed upload to the page
    as "HTTP <status>: <body>", so a short sentence reads well there.
    """
    return PlainTextResponse(message, status_code=status)


def quoted_etag(etag: str) -> str:
    """The ETag header form of an etag: the same string in double quotes."""
    return f'"{etag}"'


def if_none_match_hits(request: Request, etag: str) -> bool:
    """Whether the client's If-None-Match names this version (or "*")."""
    header = request.headers.get("if-none-match", "")
    for candidate in header.split(","):
        candidate = candidate.strip()
        if candidate.startswith("W/"):
            candidate = candidate[2:]
        if candidate == "*" or candidate.strip('"') == etag:
            return True
    return False


def pdf_response(request: Request, data: bytes, etag: str, file_name: str) -> Response:
    headers = {
        "ETag": quoted_etag(etag),
        # Always revalidate: a cached copy must never hide a new upload.
        "Cache-Control": "no-cache",
        "Content-Disposition": "inline; filename*=UTF-8''" + quote(file_name, safe=""),
    }
    if if_none_match_hits(request, etag):
        return Response(status_code=304, headers=headers)
    body = b"" if request.method == "HEAD" else data
    headers["Content-Length"] = str(len(data))
    return Response(body, media_type="application/pdf", headers=headers)


def site_base(request: Request) -> str:
    """The site's own origin as the client reached it, without a trailing "/"."""
    return str(request.base_url).rstrip("/")
