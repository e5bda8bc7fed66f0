#!/usr/bin/env bash
# `make package-check`: a release tried the way a new user tries it, on a
# clean, minimal Debian 12.
#
#   1. a release (version 9.9.9, a throwaway key) by scripts/make-release.sh,
#      or the Debian package given as the argument;
#   2. a minimal root: debootstrap --variant=minbase bookworm (made once and
#      kept in the cache folder; each run works on a fresh copy);
#   3. apt-get install ./orvane_9.9.9_amd64.deb in that root, without the
#      Recommends, so that the Depends alone must be enough;
#   4. Orvane started as an ordinary user with a throwaway home, as `orvane`
#      from the PATH, on an Xvfb display of this machine, in a network
#      namespace of its own (its bundled site takes 127.0.0.1:8000 there,
#      whatever this machine runs): the start banner and the library page's
#      "hello" must reach the log;
#   5. apt-get purge orvane: no file of the package may be left.
#
# Usage: scripts/package-check.sh [DEB]
# Needs root (chroot, mounts, unshare), debootstrap, Xvfb and a Debian
# mirror; it downloads about 330 MB into the root (the packages are kept in
# the cache folder for the next run). Not part of `make test`.
#   ORVANE_PACKAGE_CHECK_CACHE   cache folder (/var/cache/orvane-package-check)
#   ORVANE_PACKAGE_CHECK_MIRROR  Debian mirror (the one this machine's apt uses)
set -euo pipefail
umask 022

repo=$(cd "$(dirname "$0")/.." && pwd)
cache=${ORVANE_PACKAGE_CHECK_CACHE:-/var/cache/orvane-package-check}
version=9.9.9
say() { printf 'package-check: %s\n' "$*"; }
fail() {
  printf 'package-check: FAILED: %s\n' "$*" >&2
  exit 1
}

[ "$(id -u)" -eq 0 ] || fail "run as root (chroot and mounts need it)"
# Every mount of the check lives in a mount namespace of its own: none can
# reach this machine's, and all go when the check ends.
if [ -z "${ORVANE_PACKAGE_CHECK_NAMESPACE:-}" ]; then
  export ORVANE_PACKAGE_CHECK_NAMESPACE=1
  exec unshare --mount --propagation private -- "$0" "$@"
fi
for tool in debootstrap chroot unshare Xvfb ip; do
  command -v "$tool" >/dev/null || fail "$tool is missing (scripts/install-deps.sh)"
done

