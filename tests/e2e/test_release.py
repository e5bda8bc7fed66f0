"""End-to-end checks of a release: scripts/make-release.sh with a throwaway
key makes a zip and a Debian package of the same signed install folder; the
unzipped folder verifies with its own orvane-sign, works after being moved
(the program finds its bundled site beside itself, the site's venv runs from
there) and tampering is caught with the documented codes.

The release is made once for the session (the `release` fixture, shared with
the update tests) from the existing build/; the script builds only when
build/ holds no program.
"""

from __future__ import annotations

import hashlib
import json
import os
import re
import shutil
import stat
import subprocess
import urllib.request
from pathlib import Path

import pytest

from harness import (
    RELEASE_VERSION,
    REPO_ROOT,
    SIGN_TOOL,
    DevProject,
    Orvane,
    folder_snapshot,
    free_port,
    new_key,
    pid_alive,
    port_is_free,
    run,
    sign_as_other_app,
    sign_folder,
    terminate_pids,
    unzip_release,
    wait_until,
)

VERSION = RELEASE_VERSION


def listing(folder: Path) -> dict[str, str]:
    """Every file and link under folder: path -> 'file MODE' or 'link TARGET'."""
    return {path: ("file %o" % mode if kind == "file" else "link " + target)
            for path, (kind, mode, target) in folder_snapshot(folder).items()
            if kind in ("file", "link")}


@pytest.fixture
def unzipped(release, tmp_path):
    """A fresh copy of the release, unzipped into this test's folder."""
    return unzip_release(release["zip"], tmp_path / "unpacked")


def verify(folder: Path, tool: Path | None = None) -> subprocess.CompletedProcess:
    return run(tool or (folder / "bin" / "orvane-sign"), "verify", folder)


def elf_files(folder: Path) -> list[str]:
    """The ELF files under folder (links not followed), relative, sorted."""
    found = []
    for path in sorted(folder.rglob("*")):
        if path.is_file() and not path.is_symlink():
            with open(path, "rb") as f:
                if f.read(4) == b"\x7fELF":
                    found.append(str(path.relative_to(folder)))
    return found


def needed_libraries(binary: Path) -> list[str]:
    """The NEEDED entries of an ELF file's dynamic section (objdump -p)."""
    out = run("objdump", "-p", binary)
    assert out.returncode == 0, out.stderr
    return [line.split()[1] for line in out.stdout.splitlines() if line.strip().startswith("NEEDED")]


def library_paths() -> dict[str, str]:
    """This machine's x86-64 libraries by soname, as the loader finds them."""
    paths: dict[str, str] = {}
    for line in run("/sbin/ldconfig", "-p").stdout.splitlines()[1:]:
        name, _, rest = line.strip().partition(" (")
        if "x86-64" in rest.split(")")[0] and " => " in rest:
            paths.setdefault(name, rest.split(" => ", 1)[1])
    return paths


def owning_package(path: str) -> str:
    """The Debian package that installed path (dpkg -S), architecture
    qualifier dropped; the path is tried as given and resolved."""
    for candidate in dict.fromkeys([path, os.path.realpath(path),
                                    re.sub(r"^/usr/lib/", "/lib/", os.path.realpath(path))]):
        out = run("dpkg", "-S", candidate)
        for line in out.stdout.splitlines():
            if line.startswith("diversion ") or ": " not in line:
                continue
            owners, _, listed = line.partition(": ")
            if listed == candidate:
                return owners.split(",")[0].strip().split(":")[0]
    raise AssertionError(f"no Debian package holds {path}")


def dependency_closure(roots: list[str]) -> set[str]:
    """The roots, every package they depend on (Depends and Pre-Depends,
    every alternative, providers of virtual packages), recursively, as
    apt-cache sees them on this machine, and the Essential packages, which
    every Debian system has."""
    out = run("apt-cache", "depends", "--recurse", "--no-recommends", "--no-suggests",
              "--no-conflicts", "--no-breaks", "--no-replaces", "--no-enhances", *roots)
    assert out.returncode == 0, out.stderr
    names = set(roots)
    for line in out.stdout.splitlines():
        word = line.split(":", 1)[-1].strip() if ":" in line and line.startswith(" ") else line.strip()
        names.add(word.strip("<>").split(":")[0])
    essential = run("dpkg-query", "-W", "-f=${Package} ${Essential}\n").stdout.splitlines()
    names.update(line.split()[0] for line in essential if line.endswith(" yes"))
    return names


