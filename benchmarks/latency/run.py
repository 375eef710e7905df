"""How long others wait for a scan: the user, other tasks on the loop, and a machine at rest.

    run.py [--rounds N] [--tree FOLDER] [--idle-seconds N] [--write]

Each contestant runs in a process of its own, in turn. `--write` puts the figures into README.md
beside this file.
"""

import argparse
import importlib.util
import json
import os
import platform
import subprocess
import sys
import sysconfig
import tempfile
import time
from collections.abc import Callable, Iterator, Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Final

_HERE: Final = Path(__file__).resolve().parent
sys.path.append(str(_HERE.parents[1]))  # what is installed comes first

import loom.__main__

# A contestant that takes longer hangs.
_MOST_SECONDS: Final = 1_800

_MOST_P99: Final = 0.055
_MOST_LONGEST: Final = 0.065

_WAYS: Final = {
    "loom": "`loom`",
    "derived": "`loom` with the second stage of each file",
    "slices": "its scanners in slices of 50 ms, `sleep(0)` between them",
    "parse": "`ast.parse` file by file, `sleep(0)` between them",
    "nothing": "nobody scans",
}

# So many files leave 10,000 in the queue while the focus changes; so many links to the biggest file
# make its scan long enough to measure.
_FOCUS_FILES: Final = 16_000
_IDLE_FILES: Final = 1_000
_LINKS: Final = 20

# The largest file that `loom` reads.
_LARGEST: Final = 20 * 1024 * 1024

_WITH_HELPER: Final = "`loom watch` and its helper"

_FUNCTION: Final = """\
def function_{0}(first, second={0}):
    value = first + second
    return value
"""


