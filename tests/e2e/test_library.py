"""End-to-end checks of the local PDF library: the account folder, downloads
into it with their sidecars, the PDF viewer, edits noticed on disk (while
running and while closed), uploads and the sync mark, files handed to
`orvane FILE...` (first start and forwarded second start) and their inbox
uploads, drags of papers that are not on disk, and revealing files and the
library folder in the file manager.

Each test runs the real binary on the shared test desktop in its own
throwaway HOME; the PDFs come from and go to fixture sites on loopback.
"""

from __future__ import annotations

import json
import os
import re
import stat
import time
from pathlib import Path

import pytest

from harness import (
    APP_ID,
    FIXTURES,
    holds_for,
    read_sidecar,
    sidecar_path,
    wait_until,
)

DASH = "\u2014"  # the em dash of the log texts
SAMPLE = (FIXTURES / "sample.pdf").read_bytes()
# What a PDF editor appends when it saves incrementally: a new revision that
# ends with its own trailer, so the file stays a whole PDF.
REVISION = b"\n% annotations added\n4 0 obj\n<< /Type /Annot >>\nendobj\nstartxref\n9\n%%EOF\n"
TOKEN = re.compile(r"[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}")


# --------------------------------------------------------------------------
# helpers


def hello(account: str = "alice") -> dict:
    return {"post": {"action": "hello", "account": account}}


def signed_in(home, site, launch, *args: str, account: str = "alice"):
    """Start Orvane on the fixture site; its page says hello at once. Returns
    (orvane, page load record) once the page has its claudeStatus."""
    home.write_settings(AppURL=site.url)
    site.set_scenario([hello(account)])
    orvane = launch(*args)
    page = site.wait_for_load("/")
    site.wait_for_event("claudeStatus")
    return orvane, page


def of_type(events: list[dict], type_: str) -> list[dict]:
    return [e for e in events if isinstance(e, dict) and e.get("type") == type_]


def wait_for_events_of(site, type_: str, count: int = 1, timeout: float = 20.0) -> list[dict]:
    """The events of one type once at least `count` of them have arrived."""
    return site.wait_for_events(
        lambda evs: (lambda found: found if len(found) >= count else None)(of_type(evs, type_)),
        timeout, what=f"{count} {type_!r} event(s)")


def lower_headers(request) -> dict[str, str]:
    return {k.lower(): v for k, v in request.headers.items()}


def count_log(home, text: str) -> int:
    return sum(1 for m in home.log_messages() if m == text)


def file_uri(path: Path) -> str:
    return Path(path).as_uri()


# --------------------------------------------------------------------------
# the account folder


def test_hello_makes_the_account_folder_and_logs_it_once(home, site, launch):
    home.write_settings(AppURL=site.url)
    # Both names sanitise to the same account: lower case, only a-z0-9._- kept.
    site.set_scenario([
        hello("Jane.Doe+Lab@X"),
        {"waitEvent": "claudeStatus"},
        hello("jane.doe+lab@x"),
    ])
    launch()
    page = site.wait_for_load("/")
    statuses = wait_for_events_of(site, "claudeStatus", 2)

    folder = home.library_dir / "jane.doelabx"
    assert folder.is_dir()
    line = f"pdfs: folder {folder}"
    assert [m for m in home.log_messages() if m.startswith("pdfs: folder")] == [line]
    assert home.log_messages().count("message: hello") == 2
    assert [s["sparRoot"] for s in statuses] == [str(folder / ".spar")] * 2

    # Another account (an empty one is "default") moves the library on.
    site.run_in_page([{"post": {"action": "hello", "account": ""}}], page=page.page)
    wait_for_events_of(site, "claudeStatus", 3)
    default = home.library_dir / "default"
    assert default.is_dir()
    assert [m for m in home.log_messages() if m.startswith("pdfs: folder")] == [
        line, f"pdfs: folder {default}"]
    assert sorted(p.name for p in home.library_dir.iterdir()) == ["default", "jane.doelabx"]


def test_account_made_only_of_dots_is_the_default_folder(home, site, launch):
    # ".." would otherwise name the folder above the library.
    orvane, page = signed_in(home, site, launch, account="..")
    default = home.library_dir / "default"
    assert default.is_dir()
    assert [m for m in home.log_messages() if m.startswith("pdfs: folder")] == [
        f"pdfs: folder {default}"]
    assert sorted(p.name for p in home.library_dir.iterdir()) == ["default"]
    status = of_type(site.events(), "claudeStatus")
    assert [s["sparRoot"] for s in status] == [str(default / ".spar")]


