"""The HTML pages and the small account endpoint they start with.

One address serves every page, as Orvane loads them:
    /                       the library (also the quick panel, with ?add=<text>)
    /?sparwin=1#spar/<id>   the sparring page for one paper
The fragment never reaches the server; the sparring page reads it itself.
"""

from __future__ import annotations

from pathlib import Path

from fastapi import APIRouter
from fastapi.responses import FileResponse

from .config import DEMO_ACCOUNT, DEMO_NAME

PAGES = Path(__file__).resolve().parent.parent / "pages"
STATIC = Path(__file__).resolve().parent.parent / "static"

router = APIRouter()

PAGE_HEADERS = {
    # Pages are small and change with the code: always revalidate them.
    "Cache-Control": "no-cache",
    # Everything a page uses comes from this site; the policy makes that a
    # rule the web view enforces. (Orvane's injected capabilities script and
    # its event calls are the web view's own and are not subject to it.)
    "Content-Security-Policy": "default-src 'self'; img-src 'self' data:; object-src 'none'; "
                               "base-uri 'none'; frame-ancestors 'none'; form-action 'self'",
}


@router.get("/", include_in_schema=False)
def index(sparwin: str = ""):
    page = "spar.html" if sparwin not in ("", "0") else "library.html"
    return FileResponse(PAGES / page, media_type="text/html", headers=PAGE_HEADERS)


@router.get("/favicon.ico", include_in_schema=False)
def favicon():
    return FileResponse(STATIC / "icon.svg", media_type="image/svg+xml")


@router.get("/api/me")
def me():
    """Who is signed in. The site has no sign-in: always the demo account."""
    return {"account": DEMO_ACCOUNT, "name": DEMO_NAME}
