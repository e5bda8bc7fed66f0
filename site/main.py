"""Entry point of the reference library site.

Started in this folder as `.venv/bin/uvicorn main:app --port 8000`; everything
lives in the orvane_site package, this module only builds the application.
"""

from orvane_site.app import create_app

app = create_app()