# --------------------------------------------------------------------------
# downloads, the viewer and sidecars


def test_open_pdf_downloads_it_with_its_sidecar_and_opens_the_viewer(home, site, launch):
    paper = "arxiv/2401.01234v2"
    site.reply("/storage/2401.01234v2.pdf", SAMPLE)
    url = site.url + "/storage/2401.01234v2.pdf?token=abc%2F1"
    orvane, page = signed_in(home, site, launch)

    site.run_in_page([{"post": {"action": "openPdf", "id": paper, "url": url, "etag": "v1"}}],
                     page=page.page)
    opened = wait_for_events_of(site, "pdfOpened")
    assert opened == [{"type": "pdfOpened", "id": paper}]

    folder = home.account_dir("alice")
    pdf = folder / "arxiv_2401.01234v2.pdf"
    assert pdf.read_bytes() == SAMPLE
    assert stat.S_IMODE(pdf.stat().st_mode) == 0o644
    assert read_sidecar(pdf) == {"id": paper, "etag": "v1"}
    assert sidecar_path(pdf).stat().st_mtime == pytest.approx(pdf.stat().st_mtime, abs=1e-3)
    # Nothing else is left in the folder (no temporary download files).
    assert sorted(os.listdir(folder)) == sorted([".spar", pdf.name, sidecar_path(pdf).name])

    calls = home.wait_for_viewer_call()
    assert [c["argv"] for c in calls] == [[str(pdf)]]
    gets = site.requests("/storage/2401.01234v2.pdf", "GET")
    assert len(gets) == 1 and gets[0].raw_query == "token=abc%2F1"

    messages = home.log_messages()
    downloading = messages.index(f"pdfs: downloading {paper}")
    assert messages.index(f"pdfs: {paper} saved ({len(SAMPLE)} bytes)") > downloading

    # Asked again with the etag it already has: served from disk.
    site.run_in_page([{"post": {"action": "openPdf", "id": paper, "url": url, "etag": "v1"}}],
                     page=page.page)
    assert len(wait_for_events_of(site, "pdfOpened", 2)) == 2
    calls = home.wait_for_viewer_call(2)
    assert [c["argv"] for c in calls] == [[str(pdf)], [str(pdf)]]
    assert len(site.requests("/storage/2401.01234v2.pdf")) == 1, site.describe()
    assert count_log(home, f"pdfs: downloading {paper}") == 1
    assert read_sidecar(pdf) == {"id": paper, "etag": "v1"}
    assert not of_type(site.events(), "error"), site.events()


def test_newer_server_version_replaces_a_synced_pdf_but_never_local_edits(home, site, launch):
    now = int(time.time())
    synced = home.place_pdf("alice", "2401.00010", SAMPLE, etag="v1", synced_at=now - 120 + 0.25)
    edited_data = SAMPLE + b"\n% my notes\n%%EOF\n"
    edited = home.place_pdf("alice", "2401.00011", edited_data, etag="v1",
                            synced_at=now - 120 + 0.25, modified_at=now - 60 + 0.25)
    server_v2 = SAMPLE + REVISION
    site.reply("/storage/2401.00010.pdf", server_v2)
    site.reply("/storage/2401.00011.pdf", server_v2)
    orvane, page = signed_in(home, site, launch)
    assert [e["type"] for e in site.events()] == ["pdfChanged", "claudeStatus"], site.events()

    site.run_in_page([
        {"post": {"action": "openPdf", "id": "2401.00010", "url": site.url + "/storage/2401.00010.pdf",
                  "etag": "v2"}},
        {"post": {"action": "openPdf", "id": "2401.00011", "url": site.url + "/storage/2401.00011.pdf",
                  "etag": "v2"}},
    ], page=page.page)
    opened = wait_for_events_of(site, "pdfOpened", 2)
    assert sorted(e["id"] for e in opened) == ["2401.00010", "2401.00011"]

    # The synced one is replaced by the server's version.
    assert synced.read_bytes() == server_v2
    assert read_sidecar(synced) == {"id": "2401.00010", "etag": "v2"}
    messages = home.log_messages()
    refreshing = messages.index(f"pdfs: 2401.00010 is version v1, bucket has v2 {DASH} refreshing")
    assert messages.index("pdfs: 2401.00010 saved (%d bytes)" % len(server_v2)) > refreshing
    # The edited one is kept, reported again, and opened as it is.
    assert edited.read_bytes() == edited_data
    assert read_sidecar(edited) == {"id": "2401.00011", "etag": "v1"}
    assert "pdfs: 2401.00011 has local edits, keeping them" in messages
    assert site.requests("/storage/2401.00011.pdf") == [], site.describe()
    assert not any(m == "pdfs: downloading 2401.00011" for m in messages), messages
    assert of_type(site.events(), "pdfChanged") == [
        {"type": "pdfChanged", "id": "2401.00011", "mtime": pytest.approx(now - 60 + 0.25, abs=1e-3),
         "size": len(edited_data)}] * 2
    calls = home.wait_for_viewer_call(2)
    assert sorted(c["argv"][0] for c in calls) == sorted([str(synced), str(edited)])


