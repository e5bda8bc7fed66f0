#!/usr/bin/python3
"""Drive the site's pages in a real WebKitGTK web view, playing Orvane's part.

The host does what Orvane's web views do for a page: it injects
window.panelCaps at document start, receives the "panel" script messages,
and delivers events by evaluating "window.panelEvent && window.panelEvent(<json>)".
Uploads that a page asks for are carried out over HTTP the way Orvane
sends them (PUT, "x-upsert: true" for library PDFs). Each scenario checks
what the page posts and shows, and fails with an AssertionError.

Run under an X server, for example:
    dbus-run-session -- xvfb-run -a /usr/bin/python3 webkit_host.py BASE_URL SHOT_DIR [SCENARIO...]
Prints "ok <scenario>" per passed scenario; exits non-zero on the first failure.
"""

from __future__ import annotations

import json
import os
import sys
import time
import urllib.request
from pathlib import Path

import gi

gi.require_version("Gtk", "3.0")
gi.require_version("WebKit2", "4.1")
from gi.repository import GLib, Gtk, WebKit2  # noqa: E402

try:
    # Snapshots come back as cairo surfaces; without python3-gi-cairo there
    # are no screenshots, but every check still runs.
    gi.require_foreign("cairo")
    CAN_SNAPSHOT = True
except ImportError:
    CAN_SNAPSHOT = False

CAPS = ("window.panelCaps = {localPdfs: true, hotkey: true, dockDrop: true, "
        "claude: %s, version: '1.0', build: '202609041642-2f73f25', release: %s};")


def pump_until(condition, timeout=10.0, what="condition"):
    deadline = time.monotonic() + timeout
    context = GLib.MainContext.default()
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"timed out waiting for {what}")
        if not context.iteration(False):
            time.sleep(0.01)


class Host:
    def __init__(self, in_orvane=True, claude="/home/demo/.local/bin/claude", size=(1100, 760), release=None):
        self.messages: list[dict] = []
        manager = WebKit2.UserContentManager()
        if in_orvane:
            manager.connect("script-message-received::panel", self._on_message)
            manager.register_script_message_handler("panel")
            script = CAPS % (json.dumps(claude), json.dumps(release))
            manager.add_script(WebKit2.UserScript.new(
                script, WebKit2.UserContentInjectedFrames.TOP_FRAME,
                WebKit2.UserScriptInjectionTime.START, None, None))
        # A private, in-memory data store: localStorage from an earlier run
        # (a saved conversation, say) must not leak into this one.
        context = WebKit2.WebContext.new_with_website_data_manager(WebKit2.WebsiteDataManager.new_ephemeral())
        self.view = WebKit2.WebView(web_context=context, user_content_manager=manager)
        self.window = Gtk.Window()
        self.window.set_default_size(*size)
        self.window.add(self.view)
        self.window.show_all()
        self._loaded = False
        self.view.connect("load-changed", self._on_load)

    def _on_message(self, _manager, result):
        value = result.get_js_value() if hasattr(result, "get_js_value") else result
        self.messages.append(json.loads(value.to_json(0)))

    def _on_load(self, _view, event):
        if event == WebKit2.LoadEvent.FINISHED:
            self._loaded = True

    def load(self, url):
        self._loaded = False
        self.messages.clear()
        self.view.load_uri(url)
        pump_until(lambda: self._loaded, what=f"load of {url}")

    def js(self, script):
        box = {}

        def done(view, result):
            try:
                value = view.evaluate_javascript_finish(result)
                text = value.to_json(0)
                box["value"] = json.loads(text) if text not in (None, "undefined") else None
            except GLib.Error as err:
                box["error"] = err.message

        self.view.evaluate_javascript(script, -1, None, None, None, done)
        pump_until(lambda: box, what=f"script {script[:60]}")
        if "error" in box:
            raise AssertionError(f"script failed: {box['error']}\n{script}")
        return box["value"]

    def event(self, event: dict):
        """Deliver an event exactly as Orvane does."""
        self.js("window.panelEvent && window.panelEvent(%s)" % json.dumps(event))

    def wait_message(self, action, where=lambda m: True, timeout=10.0):
        def found():
            for message in self.messages:
                if message.get("action") == action and where(message):
                    return message
            return None
        return pump_until(found, timeout, what=f'"{action}" message')

    def wait_js(self, expression, timeout=10.0):
        return pump_until(lambda: self.js(f"Boolean({expression})"), timeout, what=expression)

    def text(self, selector):
        return self.js(f"(document.querySelector({json.dumps(selector)}) || {{}}).innerText || ''")

    def click(self, selector):
        ok = self.js(f"(() => {{ const e = document.querySelector({json.dumps(selector)});"
                     f" if (!e) return false; e.click(); return true; }})()")
        assert ok, f"nothing to click at {selector}"

    def settle(self, seconds=0.3):
        end = time.monotonic() + seconds
        pump_until(lambda: time.monotonic() > end, seconds + 1)

    def snapshot(self, path: Path):
        if not CAN_SNAPSHOT:
            return
        box = {}

        def done(view, result):
            box["surface"] = view.get_snapshot_finish(result)

        self.view.get_snapshot(WebKit2.SnapshotRegion.VISIBLE, WebKit2.SnapshotOptions.NONE, None, done)
        pump_until(lambda: box, what="snapshot")
        box["surface"].write_to_png(str(path))

    def close(self):
        self.window.destroy()


