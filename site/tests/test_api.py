"""The site's HTTP API, exercised over a real loopback connection."""

from __future__ import annotations

import hashlib
import json
import os
import re
import shutil
import subprocess
from urllib.parse import quote

import pytest

from conftest import PREPARE, start_server

SAMPLE_IDS = {"2401.01234", "cs/0101123", "2310.04567", "math/0211045", "q-bio/0405017",
              "2205.11873", "physics/9803012", "2403.07719"}


def sha_tag(data: bytes) -> str:
    return hashlib.sha256(data).hexdigest()[:32]


def papers(server) -> dict:
    status, body = server.json("GET", "/api/papers")
    assert status == 200
    return {p["id"]: p for p in body}


def sample_pdf(server, paper_id: str) -> bytes:
    status, _, body = server.request("GET", f"/api/papers/{paper_id}/pdf")
    assert status == 200
    return body


def edited(pdf: bytes, marker: str) -> bytes:
    """A different but still valid-looking PDF: a comment appended after %%EOF."""
    return pdf + f"\n% edited: {marker}\n".encode()


# ----- environment and first start ----------------------------------------------


def test_prepare_script_is_idempotent_and_quiet(venv):
    again = subprocess.run([str(PREPARE), str(venv)], capture_output=True, text=True)
    assert again.returncode == 0
    assert again.stdout == "" and again.stderr == ""
    wrapper = venv / "bin" / "uvicorn"
    assert wrapper.read_text() == '#!/bin/sh\nexec "$(dirname "$0")/python" -m uvicorn "$@"\n'
    assert wrapper.stat().st_mode & 0o111


def test_first_start_fills_the_data_folder_with_samples(venv, tmp_path):
    data = tmp_path / "fresh"
    srv = start_server(venv, data, tmp_path / "log")
    try:
        assert {p["id"] for p in srv.json("GET", "/api/papers")[1]} == SAMPLE_IDS
    finally:
        srv.stop()
    assert (data / "papers.json").is_file()
    pdfs = sorted(p.name for p in (data / "pdfs").iterdir())
    assert len(pdfs) == len(SAMPLE_IDS)
    assert "cs%2F0101123.pdf" in pdfs  # the slash is encoded, not turned into "_"
    # A second start keeps what is there instead of seeding again.
    (data / "pdfs" / "2401.01234.pdf").write_bytes(b"%PDF-1.4\n% kept\n")
    srv = start_server(venv, data, tmp_path / "log2")
    try:
        assert sample_pdf(srv, "2401.01234") == b"%PDF-1.4\n% kept\n"
    finally:
        srv.stop()


# ----- listing and download ---------------------------------------------------------


def test_listing_has_every_sample_with_addresses_and_etags(server):
    listed = papers(server)
    assert SAMPLE_IDS <= set(listed)
    paper = listed["cs/0101123"]
    assert paper["title"] == "A Lock-Free Skip List with Bounded Helping"
    assert paper["authors"] == ["Hendrik Vos", "Laila Mansour"]
    assert paper["year"] == 2001
    assert paper["pdf_url"] == server.url("/api/papers/cs/0101123/pdf")
    assert paper["upload_url"] == server.url("/api/papers/cs/0101123/pdf")
    assert paper["text_url"] == server.url("/api/papers/cs/0101123/text")
    assert len(paper["etag"]) == 32 and all(c in "0123456789abcdef" for c in paper["etag"])
    assert paper["size"] > 1000


def test_download_sends_the_listed_etag_in_quotes(server):
    paper = papers(server)["math/0211045"]
    status, headers, body = server.request("GET", "/api/papers/math/0211045/pdf")
    assert status == 200
    assert headers["Content-Type"] == "application/pdf"
    assert body.startswith(b"%PDF-")
    assert headers["ETag"] == f'"{paper["etag"]}"'
    assert sha_tag(body) == paper["etag"]
    assert int(headers["Content-Length"]) == len(body) == paper["size"]


def test_download_accepts_a_percent_encoded_slash(server):
    plain = sample_pdf(server, "q-bio/0405017")
    status, _, encoded = server.request("GET", "/api/papers/q-bio%2F0405017/pdf")
    assert status == 200 and encoded == plain


def test_download_revalidation_and_head(server):
    etag = papers(server)["2401.01234"]["etag"]
    status, headers, body = server.request("GET", "/api/papers/2401.01234/pdf",
                                           headers={"If-None-Match": f'"{etag}"'})
    assert status == 304 and body == b""
    status, headers, body = server.request("HEAD", "/api/papers/2401.01234/pdf")
    assert status == 200 and body == b"" and headers["ETag"] == f'"{etag}"'


