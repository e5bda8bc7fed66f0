#!/bin/sh
# Prepare the Python environment of the reference library site.
#
# The site runs on Debian's own FastAPI, uvicorn and pycairo (no other
# package index is reachable), so site/.venv is a venv of /usr/bin/python3
# that sees the system's packages. Debian ships no `uvicorn` command, so one
# is written into the venv: then `.venv/bin/uvicorn main:app --port 8000`,
# run in site/, starts the site, as Orvane's development-server start does.
#
# Usage: scripts/prepare-site-venv.sh [--relocatable] [VENV_DIR]
#   (default: site/.venv)
# Safe to run again and again; prints nothing when everything is in place.
#
# --relocatable makes the environment of an install folder. It must work
# wherever the folder is unpacked, hold no link that leads out of it (the
# signature refuses one, and so does the update's unpacking) and carry no
# interpreter of its own: a copied python3 never gets Debian's security
# updates. So it holds two small scripts, `bin/python` and `bin/uvicorn`,
# that run Debian's /usr/bin/python3 itself (with -B, so that running the
# site writes no __pycache__ into the signed folder). With nothing installed
# into it, a venv with --system-site-packages sees exactly what Debian's
# python3 sees, so nothing is lost.
set -eu

here=$(cd "$(dirname "$0")" && pwd)
relocatable=no
if [ "${1:-}" = "--relocatable" ]; then
    relocatable=yes
    shift
fi
venv=${1:-"$here/../site/.venv"}
# The Debian interpreter by full path: a python earlier on PATH (pyenv, for
# one) cannot see Debian's packages.
python=/usr/bin/python3

fail() {
    echo "prepare-site-venv: $*" >&2
    exit 1
}

[ -x "$python" ] || fail "$python is missing (apt-get install python3)"

missing=$("$python" -c '
import importlib.util
wanted = {"fastapi": "python3-fastapi", "uvicorn": "python3-uvicorn",
          "pydantic": "python3-pydantic", "cairo": "python3-cairo"}
print(" ".join(pkg for mod, pkg in wanted.items() if importlib.util.find_spec(mod) is None))
')
[ -z "$missing" ] || fail "missing Debian packages: $missing (apt-get install $missing)"

venv_works() {
    [ -x "$venv/bin/python" ] && "$venv/bin/python" -c 'import fastapi, uvicorn, cairo' 2>/dev/null
}

if [ "$relocatable" = yes ]; then
    if [ -e "$venv" ]; then
        # Only an environment this script made (or an old copied venv) is
        # replaced; anything else is left alone.
        [ -f "$venv/pyvenv.cfg" ] || [ -f "$venv/bin/uvicorn" ] \
            || fail "$venv exists and is not a site environment"
        rm -rf -- "$venv"
    fi
    mkdir -p "$venv/bin"
    printf '%s\n' '#!/bin/sh' "# Debian's python3, which sees Debian's packages (python3-fastapi," \
        "# python3-uvicorn, python3-cairo)." \
        "exec $python -B \"\$@\"" > "$venv/bin/python"
    printf '%s\n' '#!/bin/sh' "exec $python -B -m uvicorn \"\$@\"" > "$venv/bin/uvicorn"
    chmod 755 "$venv/bin/python" "$venv/bin/uvicorn"
    venv_works || fail "$venv does not see Debian's fastapi/uvicorn/cairo"
    exit 0
fi

if ! venv_works; then
    if [ -e "$venv" ] && [ ! -f "$venv/pyvenv.cfg" ]; then
        fail "$venv exists and is not a venv; move it away first"
    fi
    # --clear mends a venv made by another python; no pip: nothing is ever
    # installed into it, everything comes from Debian.
    "$python" -m venv --clear --system-site-packages --without-pip "$venv" \
        || fail "could not create $venv"
    venv_works || fail "$venv does not see Debian's fastapi/uvicorn/cairo"
fi

wrapper="$venv/bin/uvicorn"
wanted='#!/bin/sh
exec "$(dirname "$0")/python" -m uvicorn "$@"'
if [ ! -f "$wrapper" ] || [ "$(cat "$wrapper")" != "$wanted" ]; then
    printf '%s\n' "$wanted" > "$wrapper"
fi
[ -x "$wrapper" ] || chmod +x "$wrapper"
