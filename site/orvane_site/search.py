"""Searching the library: metadata first, then the papers' full text.

Matching ignores case and collapses runs of white space, so a passage copied
from a PDF viewer (with line breaks where the lines ended) still finds the
paper it came from. That is what the quick panel uses to suggest the paper
for a note.
"""

from __future__ import annotations

import re
from dataclasses import dataclass
from typing import Callable

# Score per field; a hit in the title outranks one in the body text.
FIELD_WEIGHTS = (("title", 8), ("id", 6), ("authors", 5), ("abstract", 3), ("notes", 2), ("text", 1))
SNIPPET_RADIUS = 70
MAX_QUERY_LENGTH = 400


def normalise(text: str) -> str:
    return re.sub(r"\s+", " ", text).strip().lower()


@dataclass(frozen=True)
class Match:
    score: int
    fields: list[str]
    snippet: str


def _snippet(haystack: str, needle: str) -> str:
    """The matched words with a little context, from the normalised text."""
    at = haystack.find(needle)
    start = max(0, at - SNIPPET_RADIUS)
    end = min(len(haystack), at + len(needle) + SNIPPET_RADIUS)
    return ("\u2026" if start else "") + haystack[start:end] + ("\u2026" if end < len(haystack) else "")


def match_paper(meta: dict, query: str, full_text: Callable[[], str | None]) -> Match | None:
    """How well a paper matches; None when it does not.

    Every word of the query must occur somewhere in the paper; the whole
    query as one phrase in a field scores four times as much as its words
    spread over that field. `full_text` gives the paper's text, or None
    when it cannot be had (the paper is then matched on its metadata).
    """
    needle = normalise(query)[:MAX_QUERY_LENGTH]
    if not needle:
        return None
    fields = {
        "title": normalise(meta.get("title", "")),
        "id": normalise(meta.get("id", "")),
        "authors": normalise(", ".join(meta.get("authors", []))),
        "abstract": normalise(meta.get("abstract", "")),
        "notes": normalise(" ".join(n.get("text", "") + " " + n.get("comment", "")
                                    for n in meta.get("notes", []))),
    }
    text = full_text()
    fields["text"] = normalise(text) if text else ""
    score, hits, snippet = 0, [], ""
    for name, weight in FIELD_WEIGHTS:
        if needle in fields[name]:
            score += weight * 4
            hits.append(name)
            if name == "text" and not snippet:
                snippet = _snippet(fields["text"], needle)
    everything = " ".join(fields.values())
    words = needle.split(" ")
    if not all(w in everything for w in words):
        return None
    for name, weight in FIELD_WEIGHTS:
        if name not in hits and all(w in fields[name] for w in words):
            score += weight
            hits.append(name)
    if not hits:
        # The words are spread over several fields: a weak match.
        score = 1
    return Match(score, hits, snippet)