def test_unknown_paper_is_404(server):
    assert server.request("GET", "/api/papers/nope/0000/pdf")[0] == 404
    assert server.request("GET", "/api/papers/nope/0000/text")[0] == 404
    assert server.json("GET", "/api/papers/nope/0000")[0] == 404


@pytest.mark.skipif(shutil.which("pdftotext") is None, reason="poppler-utils not installed")
def test_pdftotext_reads_the_sample_pdfs(server, tmp_path):
    pdf = tmp_path / "paper.pdf"
    pdf.write_bytes(sample_pdf(server, "physics/9803012"))
    text = subprocess.run(["pdftotext", str(pdf), "-"], capture_output=True, text=True, check=True).stdout
    words = " ".join(text.split())  # the long title wraps onto two lines
    assert "Thermal Drift Compensation in Tabletop Interferometers" in words
    assert "Dorothea Brunnhuber" in words
    assert "reduces the drift from 4.6 fringes per hour to 0.3 fringes per hour" in words
    assert "References" in words
    info = subprocess.run(["pdfinfo", str(pdf)], capture_output=True, text=True).stdout
    pages = re.search(r"^Pages:\s+(\d+)$", info, re.M)
    assert pages and int(pages.group(1)) >= 2


# ----- text --------------------------------------------------------------------------


def test_paper_text_is_plain_utf8(server):
    status, headers, body = server.request("GET", "/api/papers/cs/0101123/text")
    assert status == 200
    assert headers["Content-Type"].startswith("text/plain")
    text = body.decode("utf-8")
    assert "A Lock-Free Skip List with Bounded Helping" in text
    assert "Each operation carries a help counter." in text
    assert "\f" not in text


# ----- upload ------------------------------------------------------------------------


def test_upload_creates_a_new_paper_with_201(server):
    pdf = edited(sample_pdf(server, "2310.04567"), "new paper")
    status, headers, raw = server.request("PUT", "/api/papers/test/new-0001/pdf", pdf,
                                          {"Content-Type": "application/pdf"})
    assert status == 201
    body = json.loads(raw)
    assert body["id"] == "test/new-0001"
    assert body["created"] is True
    assert body["etag"] == sha_tag(pdf)
    assert headers["ETag"] == f'"{sha_tag(pdf)}"'
    listed = papers(server)["test/new-0001"]
    assert listed["etag"] == sha_tag(pdf)
    # The new paper's title comes from the PDF's document information.
    assert listed["title"] == "Calibrating Uncertainty in Small Weather Ensembles"
    assert sample_pdf(server, "test/new-0001") == pdf


def test_upload_over_an_existing_paper_without_upsert_is_409(server):
    before = sample_pdf(server, "2205.11873")
    status, headers, body = server.request("PUT", "/api/papers/2205.11873/pdf",
                                           edited(before, "no upsert"), {"Content-Type": "application/pdf"})
    assert status == 409
    assert headers["Content-Type"].startswith("text/plain")
    assert b"x-upsert" in body
    assert sample_pdf(server, "2205.11873") == before


def test_upload_with_upsert_replaces_with_200_and_a_new_etag(server):
    old = papers(server)["2403.07719"]["etag"]
    pdf = edited(sample_pdf(server, "2403.07719"), "upsert")
    status, _, raw = server.request("PUT", "/api/papers/2403.07719/pdf", pdf,
                                    {"Content-Type": "application/pdf", "x-upsert": "true"})
    assert status == 200
    body = json.loads(raw)
    assert body["created"] is False
    assert body["etag"] == sha_tag(pdf) != old
    assert papers(server)["2403.07719"]["etag"] == body["etag"]
    status, headers, data = server.request("GET", "/api/papers/2403.07719/pdf")
    assert data == pdf and headers["ETag"] == f'"{body["etag"]}"'
    # The text follows the new version (the appended comment adds no words, but
    # the text is served under the new etag).
    status, headers, _ = server.request("GET", "/api/papers/2403.07719/text")
    assert status == 200 and headers["ETag"] == f'"{body["etag"]}-text"'


def test_upload_with_upsert_also_creates(server):
    pdf = edited(sample_pdf(server, "2310.04567"), "upsert create")
    status, _, raw = server.request("PUT", "/api/papers/test/new-0002/pdf", pdf, {"x-upsert": "true"})
    assert status == 201 and json.loads(raw)["created"] is True


