"""Where the site keeps its data, and the few fixed values it runs with."""

from __future__ import annotations

import os
from pathlib import Path

# The site has no sign-in; every visitor is this one account. Orvane uses the
# name to pick the account folder of its local library.
DEMO_ACCOUNT = "demo"
DEMO_NAME = "Demo Reader"

# Uploads larger than this are refused with 413; real papers are far smaller,
# and the limit keeps a runaway client from filling the disk.
MAX_PDF_BYTES = 64 * 1024 * 1024


def data_dir() -> Path:
    """The folder that holds papers, PDFs, notes and the inbox.

    ORVANE_SITE_DATA wins (tests point it at a temporary folder); otherwise the
    XDG data folder, as the base directory rules say: $XDG_DATA_HOME when it is
    an absolute path, else ~/.local/share. The data never lives in the source
    tree, so a checkout stays clean however much the site is used.
    """
    override = os.environ.get("ORVANE_SITE_DATA", "")
    if override:
        return Path(override).expanduser()
    xdg = os.environ.get("XDG_DATA_HOME", "")
    base = Path(xdg) if xdg and os.path.isabs(xdg) else Path.home() / ".local" / "share"
    return base / "orvane-site"
