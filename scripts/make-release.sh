#!/usr/bin/env bash
# Makes a signed release of Orvane from this repository (docs/releasing.md).
#
# Usage: scripts/make-release.sh --key KEYFILE --version V --out DIR
#
# Builds build/ when it holds no program yet, installs it into a staging
# folder Orvane/, signs that folder with KEYFILE, and packs
#   DIR/Orvane-V-linux-x86_64.zip   the folder Orvane/ at its top
#   DIR/orvane_V_amd64.deb          the same folder under /opt/orvane, with
#                                   the desktop file, icon and PDF handler
set -euo pipefail

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
# The version names files and a Debian package: plain characters only.
[[ "$version" =~ ^[0-9][A-Za-z0-9.+~-]*$ ]] || fail "the version must start with a digit and hold only A-Z a-z 0-9 . + ~ -"
for tool in zip cpack; do
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

# The install folder, signed.
app="$stage/Orvane"
cmake --install "$build" --prefix "$app" --strip >/dev/null
# What is installed is writable by its owner only, and holds no empty folder:
# the signature refuses both (the MANIFEST lists files and links, not folders).
chmod -R go-w,u-s,g-s,-t "$app"
find "$app" -depth -mindepth 1 -type d -empty -delete
"$build/orvane-sign" sign --version "$version" "$key" "$app"
"$build/orvane-sign" verify "$app" >/dev/null

# The archive: links stay links, modes are kept.
zip_file="$out/Orvane-$version-linux-x86_64.zip"
rm -f "$zip_file"
(cd "$stage" && zip -q -r -y "$zip_file" Orvane)

# The Debian package: the same folder under /opt/orvane, and what makes the
# desktop offer it for PDFs.
deb_root="$stage/deb-root"
mkdir -p "$deb_root/opt" "$deb_root/usr/share/applications" \
  "$deb_root/usr/share/icons/hicolor/scalable/apps"
cp -a "$app" "$deb_root/opt/orvane"
sed -e 's|^Exec=orvane |Exec=/opt/orvane/bin/orvane |' \
  "$app/share/applications/com.tarnwick.orvane.desktop" \
  > "$deb_root/usr/share/applications/com.tarnwick.orvane.desktop"
cp "$app/share/icons/hicolor/scalable/apps/com.tarnwick.orvane.svg" \
  "$deb_root/usr/share/icons/hicolor/scalable/apps/"
for script in postinst postrm; do
  # DPKG_ROOT is set when dpkg installs into another root without chroot
  # (--root with --force-script-chrootless): the caches of that root are
  # refreshed, never the running system's.
  cat > "$stage/$script" <<'EOF'
#!/bin/sh
set -e
root="${DPKG_ROOT:-}"
if command -v update-desktop-database >/dev/null; then
  update-desktop-database -q "$root/usr/share/applications" || true
fi
if command -v gtk-update-icon-cache >/dev/null; then
  gtk-update-icon-cache -q -t "$root/usr/share/icons/hicolor" || true
fi
EOF
  chmod 755 "$stage/$script"
done
cat > "$stage/CPackConfig.cmake" <<EOF
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME orvane)
set(CPACK_PACKAGE_VERSION "$version")
set(CPACK_PACKAGE_FILE_NAME "orvane_${version}_amd64")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "A native home for your paper library")
set(CPACK_PACKAGE_DESCRIPTION "Orvane keeps a library of papers (PDFs) and hosts its reference site.")
set(CPACK_PACKAGE_CONTACT "Orvane release <release@tarnwick.invalid>")
set(CPACK_PACKAGE_DIRECTORY "$stage/cpack")
set(CPACK_INSTALLED_DIRECTORIES "$deb_root;/")
set(CPACK_PACKAGING_INSTALL_PREFIX "/")
set(CPACK_SET_DESTDIR OFF)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
set(CPACK_DEBIAN_PACKAGE_SECTION misc)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libgtk-3-0, libwebkit2gtk-4.1-0, libsoup-3.0-0, libkeybinder-3.0-0, libpoppler-glib8, libwnck-3-0, libsodium23, libxtst6, libxres1, python3, python3-fastapi, python3-uvicorn, python3-multipart, python3-cairo, xdg-utils")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA "$stage/postinst;$stage/postrm")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
EOF
(cd "$stage" && cpack --config "$stage/CPackConfig.cmake" >/dev/null) || fail "cpack could not make the Debian package"
mv "$stage/cpack/orvane_${version}_amd64.deb" "$out/orvane_${version}_amd64.deb"

echo "$zip_file"
echo "$out/orvane_${version}_amd64.deb"