def test_non_pdf_upload_is_415_with_a_text_body(server):
    before = sample_pdf(server, "2401.01234")
    for path in ("/api/papers/2401.01234/pdf", "/api/papers/test/not-a-pdf/pdf"):
        status, headers, body = server.request("PUT", path, b"hello, not a pdf",
                                               {"Content-Type": "application/pdf", "x-upsert": "true"})
        assert status == 415
        assert headers["Content-Type"].startswith("text/plain")
        assert b"PDF" in body
    assert sample_pdf(server, "2401.01234") == before
    assert "test/not-a-pdf" not in papers(server)


@pytest.mark.parametrize("bad_id", ["x/notes", "x/text", "..%2Fescape", "a b", "-lead"])
def test_upload_under_an_unusable_id_is_400(server, bad_id):
    pdf = sample_pdf(server, "2401.01234")
    status, headers, _ = server.request("PUT", f"/api/papers/{bad_id.replace(' ', '%20')}/pdf", pdf)
    assert status == 400
    assert headers["Content-Type"].startswith("text/plain")


# ----- inbox -------------------------------------------------------------------------


def test_inbox_put_and_list(server):
    pdf = sample_pdf(server, "cs/0101123")
    status, _, raw = server.request("PUT", "/api/inbox/Dropped%20Paper.pdf", pdf,
                                    {"Content-Type": "application/pdf"})
    assert status == 201
    first = json.loads(raw)
    assert first["name"] == "Dropped Paper.pdf"
    status, _, raw = server.request("PUT", "/api/inbox/Dropped%20Paper.pdf", edited(pdf, "2"))
    assert status == 201
    assert json.loads(raw)["name"] == "Dropped Paper (2).pdf"  # never replaced
    status, listed = server.json("GET", "/api/inbox")
    assert status == 200
    by_name = {item["name"]: item for item in listed}
    assert {"Dropped Paper.pdf", "Dropped Paper (2).pdf"} <= set(by_name)
    assert by_name["Dropped Paper.pdf"]["size"] == len(pdf)
    assert by_name["Dropped Paper.pdf"]["url"] == server.url("/api/inbox/Dropped%20Paper.pdf")
    status, headers, data = server.request("GET", "/api/inbox/Dropped%20Paper.pdf")
    assert status == 200 and data == pdf and headers["Content-Type"] == "application/pdf"


def test_inbox_refuses_non_pdf_and_bad_names(server):
    status, headers, body = server.request("PUT", "/api/inbox/notes.txt", b"plain words")
    assert status == 415 and headers["Content-Type"].startswith("text/plain") and body
    assert server.request("PUT", "/api/inbox/.hidden.pdf", b"%PDF-1.4\n")[0] == 400
    assert "notes.txt" not in {i["name"] for i in server.json("GET", "/api/inbox")[1]}


def test_inbox_file_joins_the_library(server):
    pdf = edited(sample_pdf(server, "q-bio/0405017"), "inbox import")
    server.request("PUT", "/api/inbox/toggle%20switch.pdf", pdf)
    status, paper = server.json("POST", "/api/inbox/toggle%20switch.pdf/import", {})
    assert status == 201
    assert paper["id"] == "toggle-switch"
    assert paper["etag"] == sha_tag(pdf)
    assert "toggle switch.pdf" not in {i["name"] for i in server.json("GET", "/api/inbox")[1]}
    assert "toggle-switch" in papers(server)
    # Importing again under a taken id is refused.
    server.request("PUT", "/api/inbox/again.pdf", pdf)
    assert server.json("POST", "/api/inbox/again.pdf/import", {"id": "toggle-switch"})[0] == 409
    assert server.request("DELETE", "/api/inbox/again.pdf")[0] == 204
    assert server.request("DELETE", "/api/inbox/again.pdf")[0] == 404


# ----- notes, search, account --------------------------------------------------------


def test_notes_can_be_added_listed_and_deleted(server):
    status, note = server.json("POST", "/api/papers/cs/0101123/notes",
                               {"text": "Each operation carries a help counter.", "page": 1, "source": "panel"})
    assert status == 201
    assert note["text"] == "Each operation carries a help counter." and note["page"] == 1
    status, notes = server.json("GET", "/api/papers/cs/0101123/notes")
    assert status == 200 and note["id"] in {n["id"] for n in notes}
    assert note["id"] in {n["id"] for n in papers(server)["cs/0101123"]["notes"]}
    assert server.request("DELETE", f"/api/papers/cs/0101123/notes/{note['id']}")[0] == 204
    assert server.request("DELETE", f"/api/papers/cs/0101123/notes/{note['id']}")[0] == 404
    assert server.json("POST", "/api/papers/nope/1/notes", {"text": "x"})[0] == 404
    assert server.json("POST", "/api/papers/cs/0101123/notes", {"text": "   "})[0] == 422


