#!/bin/sh
# Install the Claude Code command-line tool for the end-to-end tests.
#
# Orvane drives the real `claude` in one of its end-to-end tests. That test
# uses build/claude-code/bin/claude, which this script installs from the npm
# registry with the system's npm:
#
#     npm install -g --prefix build/claude-code @anthropic-ai/claude-code
#
# Usage: scripts/install-claude-code.sh [PREFIX]   (default: build/claude-code)
# Safe to run again and again; prints nothing when the tool is in place.
# Without npm, or when npm cannot reach the registry, it says why and exits
# 0, so `make test` still runs; the test that needs the tool is then skipped.
set -eu

here=$(cd "$(dirname "$0")" && pwd)
prefix=${1:-"$here/../build/claude-code"}
package=@anthropic-ai/claude-code

installed() {
    [ -x "$prefix/bin/claude" ] && [ -f "$prefix/lib/node_modules/$package/package.json" ]
}

if installed; then
    exit 0
fi

if ! command -v npm >/dev/null 2>&1; then
    echo "install-claude-code: npm is not installed (apt-get install npm);" \
        "the test that runs the real Claude Code will be skipped" >&2
    exit 0
fi

mkdir -p "$prefix"
log="$prefix/npm-install.log"
# --no-fund/--no-audit/--loglevel keep npm quiet; its full output goes to the
# log, which is shown when the install fails.
# A machine without the registry (offline) is not an error of the build:
# the reason is shown and the test that needs the tool is skipped.
if ! npm install -g --prefix "$prefix" --no-fund --no-audit --loglevel=error "$package" \
        >"$log" 2>&1; then
    echo "install-claude-code: npm could not install $package into $prefix" \
        "(the test that runs the real Claude Code will be skipped):" >&2
    tail -n 20 "$log" >&2
    exit 0
fi

if ! installed; then
    echo "install-claude-code: npm finished but $prefix/bin/claude is missing (see $log);" \
        "the test that runs the real Claude Code will be skipped" >&2
    exit 0
fi
