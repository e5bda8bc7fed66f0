"""The GNOME 45+ form of Orvane's extension loads as an ES module under
`gjs -m` (the way GNOME 45 and later load extensions), and its default
export is an extension class with enable() and disable(). The shell's own
modules (resource:///org/gnome/shell/...) exist only inside gnome-shell, so
the check maps those two imports to small stand-ins; gi:// imports (Meta,
Shell, St, Clutter) are the real libraries of this machine. The GNOME 43
form, which is not a module, fails the same check."""

from __future__ import annotations

import json
import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest

from sessions import default_gnome_extension_45_dir, default_gnome_extension_dir

MODULE_DIR = default_gnome_extension_45_dir()
LEGACY_DIR = default_gnome_extension_dir()
GJS = shutil.which("gjs")

STANDINS = {
    "resource:///org/gnome/shell/extensions/extension.js": """
export class Extension {
    constructor(metadata) {
        this.metadata = metadata;
        this.uuid = metadata.uuid;
        this.path = metadata.path;
    }
    getSettings() { throw new Error('not in this check'); }
}
""",
    "resource:///org/gnome/shell/ui/main.js": "export const layoutManager = null;\n",
}

CHECK = """
import OrvaneExtension from './extension.js';
import {Extension} from './standin-0.js';

const metadata = JSON.parse(new TextDecoder().decode(
    imports.gi.GLib.file_get_contents('./metadata.json')[1]));
metadata.path = imports.gi.GLib.get_current_dir();
if (typeof OrvaneExtension !== 'function')
    throw new Error('the default export is not a class');
const extension = new OrvaneExtension(metadata);
if (!(extension instanceof Extension))
    throw new Error('the default export does not extend Extension');
if (typeof extension.enable !== 'function' || typeof extension.disable !== 'function')
    throw new Error('no enable() or disable()');
print(`module ok: ${extension.uuid}`);
"""


def check_as_module(extension_dir: Path, work: Path) -> subprocess.CompletedProcess:
    shutil.copytree(extension_dir, work)
    source = (work / "extension.js").read_text(encoding="utf-8")
    for n, (specifier, text) in enumerate(STANDINS.items()):
        (work / f"standin-{n}.js").write_text(text, encoding="utf-8")
        source = source.replace(f"'{specifier}'", f"'./standin-{n}.js'")
    leftover = re.findall(r"'resource:///[^']*'", source)
    assert not leftover, f"imports of the shell this check does not stand in for: {leftover}"
    (work / "extension.js").write_text(source, encoding="utf-8")
    (work / "check.js").write_text(CHECK, encoding="utf-8")
    env = dict(os.environ)
    env["GI_TYPELIB_PATH"] = "/usr/lib/x86_64-linux-gnu/mutter-11:/usr/lib/gnome-shell"
    env["LD_LIBRARY_PATH"] = "/usr/lib/x86_64-linux-gnu/mutter-11:/usr/lib/gnome-shell"
    return subprocess.run([GJS, "-m", "check.js"], cwd=work, env=env, capture_output=True,
                          text=True, timeout=60)


@pytest.mark.skipif(GJS is None, reason="gjs is not installed (scripts/install-deps.sh)")
def test_the_gnome_45_form_loads_as_an_es_module(tmp_path):
    metadata = json.loads((MODULE_DIR / "metadata.json").read_text())
    assert metadata["shell-version"] == ["45", "46", "47", "48"]
    result = check_as_module(MODULE_DIR, tmp_path / "module")
    assert result.returncode == 0, result.stderr
    assert result.stdout.strip() == "module ok: orvane@tarnwick.com"


@pytest.mark.skipif(GJS is None, reason="gjs is not installed (scripts/install-deps.sh)")
def test_the_gnome_43_form_is_no_module_and_fails_the_same_check(tmp_path):
    metadata = json.loads((LEGACY_DIR / "metadata.json").read_text())
    assert metadata["shell-version"] == ["43", "44"]
    result = check_as_module(LEGACY_DIR, tmp_path / "legacy")
    assert result.returncode != 0
    assert "module ok" not in result.stdout
