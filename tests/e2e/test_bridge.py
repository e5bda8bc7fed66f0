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
