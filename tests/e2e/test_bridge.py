"""End-to-end checks of the page bridge's trust boundary: only the site's own
top-level documents drive the program, and only they hear its events.

"The site" is the site address's origin (scheme, host and port), so a page
on another port of the same loopback host is as foreign as any other.
"""

from __future__ import annotations

import time

from harness import FIXTURES, holds_for, wait_until

DASH = "\u2014"  # the em dash of the log texts
SAMPLE = (FIXTURES / "sample.pdf").read_bytes()


def refusal(address: str) -> str:
    return f"message from off-site page {address} {DASH} ignored"


def hello(account: str = "alice") -> dict:
    return {"post": {"action": "hello", "account": account}}


def nothing_was_accepted(home) -> bool:
    """No message got past the trust check: the dispatcher logs every
    accepted message as "message: ACTION"."""
    return not any(m.startswith("message:") for m in home.log_messages())


# --------------------------------------------------------------------------
# messages


def test_frame_of_another_origin_inside_a_site_page_is_refused(home, site, make_site, launch, agent):
    agent.install()
    framer = make_site("127.0.0.1")  # the same host on another port: another origin
    home.write_settings(AppURL=site.url)
    framed_address = framer.url + "/index.html?s=in-frame"
    site.vars["FRAME_URL"] = framed_address
    site.set_scenario([{"navigate": "/framed.html"}])
    framer.set_scenario([
        hello("mallory"),
        {"post": {"action": "runClaude", "turn": "frame-turn", "args": ["--from-frame"]}},
    ], name="in-frame")
    launch()
    top = site.wait_for_load("/framed.html")
    framer.wait_for_record("scenarioDone")

    # Two messages within a moment: one line for the page.
    home.wait_for_log(refusal(framed_address))
    assert holds_for(lambda: home.log_messages().count(refusal(framed_address)) == 1, 1.0), \
        home.log_messages()
    assert nothing_was_accepted(home), home.log_messages()
    assert not (home.path / "Documents" / "Orvane" / "mallory").exists()
    assert agent.runs() == []
    assert framer.events() == [] and site.events() == [], (framer.events(), site.events())

    # The page around the frame is the site: its hello counts, and the
    # frame's later messages are still refused, the held-back one counted.
    site.run_in_page([hello(), {"waitEvent": "claudeStatus"}], page=top.page)
    time.sleep(1.1)  # past the second in which refusals are held back
    framer.run_in_page([{"post": {"action": "runClaude", "turn": "t2", "args": []}}])
    home.wait_for_log(lambda m: m.startswith("bridge: ") and "more messages from off-site pages" in m)
    wait_until(lambda: home.log_messages().count(refusal(framed_address)) == 2,
               what=f"a second refusal; log: {home.log_messages()}")
    messages = home.log_messages()
    assert "bridge: 1 more messages from off-site pages ignored since the last line" in messages, messages
    assert [m for m in messages if m.startswith("message:")] == ["message: hello"], messages
    assert agent.runs() == []
    assert framer.events() == [], framer.events()
    assert [e["type"] for e in site.events(top.page)] == ["claudeStatus"], site.events()


def test_site_page_that_sends_the_view_to_another_port_loses_the_channel(home, site, make_site, launch):
    other = make_site("127.0.0.1")
    home.write_settings(AppURL=site.url)
    site.set_scenario([{"navigate": other.url + "/index.html"}])
    other.set_scenario([
        hello("mallory"),
        {"post": {"action": "openPdf", "id": "p1", "url": other.url + "/p1.pdf", "etag": "e"}},
        {"post": {"action": "spar", "id": "p1"}},
    ])
    orvane = launch()
    other.wait_for_load("/index.html")
    other.wait_for_record("scenarioDone")

    home.wait_for_log(refusal(other.url + "/index.html"))
    assert holds_for(lambda: nothing_was_accepted(home) and other.events() == [], 1.0), \
        (home.log_messages(), other.events())
    assert not (home.path / "Documents" / "Orvane" / "mallory").exists()
    assert other.requests("/p1.pdf") == []
    assert orvane.windows("sparring") == []


def test_blob_document_of_the_site_is_refused(home, site, launch, agent):
    agent.install()
    home.write_settings(AppURL=site.url)
    site.set_scenario([{"navigate": "/blob.html"}])
    launch()
    site.wait_for_load("/blob.html")
    posted = site.wait_for_record("mark", lambda r: r.page == "blob-document")
    assert posted.data == {"blobPosted": True}, posted
    assert posted.href.startswith("blob:" + site.url + "/"), posted.href

    home.wait_for_log(refusal(posted.href))
    assert holds_for(lambda: nothing_was_accepted(home), 1.0), home.log_messages()
    assert not (home.path / "Documents" / "Orvane" / "mallory").exists()
    assert agent.runs() == []
    assert site.events() == [], site.events()


# --------------------------------------------------------------------------
# events


