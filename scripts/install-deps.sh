#!/usr/bin/env bash
# Installs every Debian package that building, running and testing Orvane
# needs. Idempotent: prints nothing and does nothing when all are present.
set -euo pipefail

packages=(
  # build
  build-essential cmake ninja-build pkg-config git clang-format
  libgtk-3-dev libwebkit2gtk-4.1-dev libsoup-3.0-dev libx11-dev
  nlohmann-json3-dev libgtest-dev libgmock-dev libbenchmark-dev
  libkeybinder-3.0-dev libxtst-dev libxres-dev libxfixes-dev libx11-xcb-dev libxcb-res0-dev libpoppler-glib-dev
  libwnck-3-dev libsodium-dev libarchive-dev
  # Wayland selections: libwayland-client, wayland-scanner for the generated
  # protocol code, KWin's protocol files (fake-input)
  libwayland-dev libwayland-bin plasma-wayland-protocols
  # Wayland sessions: the quick panel as a layer-shell surface
  libgtk-layer-shell-dev
  # releases (scripts/make-release.sh: dpkg-shlibdeps from dpkg-dev, objdump
  # from binutils) and their checks in the tests (lintian)
  zip unzip dpkg-dev binutils lintian
  # only for `make package-check` (scripts/package-check.sh): the minimal
  # Debian root and the loopback of its network namespace (ip); Xvfb comes
  # with the tests' packages below
  debootstrap iproute2
  # fuzzing (make fuzz): clang with libFuzzer
  clang libclang-rt-14-dev
  # the program
  libglib2.0-bin xdg-utils shared-mime-info desktop-file-utils dbus dbus-x11
  # the reference site
  python3 python3-venv python3-fastapi python3-uvicorn python3-multipart python3-cairo
  poppler-utils
  # tests
  python3-pytest python3-gi gir1.2-webkit2-4.1 fonts-dejavu-extra xvfb xauth openbox xdotool x11-utils x11-xserver-utils
  xterm xclip zathura zathura-pdf-poppler gir1.2-gtk-3.0
  imagemagick fonts-dejavu-core at-spi2-core
  # two-monitor end-to-end tests: Xorg with the dummy video driver
  xserver-xorg-core xserver-xorg-video-dummy
  # Wayland end-to-end tests (tests/wayland, tests/e2e/wayland): headless KWin
  # with XWayland and the desktop portals (the KDE portal needs Qt's Wayland
  # platform, which it only recommends), headless mutter, and KWin's
  # fake-input protocol for the key presser (above, with the build's);
  # wl-clipboard reads the selections
  kwin-wayland xwayland xdg-desktop-portal xdg-desktop-portal-kde qtwayland5
  mutter wl-clipboard
  # Orvane's GNOME Shell extension: glib-compile-schemas builds its settings;
  # its tests run it in a headless gnome-shell (tests/wayland/sessions.py),
  # and gjs checks its GNOME 45 form as an ES module
  libglib2.0-bin gnome-shell gjs
)

# Commands that some machines have from elsewhere than Debian's packages (a
# newer Node.js, say): installed from Debian only when the command is missing.
# node runs the site's script tests, npm installs the Claude Code CLI for the
# end-to-end test that drives the real agent.
declare -A commands=([node]=nodejs [npm]=npm)

missing=()
for package in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null || true)
  [ "$status" = "installed" ] || missing+=("$package")
done
for command in "${!commands[@]}"; do
  command -v "$command" >/dev/null 2>&1 || missing+=("${commands[$command]}")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