def test_search_finds_a_passage_copied_across_lines(server):
    passage = "the number of marked nodes is\nbounded by the number of deletions"
    status, found = server.json("GET", "/api/papers?q=" + passage.replace(" ", "%20").replace("\n", "%0A"))
    assert status == 200
    assert found[0]["id"] == "cs/0101123"
    assert "text" in found[0]["match"]["fields"]
    assert "marked nodes" in found[0]["match"]["snippet"]
    status, found = server.json("GET", "/api/papers?q=Solberg")
    # An author match ranks above papers that only mention the name in their text.
    assert found[0]["id"] == "2310.04567" and "authors" in found[0]["match"]["fields"]
    assert all(p["match"]["fields"] == ["text"] for p in found[1:])
    assert server.json("GET", "/api/papers?q=zzqqxx-nothing")[1] == []


def test_me_names_the_demo_account(server):
    assert server.json("GET", "/api/me") == (200, {"account": "demo", "name": "Demo Reader"})


def test_api_schema_is_served_and_no_cdn_docs_page(server):
    status, schema = server.json("GET", "/api/openapi.json")
    assert status == 200
    assert "/api/papers/{paper_id}/pdf" in schema["paths"]
    assert "put" in schema["paths"]["/api/papers/{paper_id}/pdf"]
    assert server.request("GET", "/api/docs")[0] == 404


# ----- release archives and /api/update ------------------------------------------------


def archive_name(version: str) -> str:
    return f"Orvane-{version}-linux-x86_64.zip"


@pytest.fixture(scope="module")
def releases_root(tmp_path_factory):
    return tmp_path_factory.mktemp("releases-root")


@pytest.fixture(scope="module")
def release_server(venv, releases_root):
    srv = start_server(venv, releases_root / "data", releases_root / "uvicorn.log",
                       releases=releases_root / "releases")
    yield srv
    srv.stop()


@pytest.fixture
def releases(release_server, releases_root):
    """The server's releases folder, empty at the start of each test."""
    folder = releases_root / "releases"
    if folder.is_dir():
        folder.chmod(0o755)
        shutil.rmtree(folder)
    elif folder.exists():
        folder.unlink()
    folder.mkdir()
    return folder


def raw_get(server, path: str):
    """(status, body) of a GET with the path sent exactly as written (no client clean-up)."""
    import http.client
    from urllib.parse import urlsplit
    parts = urlsplit(server.base)
    connection = http.client.HTTPConnection(parts.hostname, parts.port, timeout=30)
    try:
        connection.putrequest("GET", path, skip_accept_encoding=True)
        connection.endheaders()
        response = connection.getresponse()
        return response.status, response.read()
    finally:
        connection.close()


def test_update_offers_nothing_when_the_variable_is_unset(server):
    assert server.json("GET", "/api/update") == (200, {"version": None})
    assert server.request("GET", "/releases/" + archive_name("1.0.0"))[0] == 404


def test_update_offers_nothing_for_an_empty_folder(release_server, releases):
    assert release_server.json("GET", "/api/update") == (200, {"version": None})


def test_update_offers_nothing_for_a_missing_folder_or_a_file_in_its_place(release_server, releases):
    releases.rmdir()
    assert release_server.json("GET", "/api/update") == (200, {"version": None})
    assert release_server.request("GET", "/releases/" + archive_name("1.0.0"))[0] == 404
    releases.write_bytes(b"not a folder")
    assert release_server.json("GET", "/api/update") == (200, {"version": None})
    assert release_server.request("GET", "/releases/" + archive_name("1.0.0"))[0] == 404


@pytest.mark.skipif(os.geteuid() == 0, reason="root reads a folder whatever its mode")
def test_update_offers_nothing_for_an_unreadable_folder(release_server, releases):
    (releases / archive_name("1.0.0")).write_bytes(b"PK")
    releases.chmod(0)
    assert release_server.json("GET", "/api/update") == (200, {"version": None})


