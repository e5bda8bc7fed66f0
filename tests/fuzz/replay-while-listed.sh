#!/usr/bin/env bash
# Replays a fuzz target's corpus ROUNDS times over while other processes
# keep walking its temporary folder, following links, and reading every file
# in it: what the target decides must not depend on what other processes do.
#   replay-while-listed.sh REPLAY_BINARY CORPUS ROUNDS
set -u
binary=$1
corpus=$2
rounds=$3
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
mkdir "$tmp/work"
args=()
for ((i = 0; i < rounds; i++)); do
  args+=("$corpus")
done
TMPDIR="$tmp/work" "$binary" "${args[@]}" >"$tmp/replay.log" 2>&1 &
replay=$!
walks=0
while kill -0 "$replay" 2>/dev/null; do
  find -L "$tmp/work" -type f -exec cat {} + >/dev/null 2>&1
  walks=$((walks + 1))
done
wait "$replay"
status=$?
tail -n 3 "$tmp/replay.log"
echo "$walks walks of the temporary folder during the replay; exit status $status"
exit $status