def http(method, url, body=None, headers=None):
    req = urllib.request.Request(url, data=body, method=method, headers=headers or {})
    try:
        with urllib.request.urlopen(req, timeout=20) as resp:
            return resp.status, resp.read()
    except urllib.error.HTTPError as err:
        return err.code, err.read()


def papers(base):
    return {p["id"]: p for p in json.loads(http("GET", base + "/api/papers")[1])}


# ----- scenarios -------------------------------------------------------------------------


def library(base, shots):
    host = Host()
    host.load(base + "/")
    hello = host.wait_message("hello")
    assert hello == {"action": "hello", "account": "demo"}, hello
    host.wait_js("document.querySelectorAll('li.paper').length >= 8")
    assert "Orvane 1.0" in host.text("#status") and "Agent ready" in host.text("#status")

    # Open: posts id, absolute url and etag from the listing.
    listed = papers(base)
    host.click('li.paper[data-id="cs/0101123"] .actions button')
    opened = host.wait_message("openPdf")
    paper = listed["cs/0101123"]
    assert opened == {"action": "openPdf", "id": "cs/0101123", "url": paper["pdf_url"], "etag": paper["etag"]}, opened
    host.event({"type": "pdfOpened", "id": "cs/0101123"})
    host.wait_js("document.querySelector('li.paper[data-id=\"cs/0101123\"]').innerText.includes('Opened')")

    # Reveal, Split, Spar.
    host.click('li.paper[data-id="cs/0101123"] .actions button:nth-child(2)')
    assert host.wait_message("revealPdf")["etag"] == paper["etag"]
    host.click('li.paper[data-id="cs/0101123"] .actions button:nth-child(3)')
    split = host.wait_message("previewSplit")
    assert split == {"action": "previewSplit", "id": "cs/0101123", "url": paper["pdf_url"], "etag": paper["etag"]}
    host.click('li.paper[data-id="cs/0101123"] .actions button:nth-child(4)')
    assert host.wait_message("spar") == {"action": "spar", "id": "cs/0101123"}

    # Every paper offers "Read beside the chat", and each sends its own
    # paper's id, address and etag with "previewSplit".
    host.messages.clear()
    offers = host.js("Array.from(document.querySelectorAll('li.paper')).map((row) => [row.dataset.id,"
                     " Array.from(row.querySelectorAll('.actions button'))"
                     ".filter((b) => b.innerText.trim() === 'Read beside the chat').length])")
    assert sorted(offers) == sorted([paper_id, 1] for paper_id in listed), offers
    host.js("document.querySelectorAll('li.paper').forEach((row) => Array.from("
            "row.querySelectorAll('.actions button')).find((b) => b.innerText.trim() === 'Read beside the chat')"
            ".click())")
    pump_until(lambda: len(host.messages) >= len(listed), what="a previewSplit per paper")
    assert sorted((m for m in host.messages), key=lambda m: m["id"]) == sorted(
        ({"action": "previewSplit", "id": p["id"], "url": p["pdf_url"], "etag": p["etag"]}
         for p in listed.values()), key=lambda m: m["id"]), host.messages

    # Drag handle: dragstart posts dragPdf.
    host.js("document.querySelector('li.paper[data-id=\"2401.01234\"] .drag-handle')"
            ".dispatchEvent(new DragEvent('dragstart', {bubbles: true, cancelable: true}))")
    assert host.wait_message("dragPdf") == {"action": "dragPdf", "id": "2401.01234"}
    host.event({"type": "pdfNotReady", "id": "2401.01234"})
    host.wait_js("document.querySelector('li.paper[data-id=\"2401.01234\"]').innerText.includes('not on this computer')")

    # A local edit: pdfChanged -> uploadFile -> (Orvane uploads) -> uploaded -> markSynced.
    host.event({"type": "pdfChanged", "id": "cs/0101123", "mtime": 1767000000.25, "size": 40000})
    upload = host.wait_message("uploadFile")
    assert upload["id"] == "cs/0101123" and upload["upload_url"] == paper["upload_url"] and upload["token"]
    host.wait_js("document.querySelector('li.paper[data-id=\"cs/0101123\"]').innerText.includes('Uploading')")
    pdf = http("GET", paper["pdf_url"])[1] + b"\n% edited in the viewer\n"
    status, body = http("PUT", upload["upload_url"], pdf, {"Content-Type": "application/pdf", "x-upsert": "true"})
    assert status == 200, (status, body)
    new_etag = json.loads(body)["etag"]
    host.event({"type": "uploaded", "id": "cs/0101123", "token": upload["token"], "ok": True,
                "mtime": 1767000000.25, "error": ""})
    synced = host.wait_message("markSynced")
    assert synced == {"action": "markSynced", "id": "cs/0101123", "etag": new_etag, "mtime": 1767000000.25}, synced
    host.wait_js("document.querySelector('li.paper[data-id=\"cs/0101123\"] .badge.ok')")

    # A failed upload shows its error and offers another try.
    host.event({"type": "pdfChanged", "id": "2310.04567", "mtime": 5.0, "size": 10})
    failing = host.wait_message("uploadFile", lambda m: m["id"] == "2310.04567")
    host.event({"type": "uploaded", "id": "2310.04567", "token": failing["token"], "ok": False, "mtime": 5.0,
                "error": "HTTP 413: too big"})
    host.wait_js("document.querySelector('li.paper[data-id=\"2310.04567\"]').innerText.includes('HTTP 413: too big')")

    # A Dock drop: offered, put in the inbox on request, then listed.
    host.event({"type": "dockDrop", "token": "0F8E3C1A-0000-4000-8000-000000000001", "name": "Dropped draft.pdf",
                "size": 38000})
    host.wait_js("document.querySelector('#inbox') && !document.querySelector('#inbox').hidden")
    host.click("#inbox .drop button.primary")
    inbox = host.wait_message("inboxUpload")
    assert inbox["token"] == "0F8E3C1A-0000-4000-8000-000000000001"
    assert inbox["upload_url"] == base + "/api/inbox/Dropped%20draft.pdf", inbox
    status, _ = http("PUT", inbox["upload_url"], pdf, {"Content-Type": "application/pdf"})
    assert status == 201
    host.event({"type": "inboxUploaded", "token": inbox["token"], "ok": True, "name": "Dropped draft.pdf", "error": ""})
    host.wait_js("document.querySelector('#inbox').innerText.includes('received')")

    # A quote from a library PDF shows on its paper with its page.
    host.event({"type": "friendQuote", "id": "math/0211045", "text": "the exponent is minus one", "page": 2})
    host.wait_js("document.querySelector('li.paper[data-id=\"math/0211045\"] .quote-card')")
    card = host.text('li.paper[data-id="math/0211045"] .quote-card')
    assert "the exponent is minus one" in card and "page 2" in card, card

    # An error event becomes a visible notice; update progress a banner.
    host.event({"type": "error", "id": "", "message": "Quotes are sent from a library PDF, the front window isn't one."})
    host.wait_js("document.querySelector('#notices').innerText.includes('front window')")
    host.event({"type": "updateProgress", "stage": "checking signature"})
    host.wait_js("document.querySelector('#update-banner').innerText.includes('checking signature')")
    host.event({"type": "claudeStatus", "path": "", "sparRoot": "/tmp/x/.spar"})
    host.wait_js("document.querySelector('#status').innerText.includes('No agent')")

    # Search goes to the server and filters the list.
    search = "{ const q = document.getElementById('quick-search'); q.value = %s; q.dispatchEvent(new Event('input')); }"
    host.js(search % json.dumps("interferometer"))
    host.wait_js("document.querySelectorAll('li.paper').length === 1")
    assert "Thermal Drift" in host.text("li.paper")
    host.js(search % json.dumps(""))
    host.wait_js("document.querySelectorAll('li.paper').length >= 8")
    host.event({"type": "updateDone", "ok": False, "error": "the download held no app"})
    host.settle(0.5)
    host.snapshot(shots / "library.png")
    host.close()


