#!/usr/bin/python3
"""Start-up, memory and idle cost of Orvane against a one-view WebKitGTK
program (the floor, `orvane_startup_floor`), measured in the same run with
the runs alternating.

Both load the same loopback page (bench/startup/site/index.html), which says
"hello" on the "panel" channel as soon as it is parsed and reports when the
answer arrived. Each program runs on a private desktop of its own (Xvfb,
openbox, a private bus, from the end-to-end harness) in a throwaway home, and
for each run the benchmark prints:

- exec -> "hello" answered: from just before the program is started to the
  page's receipt of the "claudeStatus" answer, both in epoch milliseconds;
- total PSS of the process tree (the program, WebKit's web and network
  processes, anything else it started) once the page has settled;
- context switches per second of the tree over idle seconds, voluntary and
  involuntary, summed over every thread of every process.

    /usr/bin/python3 bench/startup/startup_bench.py [--runs 7] [--idle-runs 5] [--threads] [--sources]
        [--idle-from 3] [--idle-seconds 10] [--mappings]

The figures are medians; each Orvane figure is printed against the floor's
as a ratio, with its goal (reported, never enforced). `--threads` lists, for
the last idle window of each program, every thread that woke up, by process
and thread name; `--idle-from` and `--idle-seconds` place the idle window
(the steady state: `--idle-from 60`; the whole first minute: `--idle-seconds
60`); `--mappings` lists each kind of process's private memory by mapped file.
"""

from __future__ import annotations

import argparse
import contextlib
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from dataclasses import dataclass, field
from pathlib import Path

REPO = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(REPO / "tests" / "e2e"))

from harness import (  # noqa: E402
    APP_ID, Desktop, FixtureSite, Home, WaitTimeout, orvane_binary, stop_process_group, wait_until)

PAGE_ROOT = Path(__file__).resolve().parent / "site"
# The page has settled this long after its hello was answered.
SETTLE_S = 3.0
IDLE_S = 10.0


def floor_binary() -> Path:
    return Path(os.environ.get("ORVANE_STARTUP_FLOOR") or REPO / "build" / "orvane_startup_floor").absolute()


# --------------------------------------------------------------------------
# the process tree, read from /proc


def _stat_fields(pid: int) -> list[bytes] | None:
    try:
        with open(f"/proc/{pid}/stat", "rb") as fh:
            return fh.read().rsplit(b")", 1)[1].split()
    except OSError:
        return None


def process_tree(root: int) -> list[int]:
    """The root and every process that descends from it or shares its
    session (the root leads a session of its own: a helper that was handed
    to another parent still counts)."""
    parents: dict[int, int] = {}
    sessions: dict[int, int] = {}
    for name in os.listdir("/proc"):
        if not name.isdigit():
            continue
        fields = _stat_fields(int(name))
        if not fields or fields[0] == b"Z":
            continue
        parents[int(name)] = int(fields[1])
        sessions[int(name)] = int(fields[3])
    tree = {root} if root in parents else set()
    grew = True
    while grew:
        grew = False
        for pid, parent in parents.items():
            if pid not in tree and (parent in tree or sessions[pid] == root):
                tree.add(pid)
                grew = True
    return sorted(tree)


def read_text(path: str) -> str:
    try:
        with open(path, encoding="utf-8", errors="replace") as fh:
            return fh.read()
    except OSError:
        return ""


def private_kib_by_mapping(pid: int) -> dict[str, int]:
    """The private memory of a process by what it maps: a file's path, or the
    kernel's name for an anonymous mapping ("[heap]", "[anon]" for the rest)."""
    sizes: dict[str, int] = {}
    mapping = "[anon]"
    for line in read_text(f"/proc/{pid}/smaps").splitlines():
        head = line.split(None, 5)
        if head and "-" in head[0] and not head[0].endswith(":"):
            mapping = head[5].strip() if len(head) > 5 else "[anon]"
        elif line.startswith(("Private_Clean:", "Private_Dirty:")):
            sizes[mapping] = sizes.get(mapping, 0) + int(line.split()[1])
    return sizes


