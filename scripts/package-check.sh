#!/usr/bin/env bash
# `make package-check`: a release tried the way a new user tries it, on a
# clean, minimal Debian 12.
#
#   1. a release (version 9.9.9, a throwaway key) by scripts/make-release.sh,
#      or the Debian package given as the argument (and the zip beside it);
#   2. a minimal root: debootstrap --variant=minbase bookworm (made once and
#      kept in the cache folder; each try works on a fresh copy);
#   3. the Debian package: apt-get install ./orvane_9.9.9_amd64.deb in that
#      root, without the Recommends, so that the Depends alone must be
#      enough; its libraries, its site's packages, its registration for
#      PDFs and its signed folder are checked;
#   4. Orvane started as an ordinary user with a throwaway home, as `orvane`
#      from the PATH, on an Xvfb display of this machine, in a network
#      namespace of its own (its bundled site takes 127.0.0.1:8000 there,
#      whatever this machine runs): the start banner and the library page's
#      "hello" must reach the log;
#   5. apt-get purge orvane: no file of the package may be left;
#   6. the zip, in another fresh root: the one apt-get install command of its
#      README.txt, then unzip into the user's home and the same start.
#
# Usage: scripts/package-check.sh [DEB]
# Needs root (chroot, mounts, unshare), debootstrap, Xvfb and a Debian
# mirror; it downloads about 330 MB into the roots (the packages are kept in
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
for tool in debootstrap chroot unshare Xvfb ip dpkg-deb unzip; do
  command -v "$tool" >/dev/null || fail "$tool is missing (scripts/install-deps.sh)"
done

