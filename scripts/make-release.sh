#!/usr/bin/env bash
# Makes a signed release of Orvane from this repository (docs/releasing.md).
#
# Usage: scripts/make-release.sh --key KEYFILE --version V --out DIR
#
# Builds build/ when it holds no program yet, installs it into a staging
# folder, adds its release notes (README.txt: the Debian packages it needs,
# as one apt-get command), signs that folder with KEYFILE, and packs
#   DIR/Orvane-V-linux-x86_64.zip   the folder as Orvane/ at its top
#   DIR/orvane_V_amd64.deb          the same folder under /opt/orvane, with
#                                   /usr/bin/orvane, the desktop file, icon
#                                   and PDF handler, copyright and changelog
# The package's Depends come from the binaries (dpkg-shlibdeps: packages and
# lowest versions), plus what the program runs (runtime_depends below).
set -euo pipefail
umask 022

root=$(cd "$(dirname "$0")/.." && pwd)
fail() {
  echo "make-release: $*" >&2
  exit 1
}

key="" version="" out=""
while [ $# -gt 0 ]; do
  case "$1" in
    --key) key=${2:-}; shift 2 || fail "--key needs a file" ;;
    --version) version=${2:-}; shift 2 || fail "--version needs a value" ;;
    --out) out=${2:-}; shift 2 || fail "--out needs a folder" ;;
    *) fail "unknown argument: $1 (usage: --key KEYFILE --version V --out DIR)" ;;
  esac
done
[ -n "$key" ] && [ -n "$version" ] && [ -n "$out" ] \
  || fail "usage: scripts/make-release.sh --key KEYFILE --version V --out DIR"
[ -f "$key" ] || fail "no key file at $key"
# The version names files and a Debian package, and running copies compare
# it to refuse older ones: numbers and dots, with an optional -suffix of
# letters, digits and dots for a pre-release (1.5.0-rc1 comes before 1.5.0),
# the grammar that the site and the update read.
[[ "$version" =~ ^[0-9]+(\.[0-9]+)*(-[A-Za-z0-9.]+)?$ ]] \
  || fail "the version must be numbers and dots with an optional -suffix of letters, digits and dots (1.5.0, 1.5.0-rc1)"
# Debian orders a pre-release before its release when it is written with ~.
deb_version=${version/-/\~}
for tool in zip dpkg-deb dpkg-shlibdeps objdump gzip; do
  command -v "$tool" >/dev/null || fail "$tool is missing (scripts/install-deps.sh)"
done

build="$root/build"
if [ ! -x "$build/orvane" ] || [ ! -x "$build/orvane-sign" ]; then
  [ -f "$build/build.ninja" ] || cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build "$build" --target orvane orvane-sign
fi

mkdir -p "$out"
out=$(cd "$out" && pwd)
stage=$(mktemp -d "${TMPDIR:-/tmp}/orvane-release-XXXXXX")
trap 'rm -rf "$stage"' EXIT

# What the program needs besides the libraries it links: the bundled site's
# interpreter and packages (it runs Debian's python3 -m uvicorn), GIO's MIME
# data and the desktop's handlers for opening papers and folders, and the
# tool that registers the desktop entry for PDFs.
runtime_depends="python3, python3-fastapi, python3-uvicorn, python3-multipart, python3-cairo, shared-mime-info, xdg-utils, desktop-file-utils"
# What only some features use: a PDF viewer (opening a paper, the splits)
# and a D-Bus session bus (notifications, the file manager's reveal).
recommends="evince | pdf-viewer, dbus-user-session | dbus-x11"

# The package's root. The install folder is made in place, as
# debian/orvane/opt/orvane, where dpkg-shlibdeps expects a package's files.
mkdir -p "$stage/debian"
printf 'Source: orvane\n\nPackage: orvane\nArchitecture: amd64\n' > "$stage/debian/control"
deb_root="$stage/debian/orvane"
app="$deb_root/opt/orvane"
mkdir -p "$deb_root/opt"
cmake --install "$build" --prefix "$app" --strip >/dev/null