def test_pdf_viewer_setting_names_the_viewer(home, site, launch):
    viewer = home.add_recording_app("orvane-e2e-otherviewer.desktop", "otherviewer", "application/pdf;")
    home.write_settings(PdfViewer=viewer)
    paper = "2403.00003"
    site.reply("/storage/2403.00003.pdf", SAMPLE)
    orvane, page = signed_in(home, site, launch)

    site.run_in_page([{"post": {"action": "openPdf", "id": paper,
                                "url": site.url + "/storage/2403.00003.pdf", "etag": "v1"}}], page=page.page)
    assert wait_for_events_of(site, "pdfOpened") == [{"type": "pdfOpened", "id": paper}]
    pdf = home.account_dir("alice") / "2403.00003.pdf"
    calls = wait_until(lambda: home.calls("otherviewer"), what="the viewer named by PdfViewer")
    assert [c["argv"] for c in calls] == [[str(pdf)]]
    assert holds_for(lambda: home.viewer_calls() == [], 1.0), "the default PDF application was used too"


def test_prepare_pdf_downloads_without_opening_it(home, site, launch):
    paper = "2402.00077"
    site.reply("/storage/2402.00077.pdf", SAMPLE)
    orvane, page = signed_in(home, site, launch)

    site.run_in_page([{"post": {"action": "preparePdf", "id": paper,
                                "url": site.url + "/storage/2402.00077.pdf", "etag": ""}}], page=page.page)
    assert wait_for_events_of(site, "pdfReady") == [{"type": "pdfReady", "id": paper}]
    pdf = home.account_dir("alice") / "2402.00077.pdf"
    assert pdf.read_bytes() == SAMPLE
    # No etag known: the sidecar holds the empty string.
    assert read_sidecar(pdf) == {"id": paper, "etag": ""}
    assert holds_for(lambda: home.viewer_calls() == [], 1.0), home.viewer_calls()
    assert of_type(site.events(), "pdfOpened") == []


def test_open_pdf_that_the_server_refuses_reports_the_error(home, site, launch):
    paper = "2401.40404"
    site.reply("/storage/missing.pdf", "no such object\n", status=404)
    orvane, page = signed_in(home, site, launch)

    site.run_in_page([
        {"post": {"action": "openPdf", "id": paper, "url": site.url + "/storage/missing.pdf", "etag": "v1"}},
        # Without an address there is nothing to fetch.
        {"post": {"action": "openPdf", "id": "2401.00000"}},
    ], page=page.page)
    errors = wait_for_events_of(site, "error", 2)
    assert {json.dumps(e, sort_keys=True) for e in errors} == {
        json.dumps({"type": "error", "id": paper, "message": "HTTP 404"}, sort_keys=True),
        json.dumps({"type": "error", "id": "2401.00000", "message": "No PDF to fetch"}, sort_keys=True),
    }
    home.wait_for_log(f"pdfs: download of {paper} failed: HTTP 404")
    assert len(site.requests("/storage/missing.pdf")) == 1
    folder = home.account_dir("alice")
    assert sorted(os.listdir(folder)) == [".spar"], "nothing is kept of a failed download"
    assert of_type(site.events(), "pdfOpened") == []
    assert holds_for(lambda: home.viewer_calls() == [], 1.0), home.viewer_calls()


def test_paper_id_too_long_for_a_file_name_is_refused_with_an_error(home, site, launch):
    paper = "p" * 300
    site.reply("/storage/long.pdf", SAMPLE)
    orvane, page = signed_in(home, site, launch)

    url = site.url + "/storage/long.pdf"
    site.run_in_page([
        {"post": {"action": "openPdf", "id": paper, "url": url, "etag": "v1"}},
        {"post": {"action": "previewSplit", "id": paper, "url": url, "etag": "v1"}},
    ], page=page.page)
    errors = wait_for_events_of(site, "error", 2)
    assert errors == [{"type": "error", "id": paper, "message": "Paper id too long"}] * 2
    assert holds_for(lambda: site.requests("/storage/long.pdf") == [], 1.0), site.describe()
    assert sorted(os.listdir(home.account_dir("alice"))) == [".spar"]
    assert orvane.running()


