#!/usr/bin/env python3
"""Every main-loop source that Orvane's own code adds has a name, so that a
profiler or a debugger can say which one woke the process up.

A source added by id (g_timeout_add, g_idle_add, g_unix_fd_add, ...) must be
named with g_source_set_name_by_id within the next lines; a source attached
as an object (g_source_attach(source, ...)) must have been named with
g_source_set_name(source, ...) before it is attached. Prints each unnamed
one and exits 1 when there is any."""

import pathlib
import re
import sys

ADDED_BY_ID = re.compile(
    r"\b(g_timeout_add(_full|_seconds|_seconds_full)?|g_idle_add(_full)?|g_unix_fd_add(_full)?|"
    r"g_io_add_watch(_full)?|g_child_watch_add(_full)?|g_unix_signal_add(_full)?)\s*\(")
ATTACHED = re.compile(r"\bg_source_attach\s*\(\s*([^,]+?)\s*,")
LOOK_AHEAD = 25
LOOK_BEHIND = 40


def unnamed_sources(path: pathlib.Path) -> list[str]:
    lines = path.read_text(encoding="utf-8").splitlines()
    found = []
    for number, line in enumerate(lines):
        code = line.split("//", 1)[0]
        if ADDED_BY_ID.search(code):
            after = "\n".join(lines[number:number + LOOK_AHEAD])
            if "g_source_set_name_by_id(" not in after:
                found.append(f"{path}:{number + 1}: {line.strip()}")
        attached = ATTACHED.search(code)
        if attached:
            source = re.escape(attached.group(1))
            before = "\n".join(lines[max(0, number - LOOK_BEHIND):number])
            if not re.search(r"g_source_set_name\s*\(\s*" + source + r"\s*,", before):
                found.append(f"{path}:{number + 1}: {line.strip()}")
    return found


def main() -> int:
    root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else "src")
    files = sorted(p for p in root.rglob("*") if p.suffix in (".cpp", ".h", ".c"))
    if not files:
        print(f"no source files under {root}")
        return 2
    unnamed = [entry for path in files for entry in unnamed_sources(path)]
    for entry in unnamed:
        print("unnamed main-loop source:", entry)
    print(f"{len(files)} files looked at, {len(unnamed)} unnamed sources")
    return 1 if unnamed else 0


if __name__ == "__main__":
    sys.exit(main())
