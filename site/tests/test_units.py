"""The site's modules in-process: ids, typesetting, text, search, storage."""

from __future__ import annotations

import json

import pytest

from orvane_site import ids, pdfgen, samples, text
from orvane_site.search import match_paper, normalise
from orvane_site.store import PaperExists, PaperStore, SeedPaper, etag_of


@pytest.mark.parametrize("good", ["2401.01234", "cs/0101123", "q-bio/0405017", "math.AG/0211045", "a_b-c.d"])
def test_usable_ids(good):
    assert ids.is_valid_new_id(good)


@pytest.mark.parametrize("bad", ["", "/x", "x/", "a//b", "../x", "x/..", ".x", "a b", "x/pdf", "x/notes",
                                 "text", "a\x00b", "é", "x" * 201])
def test_unusable_ids(bad):
    assert not ids.is_valid_new_id(bad)


def test_file_stems_keep_slash_and_underscore_ids_apart():
    assert ids.file_stem("cs/0101123") != ids.file_stem("cs_0101123")
    assert "/" not in ids.file_stem("cs/0101123")


def test_ids_from_file_names():
    assert ids.id_from_file_name("My Paper (2).PDF") == "My-Paper-2"
    assert ids.id_from_file_name("...pdf") == "paper"
    assert ids.id_from_file_name("notes.pdf") == "paper-notes"
    assert ids.is_valid_new_id(ids.id_from_file_name("__weird__ name.pdf"))


def test_samples_cover_both_id_styles_and_render_to_several_pages():
    assert len(samples.SAMPLE_PAPERS) >= 8
    assert any("/" in p["id"] for p in samples.SAMPLE_PAPERS)
    assert any("/" not in p["id"] for p in samples.SAMPLE_PAPERS)
    for paper in samples.SAMPLE_PAPERS:
        pages = pdfgen.layout(paper)
        assert len(pages) >= 2, paper["id"]
        # No line runs into the right margin.
        for page in pages:
            for line in page.lines:
                assert line.x + pdfgen.Typesetter().width(line.font, line.text) <= pdfgen.PAGE_W - pdfgen.MARGIN_X + 0.5


def test_rendering_is_deterministic():
    paper = samples.SAMPLE_PAPERS[1]
    first, second = pdfgen.render_pdf(paper), pdfgen.render_pdf(paper)
    assert first.startswith(b"%PDF-") and first == second


def test_plain_text_has_every_paragraph():
    paper = samples.sample_by_id("2205.11873")
    plain = pdfgen.plain_text(paper)
    for section in paper["sections"]:
        for paragraph in section["paragraphs"]:
            assert paragraph in plain
    assert paper["references"][0] in plain


def test_text_falls_back_to_the_source_words_without_pdftotext(tmp_path, monkeypatch):
    paper = samples.sample_by_id("cs/0101123")
    store = PaperStore(tmp_path)
    store.open(lambda: [SeedPaper({"id": paper["id"], "title": paper["title"]}, pdfgen.render_pdf(paper))])
    monkeypatch.setattr(text.shutil, "which", lambda name: None)
    extractor = text.TextExtractor()
    assert extractor.text_of(paper["id"], store.pdf(paper["id"])) == pdfgen.plain_text(paper)
    # An edited PDF is no longer the generated one: there is no text to give.
    store.put_pdf(paper["id"], pdfgen.render_pdf(paper) + b"\n% edit\n", upsert=True)
    with pytest.raises(text.TextUnavailable):
        text.TextExtractor().text_of(paper["id"], store.pdf(paper["id"]))


