"""The pages: served at their addresses, using the bridge client, scripts that parse."""

from __future__ import annotations

import re
import shutil
import subprocess

import pytest

from conftest import SITE

STATIC = SITE / "static"
JS_FILES = sorted([STATIC / "orvane-bridge.js", *(STATIC / "js").glob("*.js")])


def page(server, path: str) -> str:
    status, headers, body = server.request("GET", path)
    assert status == 200
    assert headers["Content-Type"].startswith("text/html")
    return body.decode("utf-8")


def test_library_page_has_the_search_field_and_the_bridge(server):
    html = page(server, "/")
    assert 'src="/static/orvane-bridge.js"' in html
    assert 'id="quick-search"' in html
    assert "/static/js/library.js" in html


def test_quick_panel_with_add_is_the_library_page(server):
    html = page(server, "/?add=a%20passage%20%26%20more")
    assert 'id="quick-search"' in html
    assert 'src="/static/orvane-bridge.js"' in html
    assert "/static/js/library.js" in html


def test_sparring_page_is_served_for_sparwin(server):
    html = page(server, "/?sparwin=1")
    assert 'src="/static/orvane-bridge.js"' in html
    assert "/static/js/spar.js" in html
    assert "/static/js/stream.js" in html
    assert 'id="quick-search"' not in html


@pytest.mark.parametrize("path", ["/", "/?sparwin=1"])
def test_everything_a_page_links_to_is_served(server, path):
    html = page(server, path)
    links = re.findall(r'(?:src|href)="(/[^"]*)"', html)
    assert len(links) >= 4
    for link in links:
        status, _, body = server.request("GET", link)
        assert status == 200, link
        assert body, link
    css = server.request("GET", "/static/css/app.css")[2].decode()
    for ref in re.findall(r"url\('([^']+)'\)", css):
        assert server.request("GET", "/static/css/" + ref)[0] == 200, ref


def test_pages_load_nothing_from_other_hosts():
    for file in [*(SITE / "pages").glob("*.html"), STATIC / "css" / "app.css", *JS_FILES]:
        text = file.read_text()
        assert not re.search(r"(src|href)=\"(https?:)?//", text), file
        assert not re.search(r"url\(['\"]?(https?:)?//", text), file
        assert not re.search(r"fetch\(['\"`]https?://", text), file


@pytest.mark.skipif(shutil.which("node") is None, reason="node is not installed")
@pytest.mark.parametrize("script", JS_FILES, ids=lambda p: p.name)
def test_javascript_parses(script):
    done = subprocess.run(["node", "--check", str(script)], capture_output=True, text=True)
    assert done.returncode == 0, done.stderr


@pytest.mark.skipif(shutil.which("node") is None, reason="node is not installed")
def test_javascript_units():
    tests = sorted(str(p) for p in (SITE / "tests" / "js").glob("*.test.js"))
    assert tests
    done = subprocess.run(["node", "--test", *tests], capture_output=True, text=True)
    assert done.returncode == 0, done.stdout + done.stderr
    # node's reporter ends with a summary; every test must have passed.
    assert re.search(r"# fail 0", done.stdout), done.stdout
    assert not re.search(r"# pass 0\b", done.stdout), done.stdout


def test_pages_forbid_other_origins_and_revalidate(server):
    for path in ("/", "/?sparwin=1"):
        status, headers, _ = server.request("GET", path)
        assert status == 200
        assert "default-src 'self'" in headers["Content-Security-Policy"]
        assert headers["Cache-Control"] == "no-cache"
