"""Paper ids: what a new one may look like and how one names a file.

Ids come in two styles, "2401.01234" and "cs/0101123": the second holds a
slash, so ids travel in URL paths as several segments (see api.py). The last
segment of an address names the sub-resource ("pdf", "text", "notes"), which
is why an id may not end in one of those words.
"""

from __future__ import annotations

import re
from urllib.parse import quote

RESERVED_LAST_SEGMENTS = frozenset({"pdf", "text", "notes"})
MAX_ID_LENGTH = 200

# Letters, digits, ".", "_" and "-", starting with a letter or digit, so that
# no segment can be "." or ".." and no id needs escaping beyond the slash.
_SEGMENT = re.compile(r"[A-Za-z0-9][A-Za-z0-9._-]*\Z")


def is_valid_new_id(paper_id: str) -> bool:
    """Whether a paper may be created under this id."""
    if not paper_id or len(paper_id) > MAX_ID_LENGTH:
        return False
    segments = paper_id.split("/")
    if not all(_SEGMENT.match(s) for s in segments):
        return False
    return segments[-1] not in RESERVED_LAST_SEGMENTS


def file_stem(paper_id: str) -> str:
    """A file name stem that is unique per id.

    Percent-encoding keeps "cs/0101123" and "cs_0101123" apart, which the
    plain "/"-to-"_" rule of Orvane's local library would not.
    """
    return quote(paper_id, safe="")


def id_from_file_name(name: str) -> str:
    """Suggest a paper id for an inbox file: its stem reduced to the id alphabet."""
    stem = name[:-4] if name.lower().endswith(".pdf") else name
    cleaned = re.sub(r"[^A-Za-z0-9._-]+", "-", stem).strip("-._")
    cleaned = cleaned[:MAX_ID_LENGTH] or "paper"
    if not cleaned[0].isalnum():
        cleaned = "p" + cleaned
    if cleaned in RESERVED_LAST_SEGMENTS:
        cleaned = "paper-" + cleaned
    return cleaned