def memory_kib(pid: int) -> tuple[int, int]:
    """(PSS, private memory) of a process: its proportional share of every
    page it maps, and the pages it alone maps (which other programs on the
    machine that map the same libraries do not change)."""
    pss = private = 0
    for line in read_text(f"/proc/{pid}/smaps_rollup").splitlines():
        if line.startswith("Pss:"):
            pss = int(line.split()[1])
        elif line.startswith(("Private_Clean:", "Private_Dirty:")):
            private += int(line.split()[1])
    return pss, private


@dataclass
class ThreadCount:
    process: str
    thread: str
    switches: int


def switch_counts(tree: list[int]) -> dict[tuple[int, int], ThreadCount]:
    """Voluntary + involuntary context switches of every thread of the tree,
    keyed by (pid, tid)."""
    counts = {}
    for pid in tree:
        process = read_text(f"/proc/{pid}/comm").strip()
        try:
            tids = os.listdir(f"/proc/{pid}/task")
        except OSError:
            continue
        for tid in tids:
            status = read_text(f"/proc/{pid}/task/{tid}/status")
            total = 0
            for line in status.splitlines():
                if line.startswith(("voluntary_ctxt_switches:", "nonvoluntary_ctxt_switches:")):
                    total += int(line.split()[1])
            if status:
                counts[(pid, int(tid))] = ThreadCount(
                    process, read_text(f"/proc/{pid}/task/{tid}/comm").strip(), total)
    return counts


def source_counts(tree: list[int], folder: Path) -> dict[tuple[int, str, str], int]:
    """Main-loop source dispatches so far of every process of the tree that
    has the source counter loaded, keyed by (pid, thread, source): a "dump"
    file made in its folder asks each of them for its counts."""
    counted = [pid for pid in tree if "orvane_source_counter" in read_text(f"/proc/{pid}/maps")]
    asked = time.time()
    (folder / f"dump-{asked:.6f}").touch()

    def written():
        return all((folder / f"{pid}.txt").exists() and (folder / f"{pid}.txt").stat().st_mtime >= asked - 0.01
                   for pid in counted)
    with contextlib.suppress(WaitTimeout):
        wait_until(written, 3, interval=0.05)
    counts = {}
    for pid in counted:
        for line in read_text(str(folder / f"{pid}.txt")).splitlines():
            parts = line.split("\t")
            if len(parts) == 3 and parts[2].isdigit():
                counts[(pid, parts[0], parts[1])] = int(parts[2])
    return counts


@dataclass
class IdleWindow:
    per_second: float
    threads: list[tuple[str, int, str, int, float]]  # process, pid, thread, tid, per second
    ended_threads: int
    # (pid, thread, source, dispatches) in the window, with --sources
    sources: list[tuple[int, str, str, int]] = field(default_factory=list)


# How often the idle window reads the threads' counts: a thread that ends
# meanwhile (WebKit's and JavaScriptCore's helper threads end after a few idle
# seconds) counts what it had switched when last read.
IDLE_SAMPLE_S = 0.25


def idle_window(root: int, seconds: float, sources_folder: Path | None = None) -> IdleWindow:
    """Context switches of the tree over `seconds`. A thread that starts
    meanwhile counts from zero; one that ends counts up to its last reading,
    a quarter of a second before it ended at most."""
    sources_before = source_counts(process_tree(root), sources_folder) if sources_folder else {}
    before = switch_counts(process_tree(root))
    last = dict(before)
    ended: set[tuple[int, int]] = set()
    deadline = time.monotonic() + seconds
    while (left := deadline - time.monotonic()) > 0:
        time.sleep(min(IDLE_SAMPLE_S, left))
        now = switch_counts(process_tree(root))
        ended.update(key for key in last if key not in now)
        last.update(now)
    sources_after = source_counts(process_tree(root), sources_folder) if sources_folder else {}
    threads = []
    total = 0
    for key, latest in last.items():
        delta = latest.switches - (before[key].switches if key in before else 0)
        total += delta
        if delta:
            threads.append((latest.process, key[0], latest.thread + (" (ended)" if key in ended else ""),
                            key[1], delta / seconds))
    threads.sort(key=lambda t: -t[4])
    sources = [(*key, count - sources_before.get(key, 0)) for key, count in sources_after.items()
               if count > sources_before.get(key, 0)]
    sources.sort(key=lambda s: -s[3])
    return IdleWindow(total / seconds, threads, len(ended), sources)