def test_update_offers_the_highest_version_with_its_absolute_url_and_size(release_server, releases):
    contents = {}
    for version in ["1.2.3", "1.9.9", "1.10.0-rc1", "1.10.0", "1.10", "0.99.0", "1.2.30"]:
        contents[version] = f"archive {version}".encode() * (len(version) + 1)
        (releases / archive_name(version)).write_bytes(contents[version])
    status, offer = release_server.json("GET", "/api/update")
    assert status == 200
    assert offer == {"version": "1.10.0", "url": release_server.url("/releases/" + archive_name("1.10.0")),
                     "size": len(contents["1.10.0"])}
    status, headers, body = release_server.request("GET", "/releases/" + archive_name("1.10.0"))
    assert status == 200 and body == contents["1.10.0"]
    assert headers["Content-Type"] == "application/zip"
    assert int(headers["Content-Length"]) == len(body)
    # Every archive of the folder is served, not only the newest.
    assert release_server.request("GET", "/releases/" + archive_name("1.2.3"))[2] == contents["1.2.3"]
    status, headers, body = release_server.request("HEAD", "/releases/" + archive_name("1.9.9"))
    assert status == 200 and body == b"" and int(headers["Content-Length"]) == len(contents["1.9.9"])


def test_update_url_follows_the_address_the_client_used(release_server, releases):
    (releases / archive_name("2.0.0")).write_bytes(b"PK")
    port = release_server.base.rsplit(":", 1)[1]
    status, _, raw = release_server.request("GET", "/api/update", headers={"Host": f"localhost:{port}"})
    assert status == 200
    assert json.loads(raw)["url"] == f"http://localhost:{port}/releases/{archive_name('2.0.0')}"


def test_a_suffixed_release_is_offered_when_it_is_the_highest(release_server, releases):
    (releases / archive_name("3.0.0")).write_bytes(b"PK")
    (releases / archive_name("3.0.1-beta.2")).write_bytes(b"PK beta")
    assert release_server.json("GET", "/api/update")[1]["version"] == "3.0.1-beta.2"
    assert release_server.request("GET", "/releases/" + archive_name("3.0.1-beta.2"))[2] == b"PK beta"


def test_other_names_are_never_offered_or_served(release_server, releases):
    bad = ["Orvane-1.2-linux-x86_64.zip.part", "Orvane-1.2-linux-aarch64.zip", "Orvane-v1.2-linux-x86_64.zip",
           "Orvane-1..2-linux-x86_64.zip", "Orvane-1.2.-linux-x86_64.zip", "Orvane-1.2-rc_1-linux-x86_64.zip",
           "Orvane-1.2--linux-x86_64.zip", "Orvane-\u0661.2-linux-x86_64.zip", "notes.txt", ".hidden.zip"]
    for name in bad:
        (releases / name).write_bytes(b"PK")
    assert release_server.json("GET", "/api/update") == (200, {"version": None})
    for name in bad:
        assert release_server.request("GET", "/releases/" + quote(name, safe=""))[0] == 404, name


def test_names_that_differ_only_in_case_are_not_archives(release_server, releases):
    (releases / archive_name("2.0.0")).write_bytes(b"the real one")
    for name in ["ORVANE-9.0.0-linux-x86_64.zip", "orvane-9.0.0-linux-x86_64.zip",
                 "Orvane-9.0.0-Linux-x86_64.zip", "Orvane-9.0.0-linux-x86_64.ZIP"]:
        (releases / name).write_bytes(b"PK impostor")
        assert release_server.request("GET", "/releases/" + name)[0] == 404, name
    assert release_server.json("GET", "/api/update")[1]["version"] == "2.0.0"
    # Suffixes may differ only in case: both are archives, and the choice
    # between them does not depend on the order of the listing.
    (releases / archive_name("9.0.0-RC1")).write_bytes(b"upper")
    (releases / archive_name("9.0.0-rc1")).write_bytes(b"lower")
    assert release_server.json("GET", "/api/update")[1]["version"] == "9.0.0-rc1"
    assert release_server.request("GET", "/releases/" + archive_name("9.0.0-RC1"))[2] == b"upper"