def test_drag_of_a_paper_that_is_not_on_disk_downloads_nothing(home, site, launch):
    paper = "2401.55555"
    site.reply("/storage/2401.55555.pdf", SAMPLE)
    orvane, page = signed_in(home, site, launch)

    # A drag never fetches, even when the page names an address.
    site.run_in_page([{"post": {"action": "dragPdf", "id": paper,
                                "url": site.url + "/storage/2401.55555.pdf", "etag": "v1"}},
                      hello()], page=page.page)
    wait_for_events_of(site, "claudeStatus", 2)
    assert wait_for_events_of(site, "pdfNotReady") == [{"type": "pdfNotReady", "id": paper}]
    assert holds_for(lambda: site.requests("/storage/2401.55555.pdf") == [], 1.0), site.describe()
    assert not (home.account_dir("alice") / "2401.55555.pdf").exists()
    assert not any(m.startswith("pdfs: downloading") or m.startswith("dragFile:")
                   for m in home.log_messages()), home.log_messages()


# --------------------------------------------------------------------------
# edits on disk


def append_revision(pdf: Path, at: float) -> bytes:
    """Save the PDF the way an editor does an incremental save, and give it
    the modification time `at`. Returns the new contents."""
    with open(pdf, "ab") as fh:
        fh.write(REVISION)
    os.utime(pdf, (at, at))
    return pdf.read_bytes()


def test_saved_edit_is_reported_once_after_it_settles(home, site, launch):
    paper = "2401.01234"
    synced = int(time.time()) - 120 + 0.25
    pdf = home.place_pdf("alice", paper, SAMPLE, etag="v1", synced_at=synced)
    orvane, page = signed_in(home, site, launch)
    assert of_type(site.events(), "pdfChanged") == [], "a synced PDF is not reported at hello"

    # Two saves in quick succession: the check waits for both.
    edited = int(time.time()) + 0.25
    with open(pdf, "ab") as fh:
        fh.write(b"\n% first part of a save\n")
    time.sleep(1.2)  # the pace of the user's saves, not a wait for Orvane
    data = append_revision(pdf, edited)

    changed = wait_for_events_of(site, "pdfChanged")
    assert changed == [{"type": "pdfChanged", "id": paper, "mtime": pytest.approx(edited, abs=1e-3),
                        "size": len(data)}]
    line = f"pdfs: {pdf.name} edited (mtime {edited:.0f} > sidecar {synced:.0f})"
    assert count_log(home, line) == 1, home.log_messages()
    # Exactly one report for the whole save.
    assert holds_for(lambda: len(of_type(site.events(), "pdfChanged")) == 1
                     and sum("edited (mtime" in m for m in home.log_messages()) == 1, 3.0), (
        site.events(), home.log_messages())
    # Reporting is not syncing: the sidecar is as it was.
    assert read_sidecar(pdf) == {"id": paper, "etag": "v1"}
    assert sidecar_path(pdf).stat().st_mtime == pytest.approx(synced, abs=1e-3)


def test_edit_made_while_closed_is_reported_after_the_queue_and_before_claude_status(
        home, site, launch, tmp_path):
    now = int(time.time())
    edited_data = SAMPLE + REVISION
    edited = home.place_pdf("alice", "2401.00001", edited_data, etag="v1",
                            synced_at=now - 120 + 0.25, modified_at=now - 60 + 0.25)
    home.place_pdf("alice", "2401.00002", SAMPLE, etag="v1", synced_at=now - 120 + 0.25)
    # Edited but unfinished (no trailer yet), and one with no sidecar: neither is reported.
    home.place_pdf("alice", "2401.00003", b"%PDF-1.4\n" + b"0" * 200, etag="v1",
                   synced_at=now - 120 + 0.25, modified_at=now - 60 + 0.25)
    home.place_pdf("alice", "2401.00004", edited_data, sidecar=False,
                   synced_at=now - 60 + 0.25)
    (home.account_dir("alice") / "notes.txt").write_text("not a paper")
    # Something queued before the hello, so the order can be seen.
    drop = tmp_path / "dropped.pdf"
    drop.write_bytes(SAMPLE)

    home.write_settings(AppURL=site.url)
    site.set_scenario([hello()])
    launch(str(drop))
    site.wait_for_event("claudeStatus")

    types = [e["type"] for e in site.events()]
    assert types == ["dockDrop", "pdfChanged", "claudeStatus"], site.events()
    assert of_type(site.events(), "pdfChanged") == [{
        "type": "pdfChanged", "id": "2401.00001",
        "mtime": pytest.approx(now - 60 + 0.25, abs=1e-3), "size": len(edited_data)}]
    messages = home.log_messages()
    assert [m for m in messages if "unsynced edits from earlier" in m] == [
        f"pdfs: {edited.name} has unsynced edits from earlier"]
    assert not any("not a complete PDF" in m for m in messages), messages
    assert messages.index("event dockDrop queued (no page yet)") < messages.index(
        f"pdfs: {edited.name} has unsynced edits from earlier")