# Every ELF file of the folder: the packages of the libraries they link,
# with the lowest versions that have the symbols they use.
mapfile -t elves < <(find "$app" -type f -exec sh -c \
  'for f; do objdump -p "$f" >/dev/null 2>&1 && echo "$f"; done' sh {} + | LC_ALL=C sort)
[ ${#elves[@]} -gt 0 ] || fail "no binaries in the install folder"
shlibs=$(cd "$stage" && dpkg-shlibdeps -O "${elves[@]/#/-e}" 2>"$stage/shlibdeps.err") \
  || fail "dpkg-shlibdeps failed: $(cat "$stage/shlibdeps.err")"
shlibs=${shlibs#shlibs:Depends=}
[ -n "$shlibs" ] || fail "dpkg-shlibdeps found no libraries"
# The libraries the program opens at run time instead of linking them, which
# dpkg-shlibdeps cannot see: the build lists their sonames, one a line.
opened=""
[ -f "$build/opened-libraries.txt" ] || fail "$build/opened-libraries.txt is missing: configure the build again"
while read -r soname; do
  [ -n "$soname" ] || continue
  package=$(dpkg-query -S "*/$soname" 2>/dev/null | head -n1 | cut -d: -f1)
  [ -n "$package" ] || fail "no package installed here provides $soname, which the program opens"
  opened="$opened, $package"
done < "$build/opened-libraries.txt"
depends="$shlibs$opened, $runtime_depends"

# The release notes: what to install on a minimal system, as one apt-get
# command (the Depends' package names, the first of alternatives, and
# unzip for the archive).
packages=$(printf '%s\n' "$depends" | tr ',' '\n' | sed -e 's/|.*//' -e 's/(.*)//' -e 's/ //g' \
  | grep -v '^$' | LC_ALL=C sort -u | tr '\n' ' ')
packages="${packages}unzip"
sed -e "s|@VERSION@|$version|g" -e "s|@PACKAGES@|$packages|" \
  "$root/packaging/README.txt.in" > "$app/README.txt"
chmod 644 "$app/README.txt"

# The install folder, signed. What is installed is writable by its owner
# only, and holds no empty folder: the signature refuses both (the MANIFEST
# lists files and links, not folders).
chmod -R go-w,u-s,g-s,-t "$app"
find "$app" -depth -mindepth 1 -type d -empty -delete
"$build/orvane-sign" sign --version "$version" "$key" "$app"
"$build/orvane-sign" verify "$app" >/dev/null

# The archive: the folder as Orvane/; links stay links, modes are kept.
mkdir -p "$stage/zip"
cp -a "$app" "$stage/zip/Orvane"
zip_file="$out/Orvane-$version-linux-x86_64.zip"
rm -f "$zip_file"
(cd "$stage/zip" && zip -q -r -y "$zip_file" Orvane)

# The Debian package: the same folder under /opt/orvane, the command on the
# PATH, and what makes the desktop offer it for PDFs.
mkdir -p "$deb_root/usr/bin" "$deb_root/usr/share/applications" \
  "$deb_root/usr/share/icons/hicolor/scalable/apps" "$deb_root/usr/share/doc/orvane" \
  "$deb_root/usr/share/lintian/overrides" "$deb_root/usr/share/man/man1"
ln -s /opt/orvane/bin/orvane "$deb_root/usr/bin/orvane"
sed -e 's|^Exec=orvane |Exec=/opt/orvane/bin/orvane |' \
  "$app/share/applications/com.tarnwick.orvane.desktop" \
  > "$deb_root/usr/share/applications/com.tarnwick.orvane.desktop"
cp "$app/share/icons/hicolor/scalable/apps/com.tarnwick.orvane.svg" \
  "$deb_root/usr/share/icons/hicolor/scalable/apps/"
# GNOME Shell reads system extensions only from /usr/share/gnome-shell/extensions:
# the GNOME 43/44 form of Orvane's extension goes there (a copy; the GNOME 45
# form stays in the folder, for Orvane to put into the user's extensions).
mkdir -p "$deb_root/usr/share/gnome-shell/extensions"
cp -R "$app/share/gnome-shell/extensions/orvane@tarnwick.com" \
  "$deb_root/usr/share/gnome-shell/extensions/"
chmod -R u=rwX,go=rX "$deb_root/usr/share/gnome-shell"
cp "$root/packaging/copyright" "$deb_root/usr/share/doc/orvane/copyright"
cp "$root/packaging/lintian-overrides" "$deb_root/usr/share/lintian/overrides/orvane"
gzip -9n < "$root/packaging/orvane.1" > "$deb_root/usr/share/man/man1/orvane.1.gz"
# A native package: its version has no Debian revision.
changelog=changelog.gz
revision=$(git -C "$root" rev-parse --short=7 HEAD 2>/dev/null || echo unknown)
{
  printf 'orvane (%s) stable; urgency=medium\n\n' "$deb_version"
  printf '  * Release %s, built from revision %s.\n' "$version" "$revision"
  printf '    Its release notes are /opt/orvane/README.txt.\n\n'
  printf ' -- Orvane release <release@tarnwick.invalid>  %s\n' "$(LC_ALL=C date -R)"
} | gzip -9n > "$deb_root/usr/share/doc/orvane/$changelog"
chmod 644 "$deb_root/usr/share/doc/orvane/"* "$deb_root/usr/share/lintian/overrides/orvane" \
  "$deb_root/usr/share/man/man1/orvane.1.gz" \
  "$deb_root/usr/share/applications/com.tarnwick.orvane.desktop" \
  "$deb_root/usr/share/icons/hicolor/scalable/apps/com.tarnwick.orvane.svg"

mkdir -p "$deb_root/DEBIAN"
# DPKG_ROOT is set when dpkg installs into another root without chroot
# (--root with --force-script-chrootless): the caches of that root are
# refreshed, never the running system's. desktop-file-utils is a
# dependency; the command is still looked for, as a root installed with
# --force-depends may lack it.
for script in postinst postrm; do
  cat > "$deb_root/DEBIAN/$script" <<'SCRIPT'
#!/bin/sh
set -e
root="${DPKG_ROOT:-}"
if command -v update-desktop-database >/dev/null; then
  update-desktop-database -q "$root/usr/share/applications" || true
fi
if command -v gtk-update-icon-cache >/dev/null; then
  gtk-update-icon-cache -q -t "$root/usr/share/icons/hicolor" || true
fi
SCRIPT
  chmod 755 "$deb_root/DEBIAN/$script"
done
installed_size=$(du -sk --exclude=DEBIAN "$deb_root" | cut -f1)
cat > "$deb_root/DEBIAN/control" <<CONTROL
Package: orvane
Version: $deb_version
Architecture: amd64
Maintainer: Orvane release <release@tarnwick.invalid>
Installed-Size: $installed_size
Depends: $depends
Recommends: $recommends
Section: misc
Priority: optional
Description: native home for a library of papers
 Orvane keeps a library of papers (PDFs) and hosts its reference library
 site in a window of its own: it captures selected text and quotes from
 other applications, opens papers beside their viewers and talks to an
 agent about a paper.
 .
 The program and its bundled site are installed as one signed folder under
 /opt/orvane; the command is /usr/bin/orvane.
CONTROL
(cd "$deb_root" && find . -path ./DEBIAN -prune -o -type f -printf '%P\0' | LC_ALL=C sort -z \
  | xargs -0 md5sum) > "$deb_root/DEBIAN/md5sums"
chmod 644 "$deb_root/DEBIAN/control" "$deb_root/DEBIAN/md5sums"
deb_file="$out/orvane_${deb_version}_amd64.deb"
rm -f "$deb_file"
dpkg-deb --root-owner-group -Zxz --build "$deb_root" "$deb_file" >/dev/null \
  || fail "dpkg-deb could not make the Debian package"

echo "$zip_file"
echo "$deb_file"