def quick_panel(base, shots):
    host = Host(size=(560, 680))
    passage = "Hence some operation completes within a bounded number of steps of the whole system"
    host.load(base + "/?add=" + urllib.request.quote(passage, safe=""))
    host.wait_message("hello")
    assert host.js("document.getElementById('quick-search') !== null")
    host.wait_js("document.querySelector('#add-card .suggestion button')")
    assert passage in host.text("#add-card blockquote")
    assert "A Lock-Free Skip List" in host.text("#add-card .suggestion")
    host.settle(0.3)
    host.snapshot(shots / "quick-panel-add.png")
    host.js("document.getElementById('note-comment').value = 'the progress argument'")
    host.click("#add-card .suggestion button")
    host.wait_js("document.querySelector('#add-card').innerText.includes('Note added')")
    notes = papers(base)["cs/0101123"]["notes"]
    assert any(n["text"] == passage and n["comment"] == "the progress argument" for n in notes), notes
    host.click("#add-card button.primary")
    assert host.wait_message("close") == {"action": "close"}
    host.close()

    # A hostile passage (markup, a script, 30,000 more characters) is shown
    # as text and runs nothing; the site keeps notes of at most 20,000
    # characters, and the page says why it could not keep this one.
    script_like = '<img src=x onerror="window.__pwned=1"><script>window.__pwned=2</script>&amp; \u00e9 "q"'
    huge = script_like + "x" * 30000
    chosen = 'li.paper[data-id="2401.01234"] .actions button.primary'
    host = Host(size=(560, 680))
    host.load(base + "/?add=" + urllib.request.quote(huge, safe=""))
    host.wait_message("hello")
    host.wait_js("document.querySelector('#add-card blockquote')")
    assert host.js("document.querySelector('#add-card blockquote').textContent") == huge
    assert host.js("document.querySelectorAll('#add-card img, #add-card script').length") == 0
    host.wait_js(f"document.querySelector({json.dumps(chosen)})")
    host.click(chosen)
    host.wait_js("document.getElementById('notices').innerText.includes('could not be saved')")
    assert papers(base)["2401.01234"]["notes"] == []
    host.close()

    # Within the limit, any paper of the list can take it with "Add here".
    host = Host(size=(560, 680))
    host.load(base + "/?add=" + urllib.request.quote(script_like, safe=""))
    host.wait_message("hello")
    host.wait_js(f"document.querySelector({json.dumps(chosen)})")
    assert host.text(chosen) == "Add here"
    assert host.js("document.querySelector('#add-card blockquote').textContent") == script_like
    host.click(chosen)
    host.wait_js("document.querySelector('#add-card').innerText.includes('Note added')")
    assert host.js("typeof window.__pwned") == "undefined"
    notes = papers(base)["2401.01234"]["notes"]
    assert [(n["text"], n["source"]) for n in notes] == [(script_like, "panel")], notes
    host.close()