def test_primary_page_that_leaves_the_site_hears_no_more_events(home, site, make_site, launch, tmp_path):
    foreign = make_site("127.0.0.1")
    home.write_settings(AppURL=site.url)
    site.set_scenario([hello(), {"waitEvent": "claudeStatus"},
                       {"navigate": foreign.url + "/index.html"}])
    site.set_scenario([hello()], name="landed")
    orvane = launch()
    away = foreign.wait_for_load("/index.html")
    first = site.loads()[0]
    assert [e["type"] for e in site.events(first.page)] == ["claudeStatus"]

    # An event while the primary page shows another site's document waits.
    drop = tmp_path / "dropped.pdf"
    drop.write_bytes(SAMPLE)
    assert orvane.run_again(str(drop)).returncode == 0
    home.wait_for_log("event dockDrop queued (no page yet)")
    assert holds_for(lambda: foreign.events() == [], 1.0), foreign.events()

    # Back on the site, a page that says hello gets it.
    foreign.run_in_page([{"navigate": site.url + "/landed.html"}], page=away.page)
    landed = site.wait_for_load("/landed.html")
    site.wait_for_events(lambda evs: any(e.get("type") == "claudeStatus" for e in site.events(landed.page)),
                         what="claudeStatus on the landed page")
    types = [e["type"] for e in site.events(landed.page)]
    assert types == ["dockDrop", "claudeStatus"], site.events()
    assert site.events(landed.page)[0]["name"] == "dropped.pdf"
    assert foreign.events() == [], foreign.events()


# --------------------------------------------------------------------------
# what leaves the program: links and pop-ups


def default_handler(home, scheme: str, calls_name: str) -> None:
    """A recording application as the home's default handler of a scheme, so
    that an address handed to the desktop would be seen."""
    desktop_id = home.add_recording_app(f"orvane-e2e-{calls_name}.desktop", calls_name,
                                        f"x-scheme-handler/{scheme};")
    mimeapps = home.path / ".config" / "mimeapps.list"
    text = mimeapps.read_text(encoding="utf-8")
    line = f"x-scheme-handler/{scheme}={desktop_id}\n"
    text = text.replace("[Default Applications]\n", "[Default Applications]\n" + line, 1)
    mimeapps.write_text(text, encoding="utf-8")


def test_links_and_pop_ups_of_other_schemes_open_nothing(home, site, launch):
    default_handler(home, "ftp", "ftp")
    default_handler(home, "orvane-e2e", "custom")
    local_page = "file://" + str(FIXTURES / "site" / "target.html")  # an HTML file: the browser's
    site.vars["FOREIGN_URL"] = "ftp://127.0.0.2/elsewhere.txt"
    site.vars["LOCAL_URL"] = "javascript:document.title='clicked'"
    site.vars["BLANK_URL"] = local_page
    site.vars["POPUP_URL"] = "orvane-e2e:run?what=anything"
    home.write_settings(AppURL=site.url)
    site.set_scenario([{"navigate": "/links.html"}])
    orvane = launch()
    page = site.wait_for_load("/links.html")
    win = orvane.wait_for_window("library")

    orvane.click_in_window(win, 550, 85)  # #foreign: a clicked link to ftp:
    orvane.click_in_window(win, 550, 275)  # #local: a clicked javascript: link
    orvane.click_in_window(win, 550, 465)  # #blank: a new window for a file: address
    orvane.click_in_window(win, 550, 655)  # #popup: window.open of a custom scheme
    clicks = wait_until(lambda: (lambda ids: ids if len(ids) == 4 else None)(
        [r.data["id"] for r in site.records("click") if r.page == page.page]), what="four clicks")
    assert clicks == ["foreign", "local", "blank", "popup"], clicks

    def nothing_launched():
        return home.browser_calls() == [] and home.calls("ftp") == [] and home.calls("custom") == []
    assert holds_for(nothing_launched, 1.5), (home.browser_calls(), home.calls("ftp"), home.calls("custom"))
    home.wait_for_log("web: link to ftp://127.0.0.2/elsewhere.txt not opened "
                      "(only http, https and mailto leave the program)")
    home.wait_for_log("web: pop-up to orvane-e2e:run?what=anything not opened "
                      "(only http, https and mailto leave the program)")
    # The page stays where it was, and nothing else was loaded.
    ack = site.run_in_page([{"mark": "still here"}], page=page.page)
    assert ack.href == site.url + "/links.html"
    assert orvane.windows() == [win]


def test_pop_up_without_a_user_gesture_opens_nothing(home, site, launch):
    home.write_settings(AppURL=site.url)
    unasked = site.url + "/landed.html?via=script"
    site.set_scenario([{"windowOpen": unasked}, {"mark": "opened"}])
    orvane = launch()
    site.wait_for_record("mark", lambda r: r.data == "opened")
    assert holds_for(lambda: home.browser_calls() == [], 1.5), home.browser_calls()
    home.wait_for_log(f"web: pop-up to {unasked} not opened (no user gesture)")
    assert site.requests("/landed.html") == []
    assert len(orvane.windows()) == 1


def test_pop_ups_opened_in_a_loop_are_logged_at_most_once_a_second(home, site, launch):
    home.write_settings(AppURL=site.url)
    unasked = site.url + "/landed.html?via=loop"
    site.set_scenario([{"windowOpen": unasked}] * 50 + [{"mark": "opened"}])
    orvane = launch()
    site.wait_for_record("mark", lambda r: r.data == "opened")
    line = f"web: pop-up to {unasked} not opened (no user gesture)"
    home.wait_for_log(line)
    assert holds_for(lambda: home.browser_calls() == [], 1.5), home.browser_calls()
    # Fifty attempts within moments: one line, and the program still answers.
    assert home.log_messages().count(line) <= 2, home.log_messages()
    assert len(orvane.windows()) == 1