@dataclass
class Delays:
    """Delays in seconds: of a timer, and of a byte's way to another task and back."""

    timer: list[float]
    talk: list[float]
    seconds: float

    def p99(self, which: str = "timer") -> float:
        lengths = sorted(getattr(self, which))
        return float(lengths[-(-(len(lengths) - 1) * 99 // 100)])

    def longest(self, which: str = "timer") -> float:
        return float(max(getattr(self, which)))


def command(name: str, *arguments: str | Path) -> list[str]:
    return [sys.executable, "-O", "-P", str(_HERE / "contestants.py"), name, *map(str, arguments)]


def ask(name: str, folder: Path) -> dict[str, Any]:
    """What one contestant has to tell of the folder."""
    with tempfile.TemporaryDirectory(prefix="bench-latency-") as work:
        done = subprocess.run(
            command(name, folder, work),
            stdout=subprocess.PIPE,
            text=True,
            timeout=_MOST_SECONDS,
            check=True,
        )
    result: dict[str, Any] = json.loads(done.stdout)
    return result


def delays(name: str, folder: Path, rounds: int) -> Delays:
    """All delays of all rounds together."""
    all_of_them = Delays([], [], 0.0)
    for _ in range(rounds):
        result = ask(name, folder)
        all_of_them.timer += result["timer"]
        all_of_them.talk += result["talk"]
        all_of_them.seconds += result["seconds"] / rounds
    return all_of_them


def make_files(top: Path, count: int) -> None:
    """Small modules in packages of a hundred."""
    text = '"""A module."""\n\nimport os\n\n\n' + "\n\n".join(
        _FUNCTION.format(number) for number in range(20)
    )
    for number in range(count):
        folder = top / f"package_{number // 100}"
        folder.mkdir(exist_ok=True)
        (folder / f"module_{number}.py").write_text(text)


def biggest_file() -> Path:
    """The biggest Python file on this machine that `loom` reads, without temporary ones."""
    passed_over = {"/proc", "/sys", "/dev", os.path.realpath(tempfile.gettempdir())}

    def sizes() -> Iterator[tuple[int, str]]:
        for folder, folders, names in os.walk("/"):
            folders[:] = [
                name for name in folders if os.path.join(folder, name) not in passed_over
            ]
            for name in names:
                if name.endswith(".py"):
                    path = os.path.join(folder, name)
                    try:
                        status = os.lstat(path)
                    except OSError:
                        continue
                    if not os.path.islink(path) and status.st_size <= _LARGEST:
                        yield status.st_size, path

    return Path(max(sizes())[1])


# --- at rest


@dataclass
class Rest:
    """What a process did while nothing happened."""

    seconds: float
    wakes: int
    cpu_seconds: float
    threads: int


def rest(start: Sequence[str], settled: Callable[[Any], bool], seconds: float) -> Rest:
    """Start a process, wait until a line of it is `settled`, and count for a time."""
    process = subprocess.Popen(start, stdout=subprocess.PIPE, text=True)
    try:
        assert process.stdout is not None
        if not any(settled(json.loads(line)) for line in process.stdout):
            raise RuntimeError(f"ended before it was at rest: {start}")
        time.sleep(3.0)  # its own end of the work, and that of its helper
        before = _counts(process.pid)
        time.sleep(seconds)
        after = _counts(process.pid)
    finally:
        process.terminate()
        process.communicate()
    return Rest(seconds, after[0] - before[0], after[1] - before[1], after[2])


def _counts(pid: int) -> tuple[int, float, int]:
    """How often the threads of a process and its children went to sleep or were put off, their
    processor time, and their number."""
    switches, cpu_seconds, threads = 0, 0.0, 0
    processes = [pid]
    while processes:
        folder = Path(f"/proc/{processes.pop()}")
        for task in (folder / "task").iterdir():
            threads += 1
            processes += map(int, (task / "children").read_text().split())
            for line in (task / "status").read_text().splitlines():
                if "ctxt_switches" in line:
                    switches += int(line.split()[1])
        fields = (folder / "stat").read_text().rpartition(")")[2].split()
        cpu_seconds += (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
    return switches, cpu_seconds, threads


def at_rest(seconds: float) -> dict[str, Rest]:
    """Those who wait for changes below a folder."""
    with tempfile.TemporaryDirectory(prefix="bench-latency-") as place:
        top = Path(place) / "tree"
        top.mkdir()
        make_files(top, _IDLE_FILES)
        found = {}
        for name, option in (("`loom watch`", "--no-helper"), (_WITH_HELPER, "--helper")):
            watch = [sys.executable, "-P", loom.__main__.__file__, "watch", "--json", option]
            watch += ["--no-imports", "--db", str(Path(place) / f"{option}.sqlite3"), str(top)]
            found[name] = rest(watch, lambda event: event.get("event") == "at-rest", seconds)
        if importlib.util.find_spec("watchfiles") is not None:
            found["`watchfiles.awatch`, which only watches"] = rest(
                command("watchfiles", top), lambda _line: True, seconds
            )
    return found


# --- telling


def verdict(met: bool) -> str:
    return "met" if met else "**missed**"


def delay_lines(results: dict[str, dict[str, Delays]]) -> Iterator[str]:
    yield (
        "| While is scanned | Way | Seconds | Timer, 99 % | Timer, longest"
        " | There and back, 99 % | Longest |"
    )
    yield "|---|---|---:|---:|---:|---:|---:|"
    for what, ways in results.items():
        for name, found in ways.items():
            figures = [found.p99(), found.longest(), found.p99("talk"), found.longest("talk")]
            cells = " | ".join(f"{seconds * 1e3:.1f} ms" for seconds in figures)
            yield f"| {what} | {_WAYS[name]} | {found.seconds:.2f} | {cells} |"
            what = ""
    yield ""
    for what, ways in results.items():
        for name in ("loom", "derived"):
            p99, longest = ways[name].p99(), ways[name].longest()
            met = p99 <= _MOST_P99 and longest <= _MOST_LONGEST
            yield (
                f"- {_WAYS[name]}, {what}: a timer at most {_MOST_P99 * 1e3:.0f} ms late for 99 %,"
                f" {_MOST_LONGEST * 1e3:.0f} ms for all: {p99 * 1e3:.1f} ms,"
                f" {longest * 1e3:.1f} ms, {verdict(met)}."
            )


def focus_lines(result: dict[str, Any]) -> Iterator[str]:
    changes = result["results"]
    seconds = sorted(change["seconds"] for change in changes)
    positions = max(change["position"] for change in changes)
    slices = max(change["slices"] for change in changes)
    places = [change["place"] for change in changes]
    first = result["first"]
    queued = min(change["queued"] for change in changes)
    yield (
        f"- {len(changes)} changes with at least {queued:,} files queued,"
        f" to files behind {min(places):,} to {max(places):,} others: scanned as number"
        f" {positions} at the latest, in slice {slices} at the latest,"
        f" {seconds[len(seconds) // 2] * 1e3:.1f} ms later at the median and"
        f" {seconds[-1] * 1e3:.1f} ms at the longest, {verdict(positions == slices == 1)}."
    )
    yield (
        f"- One change right after {first['queued']:,} files were queued, of none of which it is"
        f" known yet whether it must be scanned: number {first['position']}, in slice"
        f" {first['slices']}, {first['seconds'] * 1e3:.0f} ms later."
    )


def rest_lines(found: dict[str, Rest]) -> Iterator[str]:
    yield "| Process | Seconds | Wake-ups | Processor seconds | Threads |"
    yield "|---|---:|---:|---:|---:|"
    for name, each in found.items():
        yield (
            f"| {name} | {each.seconds:.0f} | {each.wakes} | {each.cpu_seconds:.2f}"
            f" | {each.threads} |"
        )
    yield ""
    for name in ("`loom watch`", _WITH_HELPER):
        yield f"- {name} at rest: no wake-ups: {verdict(found[name].wakes == 0)}."


_README_HEAD: Final = """\
# Waiting for a scan

`make bench-latency` measures; with `run.py --write` the figures below are written anew. Each way
runs in a process of its own under `python -O`, in turn, over files that are in the page cache.
"""

_DELAYS: Final = """\
## Other tasks on the loop

A task sleeps for 10 ms again and again, and notes by how much it comes back late. Another one
sends a byte to a third over a socket and waits until it comes back, which takes several turns of
the loop. `loom` is its session on its main loop, with all that belongs to it: finding the files,
scanning, writing the database. The slices run the same scanners into the same database from a
coroutine that gives way with `sleep(0)`; their time doesn't count finding the files. The biggest
Python file on the machine comes under {links} names; here it has {size:.1f} MB. Where nobody scans,
what is left is the machine's own lateness, which is in all other figures, too.
"""

_FOCUS: Final = """\
## What the user turns to

The active document changes between two slices, to a file that waits in the background. Its scan is
counted among all that end from then on, and its slices from the one that comes next.
"""

_REST: Final = """\
## At rest

Wake-ups are the context switches of all threads of the process and its children, from the kernel's
counts, while nothing happens below the {files:,} files that it watches.
"""


def main() -> None:
    parser = argparse.ArgumentParser(description="Measure how long others wait for a scan.")
    parser.add_argument("--rounds", type=int, default=3, help="rounds; all of them count")
    parser.add_argument("--tree", type=Path, help="what is scanned")
    parser.add_argument("--idle-seconds", type=float, default=30.0)
    parser.add_argument("--remark", default="", help="how it was measured, for the last line")
    parser.add_argument("--write", action="store_true", help="write README.md beside this file")
    options = parser.parse_args()
    tree = options.tree or Path(sysconfig.get_path("stdlib"))
    what = str(tree) if options.tree else "the standard library with its packages"
    biggest = biggest_file()
    with tempfile.TemporaryDirectory(prefix="bench-latency-") as place:
        links = Path(place)
        for number in range(_LINKS):
            (links / f"biggest_{number}.py").symlink_to(biggest)
        results = {
            title: {name: delays(name, folder, options.rounds) for name in names}
            for title, folder, names in (
                (what, tree, list(_WAYS)),
                ("the biggest file", links, list(_WAYS)[:-1]),
            )
        }
    with tempfile.TemporaryDirectory(prefix="bench-latency-") as place:
        make_files(Path(place), _FOCUS_FILES)
        focus = ask("focus", Path(place))
    python = f"{platform.python_implementation()} {platform.python_version()}"
    machine = f"{os.cpu_count()} cores, {platform.system()} {platform.machine()}, {python}"
    size = biggest.stat().st_size / 1e6
    text = "\n".join(
        [
            _DELAYS.format(links=_LINKS, size=size),
            *delay_lines(results),
            "",
            _FOCUS,
            *focus_lines(focus),
            "",
            _REST.format(files=_IDLE_FILES),
            *rest_lines(at_rest(options.idle_seconds)),
            "",
            " ".join(
                filter(None, [f"Measured on {machine}; {options.rounds} rounds.", options.remark])
            ),
        ]
    )
    print(text)
    if options.write:
        (_HERE / "README.md").write_text(f"{_README_HEAD}\n{text}\n")


if __name__ == "__main__":
    main()