def sparring(base, shots):
    host = Host()
    paper = papers(base)["cs/0101123"]
    host.load(base + "/?sparwin=1#spar/cs/0101123")
    host.wait_message("hello")
    host.wait_js("document.getElementById('paper-title').innerText.includes('Lock-Free')")

    host.js("document.getElementById('message').value = 'What does bounded helping bound?'")
    host.click("#send")
    first = host.wait_message("runClaude")
    assert first["args"] == ["-p", "--output-format", "stream-json", "--verbose"], first["args"]
    assert first["files"] == [{"name": "paper.txt", "url": paper["text_url"]}], first["files"]
    assert first["text_file"] == "paper.txt"
    assert "A Lock-Free Skip List with Bounded Helping" in first["prompt_head"]
    assert first["prompt_tail"] == "What does bounded helping bound?"
    turn = first["turn"]
    assert turn
    lines = [
        {"type": "system", "subtype": "init", "session_id": "6f1c0d2e-sess", "model": "claude-test"},
        {"type": "assistant", "message": {"content": [{"type": "text", "text": "It bounds foreign repair work."}]}},
        {"type": "assistant", "message": {"content": [{"type": "tool_use", "id": "tu_1", "name": "Grep",
                                                        "input": {"pattern": "help counter"}}]}},
        {"type": "user", "message": {"content": [{"type": "tool_result", "tool_use_id": "tu_1", "content": "1 line"}]}},
        {"type": "result", "subtype": "success", "is_error": False, "result": "It bounds foreign repair work.",
         "session_id": "6f1c0d2e-sess", "duration_ms": 2300},
    ]
    host.wait_js("document.getElementById('stop') && !document.getElementById('stop').hidden")
    for line in lines[:2]:
        host.event({"type": "claudeLine", "turn": turn, "line": json.dumps(line)})
    host.wait_js("document.getElementById('transcript').innerText.includes('foreign repair work')")
    host.event({"type": "claudeLine", "turn": turn, "line": "not json at all"})
    for line in lines[2:]:
        host.event({"type": "claudeLine", "turn": turn, "line": json.dumps(line)})
    host.event({"type": "claudeDone", "turn": turn, "code": 0, "stderr": ""})
    host.wait_js("document.getElementById('stop').hidden")
    transcript = host.text("#transcript")
    assert "Grep" in transcript and "help counter" in transcript and "not json at all" in transcript, transcript

    # The second turn resumes the session and sends only the message.
    host.js("document.getElementById('message').value = 'And the latency tail?'")
    host.click("#send")
    second = host.wait_message("runClaude", lambda m: m["turn"] != turn)
    assert second["args"] == ["-p", "--output-format", "stream-json", "--verbose", "--resume", "6f1c0d2e-sess"]
    assert "text_file" not in second and second["prompt_tail"] == "And the latency tail?"
    host.click("#stop")
    assert host.wait_message("stopClaude") == {"action": "stopClaude", "turn": second["turn"]}
    host.event({"type": "claudeDone", "turn": second["turn"], "code": 15, "stderr": ""})
    host.wait_js("document.getElementById('transcript').innerText.includes('Stopped.')")

    # A failing turn shows its code and stderr.
    host.js("document.getElementById('message').value = 'Once more'")
    host.click("#send")
    third = host.wait_message("runClaude", lambda m: m["turn"] not in (turn, second["turn"]))
    host.event({"type": "claudeDone", "turn": third["turn"], "code": 127,
                "stderr": "Claude Code is not installed on this Mac"})
    host.wait_js("document.getElementById('transcript').innerText.includes('code 127')")
    assert "Claude Code is not installed" in host.text("#transcript")

    # Quotes land in the message box, as Orvane hands them over.
    host.js("window.sparQuote && window.sparQuote(%s[0])" % json.dumps(["a marked node at level zero"]))
    assert host.js("document.getElementById('message').value").startswith("> a marked node at level zero")
    # Each line of a quote becomes a "> " line after what the user had typed;
    # markup in it stays text in the message box.
    host.js("document.getElementById('message').value = 'My question'")
    host.js("document.getElementById('message').setSelectionRange(11, 11)")
    hostile = "first <script>window.__pwned=3</script>\nsecond line"
    host.js("window.sparQuote && window.sparQuote(%s[0])" % json.dumps([hostile]))
    assert host.js("document.getElementById('message').value") == \
        "My question\n\n> first <script>window.__pwned=3</script>\n> second line\n\n"
    assert host.js("typeof window.__pwned") == "undefined"
    assert host.js("document.activeElement.id") == "message"

    host.click("#split")
    split = host.wait_message("previewSplit")
    assert split == {"action": "previewSplit", "id": "cs/0101123", "url": paper["pdf_url"], "etag": paper["etag"]}
    host.settle(0.3)
    host.snapshot(shots / "sparring.png")
    host.click("#close-spar")
    assert host.wait_message("closeSpar") == {"action": "closeSpar"}

    # Reopening the page keeps the conversation (and its session).
    host.load(base + "/?sparwin=1#spar/cs/0101123")
    host.wait_message("hello")
    host.wait_js("document.getElementById('transcript').innerText.includes('foreign repair work')")
    host.close()