def program_needs(folder: Path) -> dict[str, str]:
    """What the program in the folder needs from the system, each with the
    package that provides it here: the libraries that every ELF file in it
    names (NEEDED), the interpreters its scripts run (#! lines and exec'd
    absolute paths: the bundled site's python3) with their own libraries,
    and the Python modules the site imports."""
    libraries = library_paths()
    paths: dict[str, str] = {}
    binaries = [folder / name for name in elf_files(folder)]
    for script in folder.rglob("*"):
        if not script.is_file() or script.is_symlink() or not os.access(script, os.X_OK):
            continue
        head = script.read_bytes()[:4096]
        if not head.startswith(b"#!"):
            continue
        text = head.decode(errors="replace")
        for program in re.findall(r"^#!\s*(/\S+)|\bexec\s+(/\S+)", text, re.M):
            program = next(p for p in program if p)
            paths[program] = owning_package(program)
            binaries.append(Path(os.path.realpath(program)))
    for binary in binaries:
        for soname in needed_libraries(binary):
            assert soname in libraries, f"{binary} needs {soname}, which this machine lacks"
            paths[soname] = owning_package(libraries[soname])
    modules = run("/usr/bin/python3", "-c", "import fastapi, uvicorn, cairo, multipart, pydantic\n"
                  "for m in (fastapi, uvicorn, cairo, multipart, pydantic): print(m.__file__)")
    assert modules.returncode == 0, modules.stderr
    for path in modules.stdout.split():
        paths[path] = owning_package(path)
    return paths


def apt_get_install_line(readme: str) -> list[str]:
    """The package names of the one `sudo apt-get install` command of the
    release notes."""
    lines = [line.strip() for line in readme.splitlines()
             if line.strip().startswith("sudo apt-get install ") and ".deb" not in line]
    assert len(lines) == 1, lines
    names = lines[0].split()[3:]
    assert names and all(re.fullmatch(r"[a-z0-9][a-z0-9.+-]+", n) for n in names), names
    return names


# --------------------------------------------------------------------------
# the key


def test_keygen_writes_a_private_secret_key_and_a_base64_public_key(release):
    keys = release["keys"]
    secret = keys / "orvane-update.key"
    public = keys / "orvane-update.pub"
    assert stat.S_IMODE(secret.stat().st_mode) == 0o600
    assert re.fullmatch(r"[A-Za-z0-9+/]{86}==\n", secret.read_text())  # 64 bytes
    assert re.fullmatch(r"[A-Za-z0-9+/]{43}=\n", public.read_text())  # 32 bytes
    # A second keygen into the same folder never overwrites the key.
    before = secret.read_text()
    again = run(SIGN_TOOL, "keygen", keys)
    assert again.returncode != 0
    assert "cannot create" in again.stderr
    assert secret.read_text() == before


# --------------------------------------------------------------------------
# the zip