# --------------------------------------------------------------------------
# one program on its own desktop


@dataclass
class Series:
    name: str
    hello_ms: list[float] = field(default_factory=list)
    pss_mib: list[float] = field(default_factory=list)
    private_mib: list[float] = field(default_factory=list)
    processes: list[int] = field(default_factory=list)
    idle: list[IdleWindow] = field(default_factory=list)
    # (process name, pid, PSS KiB, private KiB) of each process of the last run
    last_tree: list[tuple[str, int, int, int]] = field(default_factory=list)
    # private KiB by mapping of each process of the last run, with --mappings
    last_mappings: list[tuple[str, dict[str, int]]] = field(default_factory=list)


class Program:
    def __init__(self, name: str, argv: list[str], home: Home, desktop: Desktop, site: FixtureSite,
                 owns_bus_name: bool, source_counter: Path | None = None, mappings: bool = False,
                 idle_from_s: float = SETTLE_S, idle_s: float = IDLE_S):
        self.name = name
        self.argv = argv
        self.home = home
        self.desktop = desktop
        self.site = site
        self.owns_bus_name = owns_bus_name
        self.out_path = home.path.parent / f"{name}.out"
        self.source_counter = source_counter
        self.sources_folder = home.path.parent / "source-counts"
        self.mappings = mappings
        self.idle_from_s = idle_from_s
        self.idle_s = idle_s

    def run(self, series: Series | None, measure_idle: bool) -> None:
        """One start, measured into `series` (None: a warm-up run)."""
        if self.owns_bus_name:
            wait_until(lambda: not self.desktop.name_has_owner(APP_ID), 10,
                       what=f"the bus name {APP_ID} to be free")
        seen = len(self.site.records("mark"))
        env = self.home.env()
        if self.source_counter:
            shutil.rmtree(self.sources_folder, ignore_errors=True)
            self.sources_folder.mkdir()
            env.update(LD_PRELOAD=str(self.source_counter), SOURCE_COUNTER_DIR=str(self.sources_folder))
        with open(self.out_path, "ab") as out:
            started = time.time() * 1000
            proc = subprocess.Popen(self.argv, env=env, cwd=self.home.path,
                                    stdin=subprocess.DEVNULL, stdout=out, stderr=subprocess.STDOUT,
                                    start_new_session=True)
        try:
            def answered():
                if proc.poll() is not None:
                    raise RuntimeError(f"{self.name} exited with {proc.returncode}; see {self.out_path}")
                marks = self.site.records("mark")[seen:]
                return marks[0] if marks else None
            mark = wait_until(answered, 60, interval=0.02, what=f"{self.name}'s page to have its hello answered")
            hello_ms = mark.data["helloAnsweredAt"] - started
            time.sleep(max(0.0, mark.data["helloAnsweredAt"] / 1000 + SETTLE_S - time.time()))
            tree = process_tree(proc.pid)
            memory = [memory_kib(pid) for pid in tree]
            names = [read_text(f"/proc/{pid}/comm").strip() or "?" for pid in tree]
            pss = sum(m[0] for m in memory) / 1024
            private = sum(m[1] for m in memory) / 1024
            by_mapping = [private_kib_by_mapping(pid) for pid in tree] if self.mappings else []
            idle = None
            if measure_idle:
                time.sleep(max(0.0, mark.data["helloAnsweredAt"] / 1000 + self.idle_from_s - time.time()))
                idle = idle_window(proc.pid, self.idle_s, self.sources_folder if self.source_counter else None)
        finally:
            stop_process_group(proc)
        if series is None:
            return
        series.hello_ms.append(hello_ms)
        series.pss_mib.append(pss)
        series.private_mib.append(private)
        series.last_tree = [(name, pid, m[0], m[1]) for name, pid, m in zip(names, tree, memory)]
        series.processes.append(len(tree))
        series.last_mappings = list(zip(names, by_mapping))
        if idle:
            series.idle.append(idle)
        note = f"  idle {idle.per_second:6.1f} switches/s" if idle else ""
        print(f"  {self.name:<7} hello {hello_ms:6.0f} ms  PSS {pss:6.1f} MiB (private {private:6.1f}) "
              f"in {len(tree)} processes{note}",
              flush=True)