def update_offer(base, shots):
    """The site offers 1.5.0 (the test put it there); this copy runs 1.4.0."""
    offer = json.loads(http("GET", base + "/api/update")[1])
    assert offer["version"] == "1.5.0", offer
    host = Host(release="1.4.0")
    host.load(base + "/")
    host.wait_message("hello")
    host.wait_js("!document.getElementById('update-banner').hidden")
    assert host.text("#update-banner") == "Update available: 1.5.0"
    box = host.js("(() => { const r = document.getElementById('update-banner').getBoundingClientRect();"
                  " return [r.top, r.left, r.width, r.height, window.innerWidth,"
                  " getComputedStyle(document.getElementById('update-banner')).position,"
                  " document.getElementById('update-banner').tagName]; })()")
    top, left, width, height, inner, position, tag = box
    assert (top, left, position, tag) == (0, 0, "fixed", "BUTTON") and width == inner and height >= 36, box
    host.settle(0.3)
    host.snapshot(shots / "update-offer.png")
    host.click("#update-banner")
    assert host.wait_message("updateApp") == {"action": "updateApp", "url": offer["url"]}
    assert host.js("document.getElementById('update-banner').disabled") is True
    for stage in ["downloading", "unpacking", "checking signature", "installing"]:
        host.event({"type": "updateProgress", "stage": stage})
        host.wait_js("document.getElementById('update-banner').innerText.includes(%s)" % json.dumps(stage))
    host.event({"type": "updateDone", "ok": False, "error": "the downloaded app is not signed like this one (code 1)"})
    host.wait_js("document.getElementById('update-banner').innerText.includes('not signed like this one (code 1)')")
    assert host.js("document.getElementById('update-banner').disabled") is False
    host.messages.clear()
    host.click("#update-banner")
    assert host.wait_message("updateApp") == {"action": "updateApp", "url": offer["url"]}
    host.event({"type": "updateDone", "ok": True})
    host.wait_js("document.getElementById('update-banner').innerText.includes('Installed, restarting')")
    # The rest of the page still works.
    host.event({"type": "pdfOpened", "id": "cs/0101123"})
    host.wait_js("document.querySelector('li.paper[data-id=\"cs/0101123\"]').innerText.includes('Opened')")
    host.close()