def test_traversal_and_encoded_slashes_are_404(release_server, releases, releases_root):
    (releases_root / archive_name("7.0.0")).write_bytes(b"outside the folder")
    (releases / archive_name("1.0.0")).write_bytes(b"PK")
    sub = releases / "sub"
    sub.mkdir()
    (sub / archive_name("8.0.0")).write_bytes(b"one level down")
    for path in ["/releases/..%2F" + archive_name("7.0.0"),
                 "/releases/../" + archive_name("7.0.0"),
                 "/releases/%2e%2e%2f" + archive_name("7.0.0"),
                 "/releases/..%5C" + archive_name("7.0.0"),
                 "/releases/sub%2F" + archive_name("8.0.0"),
                 "/releases/sub/" + archive_name("8.0.0"),
                 "/releases/%2Fetc%2Fpasswd",
                 "/releases/..", "/releases/.", "/releases/", "/releases/%00" + archive_name("1.0.0"),
                 "/releases/" + archive_name("1.0.0") + "%00"]:
        status, body = raw_get(release_server, path)
        assert status == 404, (path, status, body)
        assert b"outside the folder" not in body and b"one level down" not in body
    assert release_server.json("GET", "/api/update")[1]["version"] == "1.0.0"


def test_a_link_leading_outside_is_neither_offered_nor_served(release_server, releases, releases_root):
    (releases / archive_name("1.0.0")).write_bytes(b"PK")
    (releases / archive_name("99.0.0")).symlink_to("/etc/passwd")
    outside = releases_root / "elsewhere.zip"
    outside.write_bytes(b"PK outside")
    (releases / archive_name("98.0.0")).symlink_to(outside)
    (releases / archive_name("97.0.0")).symlink_to(releases / "missing")
    (releases / archive_name("96.0.0")).symlink_to(archive_name("96.0.0"))  # a loop
    assert release_server.json("GET", "/api/update")[1]["version"] == "1.0.0"
    for version in ["99.0.0", "98.0.0", "97.0.0", "96.0.0"]:
        status, _, body = release_server.request("GET", "/releases/" + archive_name(version))
        assert status == 404 and b"root:" not in body and b"PK outside" not in body, version


def test_a_link_to_an_archive_in_the_folder_is_served(release_server, releases):
    (releases / "build-4711.zip").write_bytes(b"PK linked")
    (releases / archive_name("5.0.0")).symlink_to("build-4711.zip")
    assert release_server.json("GET", "/api/update")[1] == {
        "version": "5.0.0", "url": release_server.url("/releases/" + archive_name("5.0.0")), "size": 9}
    assert release_server.request("GET", "/releases/" + archive_name("5.0.0"))[2] == b"PK linked"


def test_a_folder_named_like_an_archive_is_neither_offered_nor_served(release_server, releases):
    (releases / archive_name("1.0.0")).write_bytes(b"PK")
    (releases / archive_name("50.0.0")).mkdir()
    os.mkfifo(releases / archive_name("51.0.0"))
    assert release_server.json("GET", "/api/update")[1]["version"] == "1.0.0"
    assert release_server.request("GET", "/releases/" + archive_name("50.0.0"))[0] == 404
    assert release_server.request("GET", "/releases/" + archive_name("51.0.0"))[0] == 404


def test_ten_thousand_files_in_the_folder(release_server, releases):
    for n in range(5000):
        (releases / archive_name(f"1.{n}.0")).write_bytes(b"")
        (releases / f"noise-{n}.zip").write_bytes(b"")
    (releases / archive_name("1.4999.0")).write_bytes(b"PK newest")
    status, offer = release_server.json("GET", "/api/update")
    assert status == 200 and offer["version"] == "1.4999.0" and offer["size"] == 9
    assert release_server.request("GET", "/releases/" + archive_name("1.4999.0"))[2] == b"PK newest"


def test_very_long_versions_compare_by_their_digits(release_server, releases):
    # A file name holds at most 255 bytes: 230 digits is near the longest V.
    longest = "9" * 230
    smaller = "1" + "0" * 228  # fewer digits, so smaller despite the leading "1"
    (releases / archive_name(longest)).write_bytes(b"PK long")
    (releases / archive_name(smaller)).write_bytes(b"PK")
    (releases / archive_name("8" * 230)).write_bytes(b"PK")
    assert release_server.json("GET", "/api/update")[1]["version"] == longest
    # A name longer than the file system allows is simply not there.
    status, _, _ = release_server.request("GET", "/releases/" + archive_name("9" * 500))
    assert status == 404
    assert release_server.json("GET", "/api/update")[1]["version"] == longest


def test_a_large_archive_is_streamed_whole(release_server, releases):
    data = os.urandom(1 << 20) * 24
    (releases / archive_name("4.0.0")).write_bytes(data)
    status, offer = release_server.json("GET", "/api/update")
    assert offer["size"] == len(data)
    status, headers, body = release_server.request("GET", "/releases/" + archive_name("4.0.0"))
    assert status == 200 and hashlib.sha256(body).digest() == hashlib.sha256(data).digest()