def load_text() -> str:
    return " ".join(read_text("/proc/loadavg").split()[:3])


def ratio_line(label: str, unit: str, floor: float, orvane: float, goal: str, met: bool, digits: int = 0) -> str:
    ratio = orvane / floor if floor else float("inf")
    return (f"{label:<38} floor {floor:8.{digits}f} {unit:<4} Orvane {orvane:8.{digits}f} {unit:<4} "
            f"{ratio:5.2f} x   goal {goal}: {'met' if met else 'NOT met'}")


def print_processes(series: Series) -> None:
    print(f"{series.name}: memory of each process in its last run")
    for process, pid, pss, private in series.last_tree:
        print(f"    {process:<16} {pid:>7}  PSS {pss / 1024:6.1f} MiB  private {private / 1024:6.1f} MiB")


def print_mappings(floor: Series, orvane: Series, smallest_kib: int = 64) -> None:
    """Private memory by mapping, per kind of process, Orvane against the
    floor, largest difference first."""
    def by_kind(series: Series) -> dict[str, dict[str, int]]:
        kinds: dict[str, dict[str, int]] = {}
        for name, sizes in series.last_mappings:
            kind = name if name.startswith("WebKit") else "UI process"
            merged = kinds.setdefault(kind, {})
            for mapping, kib in sizes.items():
                merged[mapping] = merged.get(mapping, 0) + kib
        return kinds
    f_kinds, o_kinds = by_kind(floor), by_kind(orvane)
    for kind in sorted(set(f_kinds) | set(o_kinds)):
        f, o = f_kinds.get(kind, {}), o_kinds.get(kind, {})
        print(f"{kind}: private memory by mapping, KiB (floor, Orvane, difference), "
              f"total {sum(f.values())} and {sum(o.values())}")
        rows = [(o.get(m, 0) - f.get(m, 0), m) for m in set(f) | set(o)]
        for diff, mapping in sorted(rows, key=lambda r: -abs(r[0])):
            if abs(diff) >= smallest_kib:
                print(f"    {f.get(mapping, 0):8d} {o.get(mapping, 0):8d} {diff:+8d}  {mapping}")