def update_hidden(base, shots):
    """No banner for the running release itself, for a build-tree run, or in a browser."""
    for host in [Host(release="1.5.0"), Host(release=None), Host(in_orvane=False)]:
        host.load(base + "/")
        host.wait_js("document.querySelectorAll('li.paper').length >= 8")
        host.settle(0.5)
        assert host.js("document.getElementById('update-banner').hidden") is True
        host.close()


def browser(base, shots):
    host = Host(in_orvane=False)
    host.load(base + "/")
    host.wait_js("document.querySelectorAll('li.paper').length >= 8")
    assert host.js("document.getElementById('update-banner').hidden") is True
    note = host.text("#browser-note")
    assert "Orvane" in note and "local files" in note, note
    assert host.js("document.querySelector('li.paper .actions a.button').href.endsWith('/pdf')")
    host.snapshot(shots / "library-browser.png")
    host.load(base + "/?sparwin=1#spar/2401.01234")
    host.wait_js("document.getElementById('transcript').innerText.includes('needs the Orvane desktop app')")
    assert host.js("document.getElementById('send').disabled")
    host.close()


SCENARIOS = {"library": library, "quick_panel": quick_panel, "sparring": sparring, "browser": browser,
             "update_offer": update_offer, "update_hidden": update_hidden}


def main(argv):
    base, shots = argv[1].rstrip("/"), Path(argv[2])
    if os.environ.get("ORVANE_HOST_DARK"):
        # WebKitGTK answers prefers-color-scheme from the GTK theme preference.
        Gtk.Settings.get_default().props.gtk_application_prefer_dark_theme = True
    shots.mkdir(parents=True, exist_ok=True)
    for name in argv[3:] or list(SCENARIOS):
        SCENARIOS[name](base, shots)
        print(f"ok {name}", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