# --------------------------------------------------------------------------
# uploads and the sync mark


def test_upload_sends_the_file_and_mark_synced_records_the_new_version(home, site, launch):
    paper = "2401.01234"
    now = int(time.time())
    data = SAMPLE + REVISION
    modified = now - 60 + 0.25
    pdf = home.place_pdf("alice", paper, data, etag="v1", synced_at=now - 120 + 0.25,
                         modified_at=modified)
    site.reply("/storage/upload/2401.01234.pdf", b'{"Key":"papers/2401.01234.pdf"}',
               status=201, method="PUT", content_type="application/json")
    orvane, page = signed_in(home, site, launch)
    assert [e["type"] for e in site.events()] == ["pdfChanged", "claudeStatus"], site.events()

    url = site.url + "/storage/upload/2401.01234.pdf?signature=s1"
    site.run_in_page([{"post": {"action": "uploadFile", "id": paper, "upload_url": url,
                                "token": "up-1"}}], page=page.page)
    [uploaded] = wait_for_events_of(site, "uploaded")
    assert uploaded == {"type": "uploaded", "id": paper, "token": "up-1", "ok": True,
                        "mtime": pytest.approx(modified, abs=1e-3), "error": ""}

    [put] = site.requests("/storage/upload/2401.01234.pdf", "PUT")
    headers = lower_headers(put)
    assert headers.get("content-type") == "application/pdf"
    assert headers.get("x-upsert") == "true"
    assert put.raw_query == "signature=s1"
    assert put.body == data
    messages = home.log_messages()
    assert messages.index(f"pdfs: upload of {paper} done") > messages.index(
        f"pdfs: uploading {paper} ({len(data)} bytes)")
    # The upload itself does not move the sync mark.
    assert read_sidecar(pdf) == {"id": paper, "etag": "v1"}

    # The page confirms the new version with the time the upload reported;
    # a new hello rescans, and the PDF no longer counts as edited.
    site.run_in_page([{"post": {"action": "markSynced", "id": paper, "etag": "v2",
                                "mtime": uploaded["mtime"]}},
                      hello()], page=page.page)
    wait_for_events_of(site, "claudeStatus", 2)
    after_upload = site.events()[[e["type"] for e in site.events()].index("uploaded"):]
    assert of_type(after_upload, "pdfChanged") == [], site.events()
    assert read_sidecar(pdf) == {"id": paper, "etag": "v2"}
    assert sidecar_path(pdf).stat().st_mtime == pytest.approx(modified, abs=1e-3)
    assert pdf.read_bytes() == data
    assert not any("unsynced edits" in m for m in home.log_messages()[messages.index(
        f"pdfs: upload of {paper} done"):]), home.log_messages()


