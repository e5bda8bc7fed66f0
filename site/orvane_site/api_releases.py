"""Which release of Orvane is newest, and the archives themselves.

    GET /api/update        {"version": V, "url": <absolute archive URL>, "size": bytes}
                           or {"version": null} when there is nothing to offer
    GET /releases/<name>   the archive, streamed as application/zip

Orvane's library page compares "version" with the release it runs
(window.panelCaps.release) and offers the update when they differ.
"""

from __future__ import annotations

from urllib.parse import quote

from fastapi import APIRouter, HTTPException, Request
from fastapi.responses import FileResponse

from .http_helpers import site_base
from .releases import newest_release, release_named

router = APIRouter()


@router.get("/api/update")
def update(request: Request):
    release = newest_release()
    if release is None:
        return {"version": None}
    url = f"{site_base(request)}/releases/{quote(release.name, safe='')}"
    return {"version": release.version, "url": url, "size": release.size}


@router.api_route("/releases/{name}", methods=["GET", "HEAD"])
def release_archive(name: str, request: Request):
    release = release_named(name)
    if release is None:
        raise HTTPException(404, f"no release archive {name}")
    return FileResponse(release.path, media_type="application/zip", filename=release.name,
                        method=request.method)
