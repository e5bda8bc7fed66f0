"""End-to-end checks of quotes: ⌥C into the open sparring chat (through the
page's window.sparQuote) or, with no chat showing, to the desktop
application as "nl.tarnwick.pendrel.ask"; ⌥Q and the send-quote-to-friend
action from zathura showing a library PDF ("friendQuote" with the page) or
another PDF (the "error" event); and the quote a capture process hands over
through "quote.txt" and "com.tarnwick.orvane.quote".
"""

from __future__ import annotations

import json

from harness import (
    APP_ID,
    ASK_SIGNAL,
    QUOTE_SIGNAL,
    holds_for,
    run_orvane,
    text_pdf,
    wait_until,
)

ACCOUNT = "alice"
PAPER_ID = "cs/0101123"
PAGES = ["First page opening words here", "Second page lattice argument", "Third page closing remark now"]
# zathura fits the 600-point page to its 800-pixel window; the line of text
# stands at 176-200 points from the page's top.
LINE_Y = int(190 * 800 / 600)
LINE_FROM, LINE_TO = int(10 * 800 / 600), int(590 * 800 / 600)
NOT_A_LIBRARY_PDF = ("Quotes are sent from a library PDF, the front window isn't one. "
                     "Open the paper's PDF from the library first.")
QUOTE = 'A quote with </script><b>"markup"</b> & \u00e9\nand a second line'


def started_library(home, site, launch):
    home.write_settings(AppURL=site.url)
    site.set_scenario([{"post": {"action": "hello", "account": ACCOUNT}}, {"waitEvent": "claudeStatus"}])
    orvane = launch()
    library = site.wait_for_load("/")
    home.wait_for_log(lambda m: m.startswith("hotkeys: "))
    site.wait_for_record("scenarioDone", lambda r: r.page == library.page)
    return orvane, library


def open_chat(orvane, site, library):
    site.run_in_page([{"post": {"action": "spar", "id": PAPER_ID}}], page=library.page)
    win = orvane.wait_for_window("sparring")
    spar = site.wait_for_load(lambda r: "sparwin=1" in r.href)
    return win, spar


def library_pdf(home):
    return home.place_pdf(ACCOUNT, PAPER_ID, text_pdf(PAGES), etag="e1")


def select_line(desktop, viewer) -> str:
    viewer.select_across(LINE_Y, LINE_FROM, LINE_TO)
    text = wait_until(lambda: desktop.read_selection("primary", "UTF8_STRING"),
                      what="zathura to put the selection on PRIMARY").decode("utf-8")
    assert "lattice" in text, text
    return text


def quotes_on(site, page: str) -> list[dict]:
    return [r.data for r in site.records("quote") if r.page == page]


# --------------------------------------------------------------------------
# ⌥C


def test_alt_c_with_the_chat_open_puts_the_quote_in_through_spar_quote(home, site, desktop, launch, clients):
    orvane, library = started_library(home, site, launch)
    _, spar = open_chat(orvane, site, library)
    clients.text_window(QUOTE)

    desktop.press("alt+c")
    got = site.wait_for_record("quote", lambda r: r.page == spar.page)
    assert got.data == {"text": QUOTE, "type": "string"}
    home.wait_for_log(f"quote: delivered {len(QUOTE)} chars")
    assert quotes_on(site, library.page) == []


def test_alt_c_with_the_chat_hidden_goes_to_the_desktop_application(home, site, desktop, launch, clients):
    orvane, library = started_library(home, site, launch)
    spar_win, spar = open_chat(orvane, site, library)
    desktop.close_with_wm(spar_win)
    orvane.wait_window_hidden(spar_win)
    recorder = clients.signal_recorder([ASK_SIGNAL])
    clients.text_window(QUOTE)

    desktop.press("alt+c")
    # The text window shows no document, so nothing is posted.
    home.wait_for_log("ask: the front window is not a pdf (no document)")
    assert holds_for(lambda: quotes_on(site, spar.page) == [] and recorder.signals() == [], 1.0)
    assert orvane.windows("sparring") == []


def maps_poppler(orvane) -> bool:
    with open(f"/proc/{orvane.proc.pid}/maps") as maps:
        return "libpoppler" in maps.read()


def test_alt_c_in_a_pdf_viewer_posts_the_ask_with_path_quote_and_page(home, site, desktop, launch, clients):
    orvane, _ = started_library(home, site, launch)
    pdf = library_pdf(home)
    recorder = clients.signal_recorder([ASK_SIGNAL])
    viewer = clients.pdf_viewer(pdf, page=2)
    selected = select_line(desktop, viewer)
    # The PDF library is opened by the first search for a quote's page, not at launch.
    assert not maps_poppler(orvane), "poppler was loaded before any PDF was searched"

    desktop.press("alt+c")
    signal = recorder.wait_for_signal(ASK_SIGNAL)[0]
    assert maps_poppler(orvane)
    assert signal["path"] == "/nl/tarnwick/pendrel"
    ask = json.loads(signal["args"][0])
    assert sorted(ask) == ["page", "path", "quote", "splitW", "splitX", "title", "x", "y"]
    assert (ask["path"], ask["title"], ask["quote"], ask["page"]) == (str(pdf), pdf.name, selected, 2)
    assert isinstance(ask["x"], (int, float)) and isinstance(ask["y"], (int, float))
    home.wait_for_log(lambda m: m.startswith(f"ask: {pdf.name}, {len(selected)} chars quoted, to the desktop (split "))