def test_zip_holds_one_signed_install_folder(release, unzipped):
    assert sorted(p.name for p in unzipped.parent.iterdir()) == ["Orvane"]
    files = listing(unzipped)
    assert files["bin/orvane"] == "file 755"
    assert files["bin/orvane-sign"] == "file 755"
    assert files["share/applications/com.tarnwick.orvane.desktop"] == "file 644"
    assert files["share/icons/hicolor/scalable/apps/com.tarnwick.orvane.svg"] == "file 644"
    assert files["share/orvane/site/main.py"] == "file 644"
    assert files["share/orvane/site/.venv/bin/uvicorn"] == "file 755"
    assert files["share/orvane/site/.venv/bin/python"] == "file 755"
    assert files["README.txt"] == "file 644"
    # Orvane's GNOME Shell extension in both forms, schemas compiled.
    for folder in ("share/gnome-shell/extensions/orvane@tarnwick.com",
                   "share/orvane/gnome-shell-45/orvane@tarnwick.com"):
        for name in ("metadata.json", "extension.js", "com.tarnwick.orvane.Shell.xml",
                     "schemas/gschemas.compiled",
                     "schemas/org.gnome.shell.extensions.orvane.gschema.xml"):
            assert files[f"{folder}/{name}"] == "file 644", (folder, name)
    legacy = json.loads((unzipped / "share/gnome-shell/extensions/orvane@tarnwick.com"
                         / "metadata.json").read_text())
    modern = json.loads((unzipped / "share/orvane/gnome-shell-45/orvane@tarnwick.com"
                         / "metadata.json").read_text())
    assert legacy["uuid"] == modern["uuid"] == "orvane@tarnwick.com"
    assert legacy["shell-version"] == ["43", "44"]
    assert modern["shell-version"] == ["45", "46", "47", "48"]
    # The site's environment runs Debian's own python3, which Debian's
    # security updates reach: it holds no interpreter (nor any binary) of
    # its own, and no link out of the folder.
    for name in ("python", "uvicorn"):
        text = (unzipped / "share/orvane/site/.venv/bin" / name).read_text()
        assert text.startswith("#!/bin/sh\n") and "exec /usr/bin/python3 -B " in text, text
    assert elf_files(unzipped) == ["bin/orvane", "bin/orvane-sign"]
    assert not any(v.startswith("link /") or "link ../../../" in v for v in files.values())
    assert not any(p.startswith("share/orvane/site/tests") for p in files)
    assert not any("__pycache__" in p for p in files)
    # The public key in the folder is the key the release was signed with.
    assert (unzipped / "share/orvane/update-key.pub").read_text() == \
        (release["keys"] / "orvane-update.pub").read_text()

    manifest = (unzipped / "share/orvane/MANIFEST").read_text().splitlines()
    assert manifest[0] == "app-id com.tarnwick.orvane"
    assert manifest[1] == f"version {VERSION}"
    assert re.fullmatch(r"build \d{12}-[0-9a-f]{7}", manifest[2]), manifest[2]
    listed = [line.rsplit(" ", 1)[-1] for line in manifest[3:]]
    assert listed == sorted(listed)
    assert listed == sorted(p for p in files
                            if p not in ("share/orvane/MANIFEST", "share/orvane/MANIFEST.sig"))
    assert "share/orvane/update-key.pub" in listed

    result = verify(unzipped)
    assert result.returncode == 0, result.stderr
    assert result.stdout == f"{unzipped}: valid\n"


def test_deb_installs_the_same_folder_under_opt(release, unzipped, tmp_path):
    deb = release["out"] / f"orvane_{VERSION}_amd64.deb"
    contents = run("dpkg-deb", "-c", deb)
    assert contents.returncode == 0, contents.stderr
    paths = set()
    for line in contents.stdout.splitlines():
        if line[0] in "-l":  # files and links; folders are not listed in a MANIFEST either
            paths.add(line.split(None, 5)[5].split(" -> ")[0])
    in_opt = {p[len("./opt/orvane/"):] for p in paths if p.startswith("./opt/orvane/")}
    assert in_opt == set(listing(unzipped)), sorted(in_opt ^ set(listing(unzipped)))
    assert "./usr/share/applications/com.tarnwick.orvane.desktop" in paths
    assert "./usr/share/icons/hicolor/scalable/apps/com.tarnwick.orvane.svg" in paths
    extension = "./usr/share/gnome-shell/extensions/orvane@tarnwick.com/"
    in_extension = {p[len(extension):] for p in paths if p.startswith(extension)}
    assert in_extension == {"metadata.json", "extension.js", "com.tarnwick.orvane.Shell.xml",
                            "schemas/gschemas.compiled",
                            "schemas/org.gnome.shell.extensions.orvane.gschema.xml"}

    info = run("dpkg-deb", "-f", deb, "Package", "Version", "Architecture")
    assert info.stdout.splitlines() == ["Package: orvane", f"Version: {VERSION}",
                                        "Architecture: amd64"]
    control = tmp_path / "control"
    assert run("dpkg-deb", "-e", deb, control).returncode == 0
    assert "update-desktop-database" in (control / "postinst").read_text()

    # Unpacked into a throwaway root, the folder under /opt verifies as it is.
    root = tmp_path / "root"
    assert run("dpkg-deb", "-x", deb, root).returncode == 0
    result = verify(root / "opt" / "orvane", tool=SIGN_TOOL)
    assert result.returncode == 0, result.stderr
    desktop = (root / "usr/share/applications/com.tarnwick.orvane.desktop").read_text()
    assert "\nExec=/opt/orvane/bin/orvane %F\n" in desktop
    assert "\nMimeType=application/pdf;\n" in desktop
    assert "\nIcon=com.tarnwick.orvane\n" in desktop
    folder_desktop = (unzipped / "share/applications/com.tarnwick.orvane.desktop").read_text()
    assert "\nExec=orvane %F\n" in folder_desktop
    # The system's copy of the GNOME extension is the folder's GNOME 43 form.
    system_extension = root / "usr/share/gnome-shell/extensions/orvane@tarnwick.com"
    folder_extension = unzipped / "share/gnome-shell/extensions/orvane@tarnwick.com"
    for name in in_extension:
        assert (system_extension / name).read_bytes() == (folder_extension / name).read_bytes(), name
        assert oct((system_extension / name).stat().st_mode & 0o777) == "0o644", name
    metadata = json.loads((system_extension / "metadata.json").read_text())
    assert metadata["uuid"] == "orvane@tarnwick.com" and metadata["shell-version"] == ["43", "44"]
    assert "function init()" in (system_extension / "extension.js").read_text()


