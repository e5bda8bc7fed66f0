#!/usr/bin/env bash
# Registers this build of Orvane with the desktop, so that "Open With" offers
# it for PDFs and a PDF given to it goes to the running instance. Idempotent.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
binary="$root/build/orvane"
applications="${XDG_DATA_HOME:-$HOME/.local/share}/applications"
target="$applications/com.tarnwick.orvane.desktop"
mkdir -p "$applications"
entry=$(sed "s|@ORVANE@|$binary|" "$root/data/com.tarnwick.orvane.desktop.in")
if [ ! -f "$target" ] || [ "$(cat "$target")" != "$entry" ]; then
  printf '%s\n' "$entry" > "$target"
  command -v update-desktop-database >/dev/null && update-desktop-database -q "$applications" || true
fi