def test_store_upsert_rules_and_persistence(tmp_path):
    store = PaperStore(tmp_path)
    store.open(lambda: [])
    created, info = store.put_pdf("a/1", b"%PDF-1 one", upsert=False)
    assert created and info.etag == etag_of(b"%PDF-1 one")
    with pytest.raises(PaperExists):
        store.put_pdf("a/1", b"%PDF-1 two", upsert=False)
    created, info = store.put_pdf("a/1", b"%PDF-1 two", upsert=True)
    assert not created and info.etag == etag_of(b"%PDF-1 two")
    note = store.add_note("a/1", "words", page=3)
    reopened = PaperStore(tmp_path)
    reopened.open(lambda: pytest.fail("an existing library is not seeded again"))
    assert reopened.read_pdf("a/1") == (b"%PDF-1 two", etag_of(b"%PDF-1 two"))
    assert reopened.get("a/1")["notes"][0]["id"] == note["id"]
    doc = json.loads((tmp_path / "papers.json").read_text())
    assert [p["id"] for p in doc["papers"]] == ["a/1"]


def test_search_matching():
    meta = {"id": "x/1", "title": "Bounded Helping", "authors": ["Ada Vos"], "abstract": "Skip lists.", "notes": []}
    assert normalise("  A\n b\tC ") == "a b c"
    assert match_paper(meta, "bounded helping", lambda: None).fields == ["title"]
    words_apart = match_paper(meta, "vos skip", lambda: "")
    assert words_apart is not None and words_apart.score == 1
    in_text = match_paper(meta, "line\nbreak", lambda: "a line break here")
    assert in_text.fields == ["text"] and "line break" in in_text.snippet
    assert match_paper(meta, "absent", lambda: "nothing") is None
    assert match_paper(meta, "   ", lambda: "") is None


def test_data_folder_choice(monkeypatch, tmp_path):
    from orvane_site.config import data_dir
    monkeypatch.setenv("HOME", str(tmp_path))
    monkeypatch.delenv("ORVANE_SITE_DATA", raising=False)
    monkeypatch.delenv("XDG_DATA_HOME", raising=False)
    assert data_dir() == tmp_path / ".local" / "share" / "orvane-site"
    monkeypatch.setenv("XDG_DATA_HOME", "relative/ignored")
    assert data_dir() == tmp_path / ".local" / "share" / "orvane-site"
    monkeypatch.setenv("XDG_DATA_HOME", str(tmp_path / "xdg"))
    assert data_dir() == tmp_path / "xdg" / "orvane-site"
    monkeypatch.setenv("ORVANE_SITE_DATA", str(tmp_path / "override"))
    assert data_dir() == tmp_path / "override"


def test_a_damaged_library_is_not_seeded_over(tmp_path):
    (tmp_path / "papers.json").write_text("{not json")
    with pytest.raises(RuntimeError, match="damaged"):
        PaperStore(tmp_path).open(lambda: pytest.fail("must not seed"))
    assert (tmp_path / "papers.json").read_text() == "{not json"


def test_release_archive_names_and_versions():
    from orvane_site.releases import archive_version
    assert archive_version("Orvane-1.2.3-linux-x86_64.zip") == "1.2.3"
    assert archive_version("Orvane-7-linux-x86_64.zip") == "7"
    assert archive_version("Orvane-1.3.0-rc.1-linux-x86_64.zip") == "1.3.0-rc.1"
    for name in ["Orvane-1.2.3-linux-x86_64.zip/", "orvane-1.2.3-linux-x86_64.zip", "Orvane--linux-x86_64.zip",
                 "Orvane-1.2.3-linux-x86_64.zip\n", "Orvane-\u0663-linux-x86_64.zip", "../Orvane-1-linux-x86_64.zip",
                 "Orvane-1-a/b-linux-x86_64.zip", "Orvane-1-a-b-linux-x86_64.zip", ""]:
        assert archive_version(name) is None, name


def test_release_versions_compare_numerically_part_by_part():
    from orvane_site.releases import version_order
    ordered = ["0.9", "0.10", "1.0-beta", "1.0-rc1", "1.0", "1.0.0", "1.0.9", "1.0.10", "1.2", "01.3", "10.0",
               "9" * 499, "1" + "0" * 499, "1" + "0" * 498 + "1"]
    assert sorted(ordered, key=version_order) == ordered
    assert version_order("1.02") == version_order("1.2")
