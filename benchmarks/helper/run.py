"""How much faster a scan is with helper processes, and how much the first process is held up.

    run.py [--rounds N] [--large FOLDER] [--write]
"""

import argparse
import json
import os
import platform
import subprocess
import sys
import sysconfig
import tempfile
from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path
from statistics import median
from typing import Any, Final

_HERE: Final = Path(__file__).resolve().parent

_WAYS: Final[dict[str, list[str]]] = {
    "alone": ["--no-helper"],
    "one helper": ["--helper"],
    "two helpers": ["--jobs", "2"],
}

_MOST_OF_ALONE: Final = 0.62
_MOST_LATE: Final = 0.015

# A scan that takes longer hangs.
_MOST_SECONDS: Final = 1_800


@dataclass
class Result:
    """All rounds of each way over one tree."""

    tree: str
    rounds: dict[str, list[dict[str, Any]]]

    def middle(self, way: str, what: str) -> float:
        return float(median(each[what] for each in self.rounds[way]))

    def ratio(self, way: str, what: str) -> float:
        """The middle of the rounds' own ratios: both of a round ran under the same load."""
        return float(
            median(
                mine[what] / alone[what]
                for mine, alone in zip(self.rounds[way], self.rounds["alone"], strict=True)
            )
        )

    def late(self, way: str, share: float) -> float:
        """What this share of the timer's calls isn't later than, over all rounds."""
        lengths = sorted(length for each in self.rounds[way] for length in each["late"])
        return float(lengths[-(-(len(lengths) - 1) * round(share * 1000) // 1000)])


def measure(name: str, folder: Path, rounds: int) -> Result:
    result = Result(name, {way: [] for way in _WAYS})
    for number in range(rounds):
        for way, options in _WAYS.items():
            with tempfile.TemporaryDirectory(prefix="bench-helper-") as work:
                done = subprocess.run(
                    [sys.executable, "-O", "-P", _HERE / "contestants.py", folder, work, *options],
                    stdout=subprocess.PIPE,
                    text=True,
                    timeout=_MOST_SECONDS,
                    check=True,
                )
            found = json.loads(done.stdout)
            result.rounds[way].append(found)
            print(
                f"{name}, round {number + 1}: {way} {found['inner_seconds']:.2f} s,"
                f" processor {found['first_cpu']:.2f} + {found['helper_cpu']:.2f} s",
                file=sys.stderr,
            )
    if len({each["files"] for way in result.rounds.values() for each in way}) != 1:
        raise SystemExit("the ways scanned different files")
    return result


def table(results: Sequence[Result]) -> list[str]:
    lines = [
        "| Files | Way | Scan | Of alone | Command | Of alone | Processor: first, helpers"
        " | Memory: first, a helper | Timer late: median, 99 %, most |",
        "|---|---|---:|---:|---:|---:|---:|---:|---:|",
    ]
    for result in results:
        some = result.rounds["alone"][0]
        what = f"{result.tree}: {some['files']:,} files, {some['bytes'] / 1e6:.1f} MB"
        for way in _WAYS:
            late = [result.late(way, share) * 1e3 for share in (0.5, 0.99, 1)]
            cells = [
                what,
                way,
                f"{result.middle(way, 'inner_seconds'):.2f} s",
                f"{result.ratio(way, 'inner_seconds'):.2f}",
                f"{result.middle(way, 'seconds'):.2f} s",
                f"{result.ratio(way, 'seconds'):.2f}",
                f"{result.middle(way, 'first_cpu'):.2f}, {result.middle(way, 'helper_cpu'):.2f} s",
                f"{result.middle(way, 'first_memory') / 1e6:.0f},"
                f" {result.middle(way, 'helper_memory') / 1e6:.0f} MB",
                ", ".join(f"{each:.1f}" for each in late) + " ms",
            ]
            lines.append(f"| {' | '.join(cells)} |")
            what = ""
    return lines


def targets(results: Sequence[Result]) -> list[str]:
    lines = []
    for result in results:
        ratio = result.ratio("one helper", "inner_seconds")
        late = result.late("one helper", 0.99)
        lines += [
            f"- {result.tree}: with one helper at most {_MOST_OF_ALONE} of the time without:"
            f" {ratio:.2f}, {verdict(ratio <= _MOST_OF_ALONE)}.",
            f"- {result.tree}: a timer of 10 ms late by at most {_MOST_LATE * 1e3:.0f} ms at 99 %:"
            f" {late * 1e3:.1f} ms, {verdict(late <= _MOST_LATE)}.",
        ]
    return lines


def verdict(met: bool) -> str:
    return "met" if met else "**missed**"


_README_HEAD: Final = """\
# Scans with helper processes

`make bench-helper` measures; with `run.py --write` the figures below are written anew.

`loom scan` of a tree into an empty database, alone, with one helper and with two, by turns, each in
processes of its own, under `python -O`, over files that are in the page cache. Only what helpers
can take is done: the first stage (`--no-derived`) of the files at and below the folder
(`--no-imports`). The second stage and the resolution of imports stay with the first process and
take the same time in all three.

"Scan" is the time that `loom scan` reports, from the search for the first file to the last name
that is written; "Command" all of it, with imports and the closing of the database. A ratio is the
median of those of the rounds. The processor's seconds hold the start of each process. The timer runs
on the first process's main loop, from the start of the scan to its end.

What bounds the ratio is what stays with the first process whoever scans: the search for files, one row
a scope, and the index of names. There is one writer. With two helpers it does nothing else, so that
its processor seconds beside those of a scan alone, less the start of a process (some 0.3 s), are the
least that any number of helpers can reach; in trees of many small files that is more than half. With
one helper on two cores it scans a part itself, when there is nothing to store.

"""


def report(results: Sequence[Result], rounds: int) -> str:
    python = f"{platform.python_implementation()} {platform.python_version()}"
    machine = f"{os.cpu_count()} cores, {platform.system()} {platform.machine()}, {python}"
    return "\n".join(
        [
            *table(results),
            "",
            *targets(results),
            "",
            f"Measured on {machine}; {rounds} rounds.",
        ]
    )


def main() -> None:
    parser = argparse.ArgumentParser(description="Measure scans with helper processes.")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--large", metavar="FOLDER", help="a larger tree, too")
    parser.add_argument("--remark", default="", help="how it was measured, for the last line")
    parser.add_argument("--write", action="store_true", help="write README.md beside this file")
    options = parser.parse_args()
    trees = [("standard library", Path(sysconfig.get_path("stdlib")))]
    large = options.large or sysconfig.get_path("purelib")
    trees.append(("installed packages", Path(large)))
    results = [measure(name, folder, options.rounds) for name, folder in trees]
    text = " ".join(filter(None, [report(results, options.rounds), options.remark]))
    print(text)
    if options.write:
        (_HERE / "README.md").write_text(f"{_README_HEAD}{text}\n")


if __name__ == "__main__":
    main()