def test_alt_c_in_a_pdf_viewer_with_nothing_selected_still_asks(home, site, desktop, launch, clients):
    started_library(home, site, launch)
    pdf = library_pdf(home)
    recorder = clients.signal_recorder([ASK_SIGNAL])
    # Someone else owns PRIMARY, and zathura copies nothing on Ctrl+C.
    clients.clipboard_owner({"UTF8_STRING": b"unrelated"})
    clients.pdf_viewer(pdf, page=2)

    desktop.press("alt+c")
    ask = json.loads(recorder.wait_for_signal(ASK_SIGNAL)[0]["args"][0])
    assert (ask["path"], ask["quote"], ask["page"]) == (str(pdf), "", 0)
    # The paper went to the left half of the one screen; the right half is free.
    assert (ask["splitX"], ask["splitW"]) == (0.5, 0.5)


# --------------------------------------------------------------------------
# ⌥Q and the send-quote-to-friend action


def test_alt_q_from_zathura_on_a_library_pdf_sends_friend_quote_with_the_page(
        home, site, desktop, launch, clients):
    orvane, library = started_library(home, site, launch)
    pdf = library_pdf(home)
    viewer = clients.pdf_viewer(pdf, page=2)
    selected = select_line(desktop, viewer)

    desktop.press("alt+q")
    event = site.wait_for_event("friendQuote")
    assert event == {"type": "friendQuote", "id": PAPER_ID, "text": selected, "page": 2}
    home.wait_for_log(f"friend-quote: {len(selected)} chars from {PAPER_ID} (page 2)")
    orvane.wait_for_window("library")


def test_alt_q_from_a_pdf_beside_the_library_is_refused_with_the_error_event(
        home, site, desktop, launch, clients):
    started_library(home, site, launch)
    # A folder whose name merely begins with the account folder's name.
    outside = home.account_dir(ACCOUNT + "2")
    outside.mkdir(parents=True)
    pdf = outside / "cs_0101123.pdf"
    pdf.write_bytes(text_pdf(PAGES))
    viewer = clients.pdf_viewer(pdf, page=2)
    select_line(desktop, viewer)

    desktop.press("alt+q")
    event = site.wait_for_event("error")
    assert event == {"type": "error", "id": "", "message": NOT_A_LIBRARY_PDF}
    home.wait_for_log(f"friend-quote: focused document {pdf} is not a library PDF")
    assert not any(e.get("type") == "friendQuote" for e in site.events() if isinstance(e, dict))


def test_send_quote_to_friend_action_quotes_the_clipboard_text(home, site, desktop, launch, clients):
    started_library(home, site, launch)
    pdf = library_pdf(home)
    clients.clipboard_owner({"UTF8_STRING": PAGES[2].encode(), "text/plain;charset=utf-8": PAGES[2].encode()})
    clients.pdf_viewer(pdf, page=1)

    result = desktop.run_tool("gapplication", "action", APP_ID, "send-quote-to-friend")
    assert result.returncode == 0, result
    event = site.wait_for_event("friendQuote")
    assert event == {"type": "friendQuote", "id": PAPER_ID, "text": PAGES[2], "page": 3}
    home.wait_for_log(f"friend-quote: {len(PAGES[2])} chars via the Services menu")


# --------------------------------------------------------------------------
# the quote a capture process hands over


def test_quote_from_a_capture_process_reaches_the_chat(home, site, desktop, launch, clients):
    orvane, library = started_library(home, site, launch)
    _, spar = open_chat(orvane, site, library)
    recorder = clients.signal_recorder([QUOTE_SIGNAL])
    clients.text_window(QUOTE)

    result = run_orvane(home, desktop, ["--capture-quote"])
    assert result.returncode == 0, result
    recorder.wait_for_signal(QUOTE_SIGNAL)
    got = site.wait_for_record("quote", lambda r: r.page == spar.page)
    assert got.data == {"text": QUOTE, "type": "string"}
    wait_until(lambda: not (home.handoff_dir / "quote.txt").exists(), what="quote.txt to be taken")


def test_quote_signal_without_a_file_or_a_chat_is_only_logged(home, site, desktop, launch):
    orvane, library = started_library(home, site, launch)
    desktop.emit_signal("/com/tarnwick/orvane", QUOTE_SIGNAL, "")
    home.wait_for_log("quote: no chat open")
    # A hostile sender: a huge quote file with a chat open arrives whole.
    _, spar = open_chat(orvane, site, library)
    huge = ("</script>\u2028'\"\\" * 50000)
    home.handoff_dir.mkdir(parents=True, exist_ok=True)
    (home.handoff_dir / "quote.txt").write_text(huge, encoding="utf-8")
    desktop.emit_signal("/com/tarnwick/orvane", QUOTE_SIGNAL, "ignored argument")
    got = site.wait_for_record("quote", lambda r: r.page == spar.page)
    assert got.data["text"] == huge
    assert orvane.running()