def print_threads(name: str, window: IdleWindow, seconds: float) -> None:
    print(f"{name}: threads that woke up in its last idle window ({seconds:.0f} s), switches per second")
    for process, pid, thread, tid, rate in window.threads:
        print(f"    {process:<16} {pid:>7}  {thread:<16} {tid:>7}  {rate:6.1f}")
    if window.ended_threads:
        print(f"    ({window.ended_threads} threads ended during the window, counted up to their last reading)")
    if window.sources:
        print(f"  main-loop sources dispatched in that window (pid, thread, dispatches, source)")
        for pid, thread, source, count in window.sources:
            print(f"    {pid:>7}  {thread:<16} {count:5d}  {source}")


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--runs", type=int, default=7, help="measured starts of each program")
    parser.add_argument("--idle-runs", type=int, default=5,
                        help="of these, how many also measure the idle window")
    parser.add_argument("--threads", action="store_true",
                        help="list the threads that woke up in each program's last idle window "
                             "and the memory of each process")
    parser.add_argument("--sources", action="store_true",
                        help="also count the main-loop sources that fire in the idle windows "
                             "(with the source counter loaded into both programs; implies --threads)")
    parser.add_argument("--idle-from", type=float, default=SETTLE_S, metavar="SECONDS",
                        help="start the idle window this long after the answer (default %(default)s; "
                             "later windows show the steady state, once both pages' heaps have settled)")
    parser.add_argument("--idle-seconds", type=float, default=IDLE_S, metavar="SECONDS",
                        help="how long the idle window lasts (default %(default)s)")
    parser.add_argument("--mappings", action="store_true",
                        help="also list each kind of process's private memory by mapped file, "
                             "Orvane against the floor, for the last run")
    args = parser.parse_args()
    counter = None
    if args.sources:
        args.threads = True
        counter = Path(os.environ.get("ORVANE_SOURCE_COUNTER") or
                       REPO / "build" / "orvane_source_counter.so").absolute()
        if not counter.is_file():
            print(f"missing {counter}: build the target orvane_source_counter", file=sys.stderr)
            return 1

    for binary in (orvane_binary(), floor_binary()):
        if not os.access(binary, os.X_OK):
            print(f"missing {binary}: build it first (make bench builds both)", file=sys.stderr)
            return 1

    began = time.monotonic()
    print(f"start-up benchmark: {os.cpu_count()} cores, load average {load_text()} at the start", flush=True)
    scratch = Path(tempfile.mkdtemp(prefix="orvane-startup-bench-"))
    site = FixtureSite(root=PAGE_ROOT).start()
    desktops: list[Desktop] = []
    try:
        floor_desktop = Desktop().start()
        desktops.append(floor_desktop)
        orvane_desktop = Desktop().start()
        desktops.append(orvane_desktop)
        floor_home = Home(scratch / "floor" / "home", floor_desktop)
        orvane_home = Home(scratch / "orvane" / "home", orvane_desktop)
        orvane_home.write_settings(AppURL=site.url, ProjectDir=str(scratch / "no-such-project"))
        programs = [
            Program("floor", [str(floor_binary()), site.url + "/"], floor_home, floor_desktop, site, False,
                    counter, args.mappings, args.idle_from, args.idle_seconds),
            Program("Orvane", [str(orvane_binary())], orvane_home, orvane_desktop, site, True, counter,
                    args.mappings, args.idle_from, args.idle_seconds),
        ]
        series = {p.name: Series(p.name) for p in programs}
        # One start of each first, unmeasured: both then start with their
        # files in the page cache and their homes made.
        for program in programs:
            program.run(None, False)
        for n in range(args.runs):
            # The order swaps every run, so that neither is always first.
            for program in (programs if n % 2 == 0 else programs[::-1]):
                program.run(series[program.name], n < args.idle_runs)
    finally:
        site.stop()
        for desktop in desktops:
            desktop.stop()

    floor, orvane = series["floor"], series["Orvane"]
    med = statistics.median
    print()
    print(f"medians of {args.runs} runs each, alternating; load average {load_text()} at the end")
    print(ratio_line('exec -> "hello" answered', "ms", med(floor.hello_ms), med(orvane.hello_ms),
                     "<= 1.0 x", med(orvane.hello_ms) <= med(floor.hello_ms)))
    print(f"{'':<38} floor {min(floor.hello_ms):.0f}-{max(floor.hello_ms):.0f} ms, "
          f"Orvane {min(orvane.hello_ms):.0f}-{max(orvane.hello_ms):.0f} ms")
    print(ratio_line(f"total PSS {SETTLE_S:.0f} s after the answer", "MiB", med(floor.pss_mib),
                     med(orvane.pss_mib), "<= 1.0 x", med(orvane.pss_mib) <= med(floor.pss_mib), 1))
    print(ratio_line("  of which private memory", "MiB", med(floor.private_mib), med(orvane.private_mib),
                     "<= 1.0 x", med(orvane.private_mib) <= med(floor.private_mib), 1))
    print(f"{'':<38} processes: floor {med(floor.processes):.0f}, Orvane {med(orvane.processes):.0f}")
    if floor.idle and orvane.idle:
        f_idle = med([w.per_second for w in floor.idle])
        o_idle = med([w.per_second for w in orvane.idle])
        print(ratio_line(f"context switches /s, {args.idle_seconds:.0f} s from {args.idle_from:.0f} s (n={len(orvane.idle)})", "/s",
                         f_idle, o_idle, "<= floor", o_idle <= f_idle, 1))
        if args.threads:
            print()
            print_threads("floor", floor.idle[-1], args.idle_seconds)
            print_threads("Orvane", orvane.idle[-1], args.idle_seconds)
    if args.threads:
        print()
        print_processes(floor)
        print_processes(orvane)
    if args.mappings:
        print()
        print_mappings(floor, orvane)
    print(f"(the run took {time.monotonic() - began:.0f} s)")
    return 0


if __name__ == "__main__":
    sys.exit(main())