def dpkg_in(root: Path, *args) -> subprocess.CompletedProcess:
    """dpkg acting on the throwaway root; maintainer scripts run without a
    chroot and are told the root through DPKG_ROOT."""
    return run("dpkg", f"--root={root}", "--log=/dev/null", "--force-script-chrootless", *args)


def file_digest(path: Path) -> str | None:
    return hashlib.sha256(path.read_bytes()).hexdigest() if path.exists() else None


def test_deb_installs_with_dpkg_into_a_throwaway_root_and_removes_cleanly(release, unzipped, tmp_path):
    deb = release["out"] / f"orvane_{VERSION}_amd64.deb"
    root = tmp_path / "root"
    admin = root / "var/lib/dpkg"
    for folder in ("info", "updates", "triggers"):
        (admin / folder).mkdir(parents=True)
    (admin / "status").touch()
    (admin / "available").touch()
    host_cache = Path("/usr/share/applications/mimeinfo.cache")
    host_before = file_digest(host_cache)

    # The packages it depends on are Debian's, and this machine runs them.
    depends = run("dpkg-deb", "-f", deb, "Depends").stdout.strip()
    names = [d.strip().split()[0] for d in depends.split(",") if d.strip()]
    assert "libwebkit2gtk-4.1-0" in names and "libsodium23" in names, names
    for name in names:
        status = run("dpkg-query", "-W", "-f=${Status}", name)
        assert status.stdout == "install ok installed", (name, status.stdout, status.stderr)

    # The throwaway root holds none of them, hence --force-depends.
    installed = dpkg_in(root, "--force-depends", "-i", deb)
    assert installed.returncode == 0, installed.stdout + installed.stderr
    status = dpkg_in(root, "-s", "orvane")
    assert "Status: install ok installed" in status.stdout
    assert f"Version: {VERSION}" in status.stdout
    # dpkg's own record of the files is the same folder under /opt.
    listed = dpkg_in(root, "-L", "orvane").stdout.splitlines()
    in_opt = {p[len("/opt/orvane/"):] for p in listed if p.startswith("/opt/orvane/")}
    assert set(listing(unzipped)) <= in_opt, sorted(set(listing(unzipped)) - in_opt)
    assert listing(root / "opt/orvane") == listing(unzipped)
    assert verify(root / "opt/orvane", tool=SIGN_TOOL).returncode == 0
    # Its postinst registered it for PDFs in that root, not on this machine.
    cache = (root / "usr/share/applications/mimeinfo.cache").read_text()
    assert "application/pdf=com.tarnwick.orvane.desktop;" in cache
    assert file_digest(host_cache) == host_before

    removed = dpkg_in(root, "-r", "orvane")
    assert removed.returncode == 0, removed.stdout + removed.stderr
    assert not (root / "opt/orvane").exists()
    assert not (root / "usr/share/applications/com.tarnwick.orvane.desktop").exists()
    assert "com.tarnwick.orvane" not in (root / "usr/share/applications/mimeinfo.cache").read_text()
    assert file_digest(host_cache) == host_before


