"""Assembling the ASGI application."""

from __future__ import annotations

import threading

from fastapi import FastAPI
from fastapi.staticfiles import StaticFiles

from . import api_inbox, api_papers, api_releases, pages
from .config import data_dir
from .site import Site


def create_app() -> FastAPI:
    # No interactive docs page: it loads its scripts from a CDN, and nothing
    # the site serves may depend on another host. The schema stays available.
    app = FastAPI(title="Orvane reference library", docs_url=None, redoc_url=None,
                  openapi_url="/api/openapi.json")

    @app.on_event("startup")
    def open_library() -> None:
        # At start-up rather than import, so that importing the module (for
        # a test or a tool) never writes to the data folder.
        app.state.site = Site.open(data_dir())
        # Extract the papers' text in the background, so that the first
        # full-text search does not wait for pdftotext on every paper.
        threading.Thread(target=app.state.site.warm_text, name="warm-text", daemon=True).start()

    app.include_router(pages.router)
    app.include_router(api_papers.router)
    app.include_router(api_inbox.router)
    app.include_router(api_releases.router)
    app.mount("/static", StaticFiles(directory=pages.STATIC), name="static")
    return app