mirror=${ORVANE_PACKAGE_CHECK_MIRROR:-}
if [ -z "$mirror" ]; then
  mirror=$(sed -n 's/^URIs: *\([^ ]*\/debian\)\/\{0,1\}$/\1/p' /etc/apt/sources.list.d/*.sources 2>/dev/null | head -n1)
  [ -n "$mirror" ] || mirror=$(awk '$1 == "deb" && $2 ~ /\/debian\/?$/ { print $2; exit }' /etc/apt/sources.list 2>/dev/null || true)
  [ -n "$mirror" ] || mirror=http://deb.debian.org/debian
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/orvane-package-check-XXXXXX")
root=""
mounted=()
xvfb_pid=""
# The pids of the processes that run inside one of this check's roots: all
# of them were started by this check.
pids_in_roots() {
  local proc target
  for proc in /proc/[0-9]*; do
    target=$(readlink "$proc/root" 2>/dev/null) || continue
    [[ "$target" == "$work/"* ]] && echo "${proc#/proc/}"
  done
  return 0
}
end_processes_in_roots() {
  local pid
  for pid in $(pids_in_roots); do kill "$pid" 2>/dev/null || true; done
  for _ in $(seq 50); do
    [ -z "$(pids_in_roots)" ] && return 0
    sleep 0.2
  done
  for pid in $(pids_in_roots); do kill -9 "$pid" 2>/dev/null || true; done
}
cleanup() {
  set +e
  end_processes_in_roots
  [ -n "$xvfb_pid" ] && kill "$xvfb_pid" 2>/dev/null
  local still_mounted=0
  for ((i = ${#mounted[@]} - 1; i >= 0; i--)); do
    umount "${mounted[$i]}" 2>/dev/null || umount -l "${mounted[$i]}" || still_mounted=1
  done
  # A bind that is still there may lead to the machine's own files (the apt
  # cache, the X socket folder) on the same file system: then nothing is
  # removed, and the folder is named instead.
  if [ "$still_mounted" -eq 0 ]; then
    rm -rf --one-file-system "$work"
  else
    echo "package-check: $work is left in place, a mount in it could not be undone" >&2
  fi
}
trap cleanup EXIT

# 1. The release.
deb=${1:-}
if [ -z "$deb" ]; then
  [ -x "$repo/build/orvane-sign" ] || fail "build/orvane-sign is missing (make build)"
  mkdir -p "$work/keys"
  "$repo/build/orvane-sign" keygen "$work/keys" >/dev/null \
    || fail "orvane-sign keygen failed"
  say "making release $version"
  "$repo/scripts/make-release.sh" --key "$work/keys/orvane-update.key" --version "$version" \
    --out "$work/out" >/dev/null
  deb="$work/out/orvane_${version}_amd64.deb"
fi
[ -f "$deb" ] || fail "no Debian package at $deb"
version=$(dpkg-deb -f "$deb" Version)
zip="$(dirname "$deb")/Orvane-$version-linux-x86_64.zip"

# 2. The minimal root, made once.
if [ ! -f "$cache/base/etc/debian_version" ]; then
  say "debootstrap --variant=minbase bookworm from $mirror"
  mkdir -p "$cache"
  rm -rf "$cache/base.tmp"
  debootstrap --variant=minbase bookworm "$cache/base.tmp" "$mirror" > "$cache/debootstrap.log" 2>&1 \
    || fail "debootstrap failed (see $cache/debootstrap.log)"
  mv "$cache/base.tmp" "$cache/base"
fi

# A display of this machine for every try; its socket folder is shared with
# the roots.
display=""
for n in $(seq 140 199); do
  if [ ! -e "/tmp/.X11-unix/X$n" ] && [ ! -e "/tmp/.X$n-lock" ]; then display=$n; break; fi
done
[ -n "$display" ] || fail "no free X display number"
Xvfb ":$display" -screen 0 1280x1024x24 -nolisten tcp > "$work/xvfb.log" 2>&1 &
xvfb_pid=$!
for _ in $(seq 100); do [ -S "/tmp/.X11-unix/X$display" ] && break; sleep 0.1; done
[ -S "/tmp/.X11-unix/X$display" ] || fail "Xvfb did not start"

bind() {
  mkdir -p "$2"
  mount --bind "$1" "$2"
  mounted+=("$2")
}
in_root() { chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 \
  DEBIAN_FRONTEND=noninteractive "$@"; }

# A fresh copy of the minimal root as $root, with apt ready and the user
# `try` (uid 4242, home /home/try).
new_root() {
  root="$work/$1"
  cp -a "$cache/base" "$root"
  mount -t proc proc "$root/proc"
  mounted+=("$root/proc")
  # A /dev of its own: the usual character devices bound from this
  # machine's, and a shared-memory folder that WebKit needs.
  mount -t tmpfs -o mode=755 dev "$root/dev"
  mounted+=("$root/dev")
  local node
  for node in null zero full random urandom tty; do
    touch "$root/dev/$node"
    mount --bind "/dev/$node" "$root/dev/$node"
    mounted+=("$root/dev/$node")
  done
  mkdir -m 1777 "$root/dev/shm"
  ln -s /proc/self/fd "$root/dev/fd"
  mkdir -p "$cache/archives/partial"
  bind "$cache/archives" "$root/var/cache/apt/archives"
  bind /tmp/.X11-unix "$root/tmp/.X11-unix"
  cp /etc/resolv.conf "$root/etc/resolv.conf"
  # The suites a new Debian 12 system has: the release, its updates and the
  # security updates.
  printf 'deb %s bookworm main\ndeb %s bookworm-updates main\ndeb %s bookworm-security main\n' \
    "$mirror" "$mirror" "${mirror%/debian}/debian-security" > "$root/etc/apt/sources.list"
  in_root apt-get update -qq > "$work/$1-apt-update.log" 2>&1 \
    || { cat "$work/$1-apt-update.log"; fail "apt-get update"; }
  in_root useradd --create-home --home-dir /home/try --uid 4242 --user-group try
  mkdir -p "$root/run/user/4242"
  chown 4242:4242 "$root/run/user/4242"
  chmod 700 "$root/run/user/4242"
}

# apt-get install ARGS... without the Recommends, reporting what it took.
install_in_root() {
  local before after
  before=$(in_root dpkg-query -W -f='${Package}\n' | wc -l)
  if ! in_root apt-get install -y --no-install-recommends "$@" > "$work/apt-install.log" 2>&1; then
    tail -n 30 "$work/apt-install.log"
    fail "apt-get install $*"
  fi
  after=$(in_root dpkg-query -W -f='${Package}\n' | wc -l)
  grep -E '^(Need to get|After this operation)' "$work/apt-install.log" | sed 's/^/package-check:   /' || true
  say "  $((after - before)) packages installed"
}

# Runs COMMAND as the user try with a throwaway home, on the display, in a
# network namespace of its own, until the start banner and the library
# page's "hello" are in the log; then ends every process in the root.
start_as_user() {
  local what=$1
  shift
  say "starting $what as user try on :$display"
  unshare --net -- sh -c 'ip link set lo up && exec "$@"' sh \
    chroot --userspec=4242:4242 "$root" env -i PATH=/usr/bin:/bin:/home/try/.local/bin \
    HOME=/home/try USER=try LANG=C.UTF-8 DISPLAY=":$display" XDG_RUNTIME_DIR=/run/user/4242 \
    NO_AT_BRIDGE=1 "$@" > "$work/orvane.out" 2>&1 &
  local pid=$! log="$root/home/try/.local/state/orvane/Orvane.log" banner="" hello=""
  for _ in $(seq 180); do
    [ -f "$log" ] && grep -q '=== Orvane .* started' "$log" && banner=yes
    [ -f "$log" ] && grep -q 'message: hello' "$log" && hello=yes
    [ -n "$banner" ] && [ -n "$hello" ] && break
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.5
  done
  say "Orvane's log:"
  sed 's/^/package-check:   | /' "$log" 2>/dev/null | head -n 40 || true
  if [ -z "$banner" ] || [ -z "$hello" ]; then
    say "its output:"; sed 's/^/package-check:   | /' "$work/orvane.out" | tail -n 30
    say "the site's log:"; sed 's/^/package-check:   | /' "$root/tmp/shelfkeep.log" 2>/dev/null | tail -n 30
    [ -n "$banner" ] || fail "$what: no start banner in the log"
    fail "$what: the library page said no hello (the bundled site did not serve it)"
  fi
  say "start banner and the library page's hello seen"
  end_processes_in_roots
  wait "$pid" 2>/dev/null || true
}

# 3. The Debian package.
new_root deb
cp "$deb" "$root/tmp/"
say "apt-get install --no-install-recommends ./$(basename "$deb")"
install_in_root "/tmp/$(basename "$deb")"
[ "$(in_root dpkg-query -W -f='${db:Status-Status}' orvane)" = installed ] || fail "orvane is not installed"
# What a user meets first: every library found, the command on the PATH,
# the desktop registered for PDFs.
for binary in /opt/orvane/bin/orvane /opt/orvane/bin/orvane-sign /usr/bin/python3; do
  missing=$(in_root ldd "$binary" | grep 'not found' || true)
  [ -z "$missing" ] || fail "$binary lacks libraries: $missing"
done
[ "$(readlink "$root/usr/bin/orvane")" = /opt/orvane/bin/orvane ] || fail "no /usr/bin/orvane link"
in_root python3 -c 'import fastapi, uvicorn, cairo, multipart' || fail "the site's Python packages are missing"
grep -q '^application/pdf=.*com.tarnwick.orvane.desktop' "$root/usr/share/applications/mimeinfo.cache" \
  || fail "the desktop database does not offer Orvane for PDFs"
in_root /opt/orvane/bin/orvane-sign verify /opt/orvane >/dev/null || fail "the installed folder does not verify"
say "libraries found, site packages importable, registered for PDFs, folder verifies"

# 4. The start.
start_as_user "orvane from the PATH" orvane

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

# 6. The zip, as its README.txt says.
if [ -f "$zip" ]; then
  new_root zip
  mapfile -t packages < <(unzip -p "$zip" Orvane/README.txt \
    | sed -n 's/^ *sudo apt-get install \([^.].*\)$/\1/p' | tr ' ' '\n' | grep -v '^$')
  [ ${#packages[@]} -gt 0 ] || fail "the zip's README.txt names no apt-get install command"
  say "apt-get install --no-install-recommends (the ${#packages[@]} packages of the zip's README.txt)"
  install_in_root "${packages[@]}"
  cp "$zip" "$root/home/try/"
  in_root su -s /bin/sh try -c "cd /home/try && unzip -q $(basename "$zip") -d Applications && \
    mkdir -p .local/bin && ln -sf /home/try/Applications/Orvane/bin/orvane .local/bin/orvane"
  in_root /home/try/Applications/Orvane/bin/orvane-sign verify /home/try/Applications/Orvane >/dev/null \
    || fail "the unzipped folder does not verify"
  start_as_user "the unzipped Orvane, linked into ~/.local/bin" orvane
else
  say "no zip beside the package ($zip): the zip is not tried"
fi
say "OK ($version)"