def test_edit_during_upload_is_reported_when_marked_synced(home, site, launch):
    paper, other = "2401.07777", "2401.08888"
    now = int(time.time())
    modified = now - 60 + 0.25
    pdf = home.place_pdf("alice", paper, SAMPLE, etag="v1", synced_at=now - 120 + 0.25,
                         modified_at=modified)
    other_pdf = home.place_pdf("alice", other, SAMPLE, etag="v1", synced_at=now - 120 + 0.25)
    upload = site.reply("/storage/upload/2401.07777.pdf", b"{}", status=200, method="PUT", hold=True)
    orvane, page = signed_in(home, site, launch)
    assert of_type(site.events(), "pdfChanged") == [{
        "type": "pdfChanged", "id": paper, "mtime": pytest.approx(modified, abs=1e-3), "size": len(SAMPLE)}]

    site.run_in_page([{"post": {"action": "uploadFile", "id": paper,
                                "upload_url": site.url + "/storage/upload/2401.07777.pdf",
                                "token": "up-2"}}], page=page.page)
    site.wait_for_request("/storage/upload/2401.07777.pdf", "PUT")
    # The user saves again while the upload waits for its answer, then saves
    # another paper. The other paper's report shows that the watch has seen
    # both saves; the one being uploaded is not reported by the watch.
    later = now + 0.25
    data = append_revision(pdf, later)
    append_revision(other_pdf, later)
    changed = wait_for_events_of(site, "pdfChanged", 2)
    assert [e["id"] for e in changed] == [paper, other], changed
    home.wait_for_log(f"pdfs: {other_pdf.name} edited")
    assert not any(m.startswith(f"pdfs: {pdf.name} edited") for m in home.log_messages())

    upload.release()
    [uploaded] = wait_for_events_of(site, "uploaded")
    assert uploaded["ok"] is True and uploaded["mtime"] == pytest.approx(modified, abs=1e-3), uploaded
    [put] = site.requests("/storage/upload/2401.07777.pdf", "PUT")

    site.run_in_page([{"post": {"action": "markSynced", "id": paper, "etag": "v2",
                                "mtime": uploaded["mtime"]}}], page=page.page)
    # What was uploaded is older than the file: the newer save is reported at once.
    changed = wait_for_events_of(site, "pdfChanged", 3)
    assert changed[2] == {"type": "pdfChanged", "id": paper, "mtime": pytest.approx(later, abs=1e-3),
                          "size": len(data)}
    assert read_sidecar(pdf) == {"id": paper, "etag": "v2"}
    assert sidecar_path(pdf).stat().st_mtime == pytest.approx(modified, abs=1e-3)
    assert holds_for(lambda: len(of_type(site.events(), "pdfChanged")) == 3, 1.0), site.events()
    assert not any(m.startswith(f"pdfs: {pdf.name} edited") for m in home.log_messages())


def test_upload_refused_by_the_server_reports_its_answer(home, site, launch):
    paper = "2401.01234"
    synced = int(time.time()) - 120 + 0.25
    pdf = home.place_pdf("alice", paper, SAMPLE, etag="v1", synced_at=synced)
    site.reply("/storage/upload/2401.01234.pdf", "too big", status=413, method="PUT")
    orvane, page = signed_in(home, site, launch)

    token = {"n": 7, "tag": "any JSON"}  # the page's own, returned as it was sent
    site.run_in_page([
        {"post": {"action": "uploadFile", "id": paper,
                  "upload_url": site.url + "/storage/upload/2401.01234.pdf", "token": token}},
        {"post": {"action": "uploadFile", "id": "2401.99999",
                  "upload_url": site.url + "/storage/upload/2401.99999.pdf", "token": "none"}},
    ], page=page.page)
    uploaded = wait_for_events_of(site, "uploaded", 2)
    by_id = {e["id"]: e for e in uploaded}
    assert by_id[paper] == {"type": "uploaded", "id": paper, "token": token, "ok": False,
                            "mtime": pytest.approx(synced, abs=1e-3), "error": "HTTP 413: too big"}
    assert by_id["2401.99999"] == {"type": "uploaded", "id": "2401.99999", "token": "none",
                                   "ok": False, "mtime": 0, "error": "No local file"}
    home.wait_for_log(f"pdfs: upload of {paper} HTTP 413: too big")
    [put] = site.requests("/storage/upload/2401.01234.pdf", "PUT")
    assert put.body == SAMPLE
    assert site.requests("/storage/upload/2401.99999.pdf") == []
    assert read_sidecar(pdf) == {"id": paper, "etag": "v1"}
    assert sidecar_path(pdf).stat().st_mtime == pytest.approx(synced, abs=1e-3)


# --------------------------------------------------------------------------
# files given to `orvane FILE...`