def deb_depends(deb: Path) -> tuple[str, list[str]]:
    """The Depends field of the package and its package names (every
    alternative)."""
    depends = run("dpkg-deb", "-f", deb, "Depends").stdout.strip()
    names = [alt.strip().split()[0] for item in depends.split(",") for alt in item.split("|")
             if alt.strip()]
    return depends, names


def test_deb_depends_come_from_the_binaries_with_versions(release):
    deb = release["out"] / f"orvane_{VERSION}_amd64.deb"
    depends, names = deb_depends(deb)
    # What dpkg-shlibdeps finds in the binaries, with the lowest versions
    # that have the symbols they use.
    for versioned in ("libwebkit2gtk-4.1-0", "libwnck-3-0", "libc6", "libstdc++6", "libgtk-3-0"):
        assert re.search(rf"(^|, ){re.escape(versioned)} \(>= [^)]+\)", depends), (versioned, depends)
    # What the program opens at run time rather than links, by package name:
    # the PDF library, and the update's zip and signature libraries
    # (libarchive13 was once forgotten).
    for opened in ("libpoppler-glib8", "libarchive13", "libsodium23"):
        assert opened in names, (opened, depends)
    # What the program runs: the site on Debian's python3 and its packages,
    # the desktop's handlers and the desktop database.
    for runtime in ("python3", "python3-fastapi", "python3-uvicorn", "python3-multipart",
                    "python3-cairo", "xdg-utils", "desktop-file-utils", "shared-mime-info"):
        assert runtime in names, (runtime, depends)
    recommends = run("dpkg-deb", "-f", deb, "Recommends").stdout.strip()
    assert "pdf-viewer" in recommends, recommends


def test_every_library_of_the_deb_comes_with_its_depends(release, tmp_path):
    """Every shared library that an executable of the package needs (its
    NEEDED entries; the bundled site's interpreter, Debian's python3,
    included) and the site's Python modules are provided by a package among
    the Depends or what they depend on."""
    deb = release["out"] / f"orvane_{VERSION}_amd64.deb"
    root = tmp_path / "root"
    assert run("dpkg-deb", "-x", deb, root).returncode == 0
    needs = program_needs(root / "opt/orvane")
    # No program of the package links what the program opens when needed.
    for opened in ("libpoppler-glib.so.8", "libarchive.so.13", "libsodium.so.23"):
        assert opened not in needs, (opened, needs)
    # And what it opens at run time instead of linking (the build's list).
    libraries = library_paths()
    for soname in (REPO_ROOT / "build" / "opened-libraries.txt").read_text().split():
        needs[soname] = owning_package(libraries[soname])
    assert needs.get("libpoppler-glib.so.8") == "libpoppler-glib8", needs
    assert needs.get("libarchive.so.13") == "libarchive13", needs
    assert needs.get("libsodium.so.23") == "libsodium23", needs
    closure = dependency_closure(deb_depends(deb)[1])
    missing = {need: package for need, package in needs.items() if package not in closure}
    assert not missing, f"needed but not among the Depends or their dependencies: {missing}"
    # The site's interpreter and its libraries were among what was checked.
    assert needs.get("/usr/bin/python3") == "python3-minimal", needs
    assert needs.get("libexpat.so.1") == "libexpat1", needs


def test_zip_release_notes_name_every_package_it_needs(release, unzipped):
    readme = (unzipped / "README.txt").read_text()
    assert f"Orvane {VERSION} for Linux" in readme
    names = apt_get_install_line(readme)
    assert "unzip" in names and "libarchive13" in names, names
    closure = dependency_closure(names)
    needs = program_needs(unzipped)
    missing = {need: package for need, package in needs.items() if package not in closure}
    assert not missing, f"needed but not installed by the release notes' command: {missing}"
    # And how to have `orvane` on the PATH.
    assert "ln -sf ~/Applications/Orvane/bin/orvane ~/.local/bin/orvane" in readme