mirror=${ORVANE_PACKAGE_CHECK_MIRROR:-}
if [ -z "$mirror" ]; then
  mirror=$(sed -n 's/^URIs: *\([^ ]*\/debian\)\/\{0,1\}$/\1/p' /etc/apt/sources.list.d/*.sources 2>/dev/null | head -n1)
  [ -n "$mirror" ] || mirror=$(awk '$1 == "deb" && $2 ~ /\/debian\/?$/ { print $2; exit }' /etc/apt/sources.list 2>/dev/null || true)
  [ -n "$mirror" ] || mirror=http://deb.debian.org/debian
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/orvane-package-check-XXXXXX")
root="$work/root"
mounted=()
xvfb_pid=""
cleanup() {
  set +e
  # Every process still running in the root is one this check started.
  for proc in /proc/[0-9]*; do
    [ "$(readlink "$proc/root" 2>/dev/null)" = "$root" ] && kill -9 "${proc#/proc/}" 2>/dev/null
  done
  [ -n "$xvfb_pid" ] && kill "$xvfb_pid" 2>/dev/null
  for ((i = ${#mounted[@]} - 1; i >= 0; i--)); do
    umount "${mounted[$i]}" 2>/dev/null || umount -l "${mounted[$i]}"
  done
  rm -rf --one-file-system "$work"
}
trap cleanup EXIT

# 1. The release.
deb=${1:-}
if [ -z "$deb" ]; then
  [ -x "$repo/build/orvane-sign" ] || fail "build/orvane-sign is missing (make build)"
  "$repo/build/orvane-sign" keygen "$work/keys" >/dev/null
  say "making release $version"
  "$repo/scripts/make-release.sh" --key "$work/keys/orvane-update.key" --version "$version" \
    --out "$work/out" >/dev/null
  deb="$work/out/orvane_${version}_amd64.deb"
fi
[ -f "$deb" ] || fail "no Debian package at $deb"
version=$(dpkg-deb -f "$deb" Version)

# 2. The minimal root.
if [ ! -f "$cache/base/etc/debian_version" ]; then
  say "debootstrap --variant=minbase bookworm from $mirror"
  mkdir -p "$cache"
  rm -rf "$cache/base.tmp"
  debootstrap --variant=minbase bookworm "$cache/base.tmp" "$mirror" > "$cache/debootstrap.log" 2>&1 \
    || fail "debootstrap failed (see $cache/debootstrap.log)"
  mv "$cache/base.tmp" "$cache/base"
fi
cp -a "$cache/base" "$root"
bind() {
  mkdir -p "$2"
  mount --bind "$1" "$2"
  mounted+=("$2")
}
mount -t proc proc "$root/proc"
mounted+=("$root/proc")
# A /dev of its own: the usual character devices bound from this machine's,
# and a shared-memory folder that WebKit needs.
mount -t tmpfs -o mode=755 dev "$root/dev"
mounted+=("$root/dev")
for node in null zero full random urandom tty; do
  touch "$root/dev/$node"
  mount --bind "/dev/$node" "$root/dev/$node"
  mounted+=("$root/dev/$node")
done
mkdir -m 1777 "$root/dev/shm"
ln -s /proc/self/fd "$root/dev/fd"
mkdir -p "$cache/archives/partial"
bind "$cache/archives" "$root/var/cache/apt/archives"
cp /etc/resolv.conf "$root/etc/resolv.conf"
# The suites a new Debian 12 system has: the release, its updates and the
# security updates.
printf 'deb %s bookworm main\ndeb %s bookworm-updates main\ndeb %s bookworm-security main\n' \
  "$mirror" "$mirror" "${mirror%/debian}/debian-security" > "$root/etc/apt/sources.list"
in_root() { chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 \
  DEBIAN_FRONTEND=noninteractive "$@"; }

# 3. The package, with what apt resolves for it.
say "apt-get update"
in_root apt-get update -qq > "$work/apt-update.log" 2>&1 || { cat "$work/apt-update.log"; fail "apt-get update"; }
before=$(in_root dpkg-query -W -f='${Package}\n' | wc -l)
cp "$deb" "$root/tmp/"
say "apt-get install --no-install-recommends ./$(basename "$deb")"
if ! in_root apt-get install -y --no-install-recommends "/tmp/$(basename "$deb")" > "$work/apt-install.log" 2>&1; then
  tail -n 30 "$work/apt-install.log"
  fail "apt-get install"
fi
after=$(in_root dpkg-query -W -f='${Package}\n' | wc -l)
grep -E '^(Need to get|After this operation)' "$work/apt-install.log" | sed 's/^/package-check:   /' || true
say "  $((after - before)) packages installed, orvane among them"
[ "$(in_root dpkg-query -W -f='${db:Status-Status}' orvane)" = installed ] || fail "orvane is not installed"

# What a user meets first: the command on the PATH, every library found,
# the desktop registered for PDFs.
[ "$(readlink "$root/usr/bin/orvane")" = /opt/orvane/bin/orvane ] || fail "no /usr/bin/orvane link"
for binary in /opt/orvane/bin/orvane /opt/orvane/bin/orvane-sign /usr/bin/python3; do
  missing=$(in_root ldd "$binary" | grep 'not found' || true)
  [ -z "$missing" ] || fail "$binary lacks libraries: $missing"
done
in_root python3 -c 'import fastapi, uvicorn, cairo, multipart' || fail "the site's Python packages are missing"
grep -q '^application/pdf=.*com.tarnwick.orvane.desktop' "$root/usr/share/applications/mimeinfo.cache" \
  || fail "the desktop database does not offer Orvane for PDFs"
in_root /opt/orvane/bin/orvane-sign verify /opt/orvane >/dev/null || fail "the installed folder does not verify"
say "libraries found, site packages importable, registered for PDFs, folder verifies"

# 4. A start as an ordinary user with a throwaway home, on a display of
# this machine (its socket folder is shared with the root).
in_root useradd --create-home --home-dir /home/try --uid 4242 --user-group try
display=""
for n in $(seq 140 199); do
  if [ ! -e "/tmp/.X11-unix/X$n" ] && [ ! -e "/tmp/.X$n-lock" ]; then display=$n; break; fi
done
[ -n "$display" ] || fail "no free X display number"
Xvfb ":$display" -screen 0 1280x1024x24 -nolisten tcp > "$work/xvfb.log" 2>&1 &
xvfb_pid=$!
for _ in $(seq 100); do [ -S "/tmp/.X11-unix/X$display" ] && break; sleep 0.1; done
[ -S "/tmp/.X11-unix/X$display" ] || fail "Xvfb did not start"
bind /tmp/.X11-unix "$root/tmp/.X11-unix"
mkdir -p "$root/run/user/4242"
chown 4242:4242 "$root/run/user/4242"
chmod 700 "$root/run/user/4242"
say "starting orvane as user try on :$display"
unshare --net -- sh -c 'ip link set lo up && exec "$@"' sh \
  chroot --userspec=4242:4242 "$root" env -i PATH=/usr/bin:/bin HOME=/home/try USER=try \
  LANG=C.UTF-8 DISPLAY=":$display" XDG_RUNTIME_DIR=/run/user/4242 NO_AT_BRIDGE=1 \
  orvane > "$work/orvane.out" 2>&1 &
orvane_pid=$!
log="$root/home/try/.local/state/orvane/Orvane.log"
seen_banner="" seen_hello=""
for _ in $(seq 180); do
  [ -f "$log" ] && grep -q '=== Orvane .* started' "$log" && seen_banner=yes
  [ -f "$log" ] && grep -q 'message: hello' "$log" && seen_hello=yes
  [ -n "$seen_banner" ] && [ -n "$seen_hello" ] && break
  kill -0 "$orvane_pid" 2>/dev/null || break
  sleep 0.5
done
say "Orvane's log:"
sed 's/^/package-check:   | /' "$log" 2>/dev/null | head -n 40 || true
if [ -z "$seen_banner" ] || [ -z "$seen_hello" ]; then
  say "its output:"; sed 's/^/package-check:   | /' "$work/orvane.out" | tail -n 30
  say "the site's log:"; sed 's/^/package-check:   | /' "$root/tmp/shelfkeep.log" 2>/dev/null | tail -n 30
  [ -n "$seen_banner" ] || fail "no start banner in the log"
  fail "the library page said no hello (the bundled site did not serve it)"
fi
say "start banner and the library page's hello seen"
for proc in /proc/[0-9]*; do
  [ "$(readlink "$proc/root" 2>/dev/null)" = "$root" ] && kill "${proc#/proc/}" 2>/dev/null
done
for _ in $(seq 50); do
  left=0
  for proc in /proc/[0-9]*; do
    [ "$(readlink "$proc/root" 2>/dev/null)" = "$root" ] && left=1
  done
  [ "$left" = 0 ] && break
  sleep 0.2
done
wait "$orvane_pid" 2>/dev/null || true

# 5. Purge: nothing of the package may stay.
in_root dpkg-query -L orvane > "$work/files"
in_root apt-get purge -y orvane > "$work/apt-purge.log" 2>&1 || { cat "$work/apt-purge.log"; fail "apt-get purge"; }
[ "$(in_root dpkg-query -W -f='${db:Status-Status}' orvane 2>/dev/null || echo not-installed)" != installed ] \
  || fail "orvane is still installed"
left=()
while IFS= read -r path; do
  [ -n "$path" ] || continue
  # Folders shared with other packages (/usr/bin, /usr/share/...) stay.
  if [ -L "$root$path" ] || [ -f "$root$path" ]; then left+=("$path"); fi
  if [ -d "$root$path" ] && [ ! -L "$root$path" ] && [[ "$path" == /opt/orvane* || "$path" == /usr/share/doc/orvane* ]]; then
    left+=("$path/")
  fi
done < "$work/files"
[ ${#left[@]} -eq 0 ] || fail "left after purge: ${left[*]}"
[ ! -e "$root/opt/orvane" ] || fail "/opt/orvane is left after purge"
! grep -q 'com.tarnwick.orvane' "$root/usr/share/applications/mimeinfo.cache" 2>/dev/null \
  || fail "the desktop database still names Orvane after purge"
say "purged: none of its $(grep -c . "$work/files") paths is left"
say "OK ($version)"