def test_pdf_given_at_first_start_is_announced_after_hello_and_uploaded_once(
        home, site, launch, tmp_path):
    drops = tmp_path / "drops"
    drops.mkdir()
    pdf, txt = drops / "a.PDF", drops / "b.txt"
    pdf.write_bytes(SAMPLE)
    txt.write_text("not a pdf")
    site.reply("/inbox/upload", b'{"ok":true}', status=200, method="PUT", content_type="application/json")
    orvane, page = signed_in(home, site, launch, str(pdf), str(txt))
    orvane.wait_for_window("library")

    events = site.events()
    assert [e["type"] for e in events] == ["dockDrop", "claudeStatus"], events
    drop = events[0]
    assert set(drop) == {"type", "token", "name", "size"}, drop
    assert TOKEN.fullmatch(drop["token"]), drop["token"]
    assert (drop["name"], drop["size"]) == ("a.PDF", len(SAMPLE))
    messages = home.log_messages()
    assert [m for m in messages if m.startswith("dock drop:")] == ["dock drop: a.PDF"]
    assert messages.count("event dockDrop queued (no page yet)") == 1

    url = site.url + "/inbox/upload?name=a.PDF"
    site.run_in_page([{"post": {"action": "inboxUpload", "token": drop["token"], "upload_url": url}}],
                     page=page.page)
    assert wait_for_events_of(site, "inboxUploaded") == [
        {"type": "inboxUploaded", "token": drop["token"], "ok": True, "name": "a.PDF", "error": ""}]
    [put] = site.requests("/inbox/upload", "PUT")
    headers = lower_headers(put)
    assert headers.get("content-type") == "application/pdf"
    assert "x-upsert" not in headers, headers
    assert put.body == SAMPLE
    messages = home.log_messages()
    assert messages.index("dock drop: upload done") > messages.index("dock drop: uploading a.PDF")

    # A token works once: the same request again does nothing.
    site.run_in_page([{"post": {"action": "inboxUpload", "token": drop["token"], "upload_url": url}},
                      hello()], page=page.page)
    wait_for_events_of(site, "claudeStatus", 2)
    assert count_log(home, "dock drop: uploading a.PDF") == 1
    assert holds_for(lambda: len(site.requests("/inbox/upload", "PUT")) == 1
                     and len(of_type(site.events(), "inboxUploaded")) == 1, 1.0), site.describe()
    assert pdf.read_bytes() == SAMPLE, "the dropped file is left as it is"


def test_pdf_given_to_a_second_start_reaches_the_running_page(home, site, desktop, launch, tmp_path):
    drop = tmp_path / "c.pdf"
    drop.write_bytes(SAMPLE + REVISION)
    site.reply("/inbox/full", "storage full", status=507, method="PUT")
    notes = tmp_path / "notes.txt"
    notes.write_text("not a pdf")
    orvane, page = signed_in(home, site, launch)
    win = orvane.wait_for_window("library")

    # Only files that are PDFs are announced, but the window comes forward anyway.
    desktop.close_with_wm(win)
    orvane.wait_window_hidden(win)
    assert orvane.run_again(str(notes)).returncode == 0
    assert orvane.wait_for_window("library") == win

    desktop.close_with_wm(win)
    orvane.wait_window_hidden(win)
    second = orvane.run_again(str(drop))
    assert second.returncode == 0, second
    [dropped] = wait_for_events_of(site, "dockDrop")
    assert TOKEN.fullmatch(dropped["token"]), dropped
    assert (dropped["name"], dropped["size"]) == ("c.pdf", len(SAMPLE) + len(REVISION))
    assert [r.page for r in site.event_records() if r.data.get("type") == "dockDrop"] == [page.page]
    # The library window comes forward, the same window with the same page.
    assert orvane.wait_for_window("library") == win
    assert [m for m in home.log_messages() if m.startswith("dock drop:")] == ["dock drop: c.pdf"]
    assert sum(m.startswith("=== Orvane") for m in home.log_messages()) == 1
    assert len(site.requests("/")) == 1

    # A failed inbox upload reports the status, and its token is used up.
    site.run_in_page([{"post": {"action": "inboxUpload", "token": dropped["token"],
                                "upload_url": site.url + "/inbox/full"}}], page=page.page)
    assert wait_for_events_of(site, "inboxUploaded") == [
        {"type": "inboxUploaded", "token": dropped["token"], "ok": False, "name": "c.pdf",
         "error": "HTTP 507"}]
    home.wait_for_log("dock drop: upload failed (507)")
    site.run_in_page([{"post": {"action": "inboxUpload", "token": dropped["token"],
                                "upload_url": site.url + "/inbox/full"}}, hello()], page=page.page)
    wait_for_events_of(site, "claudeStatus", 2)
    assert count_log(home, "dock drop: uploading c.pdf") == 1
    assert holds_for(lambda: len(site.requests("/inbox/full", "PUT")) == 1, 1.0), site.describe()