def test_deb_has_the_command_copyright_and_changelog(release, tmp_path):
    deb = release["out"] / f"orvane_{VERSION}_amd64.deb"
    contents = run("dpkg-deb", "-c", deb).stdout
    assert re.search(r"^lrwxrwxrwx root/root .* \./usr/bin/orvane -> /opt/orvane/bin/orvane$",
                     contents, re.M), contents
    root = tmp_path / "root"
    assert run("dpkg-deb", "-x", deb, root).returncode == 0
    copyright_text = (root / "usr/share/doc/orvane/copyright").read_text()
    assert copyright_text.startswith(
        "Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/\n")
    changelog = run("sh", "-c", f"gzip -dc {root}/usr/share/doc/orvane/changelog.gz").stdout
    assert changelog.startswith(f"orvane ({VERSION}) stable; urgency=medium\n"), changelog
    # Every file but the links' is owned by root and has a plain mode.
    for line in contents.splitlines():
        mode, owner = line.split()[:2]
        assert owner == "root/root", line
        assert mode in ("drwxr-xr-x", "-rw-r--r--", "-rwxr-xr-x", "lrwxrwxrwx"), line


def test_lintian_finds_no_errors_or_warnings_in_the_deb(release):
    """lintian on the package: no error and no warning (files under /opt
    are overridden: the signed folder lives there as one unit). The notes
    that stay are listed in docs/releasing.md."""
    deb = release["out"] / f"orvane_{VERSION}_amd64.deb"
    result = run("lintian", "--no-cfg", "--display-level", ">=warning", deb, timeout=600)
    tags = [line for line in result.stdout.splitlines() if re.match(r"^[EWIPXO]: ", line)]
    errors = [line for line in tags if line.startswith(("E: ", "W: "))]
    assert not errors, result.stdout + result.stderr
    assert result.returncode == 0, result.stdout + result.stderr


# --------------------------------------------------------------------------
# tampering, as the tool in the folder reports it


def test_tampered_folders_fail_with_their_codes(unzipped, tmp_path):
    site = unzipped / "share/orvane/site"

    (site / "extra.py").write_text("import os\n")
    result = verify(unzipped)
    assert result.returncode == 5, result.stderr
    assert "the file share/orvane/site/extra.py is not in the MANIFEST" in result.stderr
    (site / "extra.py").unlink()

    original = (site / "main.py").read_bytes()
    (site / "main.py").write_bytes(original + b"\n")
    assert verify(unzipped).returncode == 4
    (site / "main.py").write_bytes(original)
    os.chmod(site / "main.py", 0o666)
    assert verify(unzipped).returncode == 4
    os.chmod(site / "main.py", 0o644)
    assert verify(unzipped).returncode == 0

    os.symlink("/etc", site / "etc")
    result = verify(unzipped)
    assert result.returncode == 6, result.stderr
    (site / "etc").unlink()

    (site / "main.py").rename(tmp_path / "main.py")
    assert verify(unzipped).returncode == 3
    (tmp_path / "main.py").rename(site / "main.py")

    # Another key in the folder: the signature no longer verifies under it.
    keys = tmp_path / "other-keys"
    new_key(keys)
    shutil.copy(keys / "orvane-update.pub", unzipped / "share/orvane/update-key.pub")
    result = verify(unzipped)
    assert result.returncode == 1, result.stderr
    assert "MANIFEST.sig does not verify under the trusted key" in result.stderr


def test_another_app_id_signed_by_the_same_key_fails_with_code_2(release, unzipped):
    sign_as_other_app(release["keys"] / "orvane-update.key", unzipped)
    result = verify(unzipped)
    assert result.returncode == 2, result.stderr


def test_verify_refuses_hostile_manifests_and_reads_nothing_outside(release, unzipped, tmp_path):
    key = release["keys"] / "orvane-update.key"
    manifest = unzipped / "share/orvane/MANIFEST"
    header = "\n".join(manifest.read_text().splitlines()[:3]) + "\n"
    secret = tmp_path / "secret.txt"
    secret.write_text("outside\n")
    digest = "e" * 64
    for body in (f"{digest} 644 ../secret.txt\n", f"{digest} 644 {secret}\n",
                 "garbage\n", "\n" * 1000, f"{digest} 644 a\n{digest} 644 a\n"):
        manifest.write_text(header + body)
        sign_folder(key, unzipped, "--manifest-only")
        result = verify(unzipped)
        assert result.returncode == 1, (body, result.stderr)
        assert "the signed MANIFEST is malformed" in result.stderr
    # A huge MANIFEST is refused unread.
    with open(manifest, "wb") as out:
        out.truncate(33 * 1024 * 1024)
    result = verify(unzipped)
    assert result.returncode == 1
    assert "there is no readable MANIFEST" in result.stderr
    # No folder at all, or no install folder.
    assert verify(tmp_path / "nowhere", tool=SIGN_TOOL).returncode == 1
    assert run(SIGN_TOOL, "sign", key, tmp_path).returncode != 0
    assert run(SIGN_TOOL, "bogus").returncode == 64


def test_signing_refuses_a_folder_with_a_link_outside(release, unzipped):
    os.symlink("/usr/bin/python3", unzipped / "share/orvane/python")
    result = run(SIGN_TOOL, "sign", release["keys"] / "orvane-update.key", unzipped)
    assert result.returncode != 0
    assert "refusing to sign share/orvane/python: the link leads outside the folder" in result.stderr


# --------------------------------------------------------------------------
# a moved copy


def test_moved_copys_venv_serves_the_bundled_site_and_leaves_it_signed(unzipped, tmp_path):
    moved = tmp_path / "elsewhere" / "Orvane"
    moved.parent.mkdir()
    shutil.move(unzipped, moved)
    site = moved / "share/orvane/site"
    port = free_port()
    env = dict(os.environ, ORVANE_SITE_DATA=str(tmp_path / "site-data"))
    env.pop("PYTHONDONTWRITEBYTECODE", None)
    log = open(tmp_path / "uvicorn.log", "wb")
    server = subprocess.Popen([str(site / ".venv/bin/uvicorn"), "main:app", "--port", str(port)],
                              cwd=site, env=env, stdout=log, stderr=subprocess.STDOUT,
                              start_new_session=True)
    try:
        def papers():
            try:
                with urllib.request.urlopen(f"http://127.0.0.1:{port}/api/papers", timeout=2) as r:
                    return r.status, json.loads(r.read())
            except OSError:
                return None
        status, body = wait_until(papers, 60, what="the moved copy's site to answer")
        assert status == 200
        assert isinstance(body, list) and body, body  # the site's sample papers
        # The interpreter that serves is Debian's own python3.
        assert os.path.realpath(f"/proc/{server.pid}/exe") == os.path.realpath("/usr/bin/python3")
    finally:
        terminate_pids([server.pid])
        wait_until(lambda: not pid_alive(server.pid), 10, what="the site server to end")
        log.close()
    # Running the site wrote nothing into the signed folder.
    result = verify(moved)
    assert result.returncode == 0, result.stderr


def test_moved_copy_starts_its_bundled_site_as_the_development_server(unzipped, home, desktop,
                                                                       tmp_path, request):
    if not port_is_free("127.0.0.1", 8000):
        pytest.skip("127.0.0.1:8000 is taken by another process; the development server is always started there")
    moved = tmp_path / "moved" / "Orvane"
    moved.parent.mkdir()
    shutil.move(unzipped, moved)
    site = moved / "share/orvane/site"
    # The site's uvicorn is replaced by the recording fixture server; no
    # ProjectDir is set, so the program must find the site beside itself.
    project = DevProject(site)
    request.addfinalizer(project.stop)
    home.write_settings(AppURL="http://127.0.0.1:8000", ProjectDir=None)
    orvane = Orvane(home, desktop, binary=moved / "bin" / "orvane")
    request.addfinalizer(orvane.stop)
    orvane.start()

    wait_until(project.pid, what="the development server to start from the bundled site")
    assert project.call() == {"argv": ["main:app", "--port", "8000"], "cwd": str(site)}
    home.wait_for_log(lambda m: m.startswith("=== Orvane 1.0 ("))


@pytest.mark.parametrize("version", ["1.1+b1", "1.2~rc1", "1.1-", "1..2", "v1.0", "1.0-rc 1", "1.0-rc-1"])
def test_a_version_the_update_cannot_order_is_refused_before_anything_is_made(version, tmp_path):
    # A running copy compares versions to refuse older downloads; a release
    # whose version it would misread must not be made at all.
    key = tmp_path / "key"
    key.write_text("not used\n")
    done = run(REPO_ROOT / "scripts" / "make-release.sh", "--key", key, "--version", version,
               "--out", tmp_path / "out")
    assert done.returncode != 0
    assert "the version must be numbers and dots" in done.stderr
    assert not (tmp_path / "out").exists()