def test_drops_before_hello_arrive_in_order_before_claude_status(home, site, launch, tmp_path):
    one, two = tmp_path / "one.pdf", tmp_path / "two.PDF"
    one.write_bytes(SAMPLE)
    two.write_bytes(SAMPLE + REVISION)
    site.reply("/inbox/upload", b"{}", status=201, method="PUT")
    home.write_settings(AppURL=site.url)
    site.set_scenario([])  # the page holds its hello back
    orvane = launch(str(one), str(two))
    page = site.wait_for_load("/")
    home.wait_for_log("dock drop: two.PDF")
    # The same file once more, from a second start: a third drop of its own.
    assert orvane.run_again(str(one)).returncode == 0
    wait_until(lambda: home.log_messages().count("event dockDrop queued (no page yet)") == 3,
               what=f"three queued drops; log: {home.log_messages()}")
    assert site.events() == []

    site.run_in_page([hello()], page=page.page)
    site.wait_for_event("claudeStatus")
    events = site.events()
    assert [(e["type"], e.get("name")) for e in events] == [
        ("dockDrop", "one.pdf"), ("dockDrop", "two.PDF"), ("dockDrop", "one.pdf"), ("claudeStatus", None)]
    assert [e["size"] for e in events[:3]] == [len(SAMPLE), len(SAMPLE) + len(REVISION), len(SAMPLE)]
    tokens = [e["token"] for e in events[:3]]
    assert len(set(tokens)) == 3 and all(TOKEN.fullmatch(t) for t in tokens), tokens
    assert [m for m in home.log_messages() if m.startswith("dock drop:")] == [
        "dock drop: one.pdf", "dock drop: two.PDF", "dock drop: one.pdf"]

    # Both drops of the same file stay valid.
    site.run_in_page([{"post": {"action": "inboxUpload", "token": tokens[0],
                                "upload_url": site.url + "/inbox/upload"}},
                      {"post": {"action": "inboxUpload", "token": tokens[2],
                                "upload_url": site.url + "/inbox/upload"}}], page=page.page)
    done = wait_for_events_of(site, "inboxUploaded", 2)
    assert sorted(e["token"] for e in done) == sorted([tokens[0], tokens[2]])
    assert all(e["ok"] is True and e["name"] == "one.pdf" for e in done), done
    assert [r.body for r in site.requests("/inbox/upload", "PUT")] == [SAMPLE, SAMPLE]


# --------------------------------------------------------------------------
# the file manager


@pytest.mark.parametrize("with_bus_service", [False, True], ids=["no-file-manager-service", "file-manager-service"])
def test_reveal_pdf_shows_the_file_in_the_file_manager(home, site, launch, request, with_bus_service):
    service = request.getfixturevalue("file_manager_service") if with_bus_service else None
    paper = "2401.01234"
    pdf = home.place_pdf("alice", paper, SAMPLE, etag="v1")
    orvane, page = signed_in(home, site, launch)

    # The PDF is local and current, so nothing is fetched.
    site.run_in_page([{"post": {"action": "revealPdf", "id": paper,
                                "url": site.url + "/storage/never.pdf", "etag": "v1"}}], page=page.page)
    if service is not None:
        calls = service.wait_for_call()
        assert [(c["method"], c["uris"]) for c in calls] == [("ShowItems", [file_uri(pdf)])]
        assert holds_for(lambda: home.file_manager_calls() == [], 1.0), home.file_manager_calls()
    else:
        # No file manager on the bus: the folder holding the PDF is opened
        # with the folder handler (which is given the local path).
        calls = home.wait_for_file_manager_call()
        assert [c["argv"] for c in calls] == [[str(pdf.parent)]]
    assert site.requests("/storage/never.pdf") == []
    assert holds_for(lambda: [e["type"] for e in site.events()] == ["claudeStatus"], 0.5), site.events()


@pytest.mark.parametrize("with_bus_service", [False, True], ids=["no-file-manager-service", "file-manager-service"])
def test_show_library_folder_action_reveals_the_library_folder(home, site, desktop, launch, request,
                                                               with_bus_service):
    service = request.getfixturevalue("file_manager_service") if with_bus_service else None
    home.write_settings(AppURL=site.url)
    launch()
    site.wait_for_load("/")
    wait_until(lambda: desktop.name_has_owner(APP_ID), what=f"{APP_ID} on the bus")

    result = desktop.run_tool("gapplication", "action", APP_ID, "show-library-folder", timeout=20)
    assert result.returncode == 0, result
    library = home.library_dir
    assert library.is_dir()
    if service is not None:
        # The library folder itself is selected, not an account folder.
        calls = service.wait_for_call()
        assert [(c["method"], c["uris"]) for c in calls] == [("ShowItems", [file_uri(library)])]
        assert holds_for(lambda: home.file_manager_calls() == [], 1.0), home.file_manager_calls()
    else:
        # No file manager on the bus: the folder holding the library folder
        # is opened with the folder handler.
        calls = home.wait_for_file_manager_call()
        assert [c["argv"] for c in calls] == [[str(library.parent)]]
