"""How fast `loom scan` fills an empty database, beside other ways to read the same files.

    run.py [--rounds N] [--large FOLDER]... [--write]

Each round runs every contestant once, in turn, each in a process of its own; the best round of each
counts. `--write` puts the figures into README.md beside this file.
"""

import argparse
import json
import os
import platform
import shutil
import subprocess
import sys
import sysconfig
import tempfile
from collections.abc import Iterable, Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Final

_HERE: Final = Path(__file__).resolve().parent
sys.path.append(str(_HERE.parents[1]))  # what is installed comes first

from loom.bootstrap import ensure_host_path

ensure_host_path()

from loom.ignore import parse_patterns
from loom.walk import Found, walk

_CONTESTANTS: Final = {
    "loom": "`loom scan`",
    "bare": "the same scanners in a bare loop",
    "parse": "`ast.parse`",
    "ctags": "universal-ctags, all kinds",
}

# The large tree is made of whole trees until it has so many files.
_LARGE_FILES: Final = 10_000

# A contestant that takes longer hangs.
_MOST_SECONDS: Final = 1_800

_MOST_OF_PARSE: Final = 0.3
_LEAST_OF_BARE: Final = 0.8
_MOST_P99: Final = 0.052
_MOST_LONGEST: Final = 0.060


@dataclass
class Tree:
    """The files of one comparison. `exclude` is a pattern of files to be left out."""

    name: str
    folders: list[Path]
    exclude: str | None
    files: list[str]
    size: int


@dataclass
class Result:
    """The best round of each contestant, and all idle calls of that of `loom scan`."""

    tree: Tree
    best: dict[str, dict[str, Any]]

    def seconds(self, name: str) -> float:
        return float(self.best[name]["seconds"])

    def ratio(self, name: str, of: str = "seconds") -> float:
        """Time of `loom scan` as a share of that of another contestant."""
        return float(self.best["loom"][of] / self.best[name][of])

    def share_of_bare(self) -> float:
        """Bytes per second of `loom scan` as it reports them itself, as a share of the bare loop's.

        Neither counts the imports.
        """
        return float(self.seconds("bare") / self.best["loom"]["inner_seconds"])

    def idle_call(self, share: float, which: str = "idle_calls") -> float:
        """The length in seconds that this share of the idle calls doesn't exceed."""
        lengths: list[float] = self.best["loom"][which]
        return lengths[-(-(len(lengths) - 1) * round(share * 1000) // 1000)]


def make_tree(name: str, folders: Sequence[Path], exclude: str | None = None) -> Tree:
    """The files that `loom scan` finds below the folders."""
    patterns = parse_patterns([exclude]) if exclude else None
    found = walk([str(folder) for folder in folders], patterns)
    files = [step.path for step in found if isinstance(step, Found)]
    return Tree(name, list(folders), exclude, files, sum(map(os.path.getsize, files)))


def large_folders(given: Iterable[str]) -> list[Path]:
    """The folders of the large tree: those given, or the libraries beside our interpreter's."""
    if folders := [Path(folder) for folder in given]:
        return folders
    ours = Path(sysconfig.get_path("stdlib"))
    folders, count = [], 0
    beside = ours.parents[2].glob("*/lib/python3*/")
    for folder in [ours, *sorted(set(beside) - {ours}, reverse=True)]:
        folders.append(folder)
        count += len(make_tree("", [folder]).files)
        if count >= _LARGE_FILES:
            break
    return folders


def measure(tree: Tree, names: Sequence[str], rounds: int) -> Result:
    best: dict[str, dict[str, Any]] = {}
    for number in range(rounds):
        for name in names:
            with tempfile.TemporaryDirectory(prefix="bench-scan-") as folder:
                result = _run(name, tree, Path(folder))
            if name not in best or result["seconds"] < best[name]["seconds"]:
                best[name] = result
            print(
                f"{tree.name}, round {number + 1}: {_CONTESTANTS[name]} {result['seconds']:.2f} s",
                file=sys.stderr,
            )
    return Result(tree, best)


def _run(name: str, tree: Tree, folder: Path) -> dict[str, Any]:
    listed = folder / "files"
    listed.write_text("".join(f"{path}\n" for path in tree.files), errors="surrogateescape")
    arguments = [str(path) for path in tree.folders]
    if tree.exclude:
        arguments += ["--exclude", tree.exclude]
    work = folder / "work"
    work.mkdir()
    (work / "arguments").write_text("\n".join(arguments))
    done = subprocess.run(
        [sys.executable, "-O", "-P", _HERE / "contestants.py", name, listed, work],
        stdout=subprocess.PIPE,
        text=True,
        timeout=_MOST_SECONDS,
        check=True,
    )
    result: dict[str, Any] = json.loads(done.stdout)
    return result


def verdict(met: bool) -> str:
    return "met" if met else "**missed**"


def table(results: Sequence[Result]) -> list[str]:
    """The figures as a Markdown table."""
    lines = [
        "| Files | Way | Seconds | MB/s | `loom scan` takes"
        " | Processor seconds | `loom scan` takes |",
        "|---|---|---:|---:|---:|---:|---:|",
    ]
    for result in results:
        tree = result.tree
        what = f"{tree.name}: {len(tree.files):,} files, {tree.size / 1e6:.1f} MB"
        for name in result.best:
            seconds = result.seconds(name)
            cpu = result.best[name]["cpu_seconds"]
            ratio = cpu_ratio = ""
            if name != "loom":
                ratio = f"{result.ratio(name):.2f} of that"
                cpu_ratio = f"{result.ratio(name, 'cpu_seconds'):.2f} of that"
            lines.append(
                f"| {what} | {_CONTESTANTS[name]} | {seconds:.2f} | {tree.size / seconds / 1e6:.1f}"
                f" | {ratio} | {cpu:.2f} | {cpu_ratio} |"
            )
            what = ""
    return lines


def idle_table(results: Sequence[Result]) -> list[str]:
    """The lengths of the main loop's idle calls as a Markdown table."""
    lines = [
        "| Files | Without start and end | Idle calls | Median | 99 % | Longest"
        " | 99 %, processor | Longest, processor | Database |",
        "|---|---:|---:|---:|---:|---:|---:|---:|---:|",
    ]
    for result in results:
        loom = result.best["loom"]
        wall = [result.idle_call(share) for share in (0.5, 0.99, 1)]
        cpu = [result.idle_call(share, "idle_calls_cpu") for share in (0.99, 1)]
        lengths = " | ".join(f"{seconds * 1e3:.1f} ms" for seconds in wall + cpu)
        lines.append(
            f"| {result.tree.name} | {loom['inner_seconds']:.2f} s | {len(loom['idle_calls']):,}"
            f" | {lengths}"
            f" | {loom['size'] / 1e6:.1f} MB |"
        )
    return lines


def targets(results: Sequence[Result]) -> list[str]:
    """What was aimed at, and what came of it."""
    lines = []
    for result in results:
        ratio = result.ratio("parse")
        lines.append(
            f"- {result.tree.name}: at most {_MOST_OF_PARSE} of the time of `ast.parse`:"
            f" {ratio:.2f}, {verdict(ratio <= _MOST_OF_PARSE)}."
        )
    share = results[-1].share_of_bare()
    lines.append(
        f"- {results[-1].tree.name}: at least {_LEAST_OF_BARE:.0%} of the bare loop's bytes per"
        f" second: {share:.0%}, {verdict(share >= _LEAST_OF_BARE)}."
    )
    for result in results:
        p99, longest = result.idle_call(0.99), result.idle_call(1)
        met = p99 <= _MOST_P99 and longest <= _MOST_LONGEST
        lines.append(
            f"- {result.tree.name}: idle calls of at most {_MOST_P99 * 1e3:.0f} ms for 99 %,"
            f" {_MOST_LONGEST * 1e3:.0f} ms for all: {p99 * 1e3:.1f} ms,"
            f" {longest * 1e3:.1f} ms, {verdict(met)}."
        )
    return lines


def report(results: Sequence[Result], rounds: int) -> str:
    python = f"{platform.python_implementation()} {platform.python_version()}"
    machine = f"{os.cpu_count()} cores, {platform.system()} {platform.machine()}, {python}"
    return "\n".join(
        [
            *table(results),
            "",
            *idle_table(results),
            "",
            *targets(results),
            "",
            f"Measured on {machine}; best of {rounds} rounds.",
        ]
    )


_README_HEAD: Final = """\
# Scanning a tree into an empty database

`make bench-scan` measures; with `run.py --write` the figures below are written anew.

`loom scan` (without imports and the derived stage) is timed as a whole: imports, finding the files, scanning them in slices of 50 ms, all
rows and the index of names, closing the database. The others are timed without their imports, and
get the list of files. The bare loop runs the same scanners into the same database, file after file,
with nothing in between. Each runs in a process of its own, in turn, under `python -O`, over files
that are in the page cache.

"Without start and end" is the time that `loom scan` reports itself, from finding the first file to
having written the last name; it stands for the command where bytes per second are compared.
Processor seconds are those of all threads and children; they vary less on a busy machine.

An idle call is one piece of work that the main loop runs in one go: a slice of the scheduler, a
step of looking for files, a write to the database. Nothing else can run meanwhile. "Processor" is
the time of its thread alone, without waiting for other processes.

"""


def main() -> None:
    parser = argparse.ArgumentParser(description="Measure the scanning of source trees.")
    parser.add_argument("--rounds", type=int, default=3, help="rounds; the best counts")
    parser.add_argument("--large", action="append", default=[], metavar="FOLDER")
    parser.add_argument("--only-small", action="store_true", help="leave the large tree out")
    parser.add_argument("--remark", default="", help="how it was measured, for the last line")
    parser.add_argument("--write", action="store_true", help="write README.md beside this file")
    options = parser.parse_args()
    names = [name for name in _CONTESTANTS if name != "ctags" or shutil.which("ctags")]
    if "ctags" not in names:
        print("ctags isn't installed and is left out", file=sys.stderr)
    stdlib = Path(sysconfig.get_path("stdlib"))
    trees = [make_tree("standard library", [stdlib], "site-packages/")]
    if not options.only_small:
        trees.append(make_tree("large tree", large_folders(options.large)))
    results = [measure(tree, names, options.rounds) for tree in trees]
    text = " ".join(filter(None, [report(results, options.rounds), options.remark]))
    print(text)
    if options.write:
        (_HERE / "README.md").write_text(f"{_README_HEAD}{text}\n")


if __name__ == "__main__":
    main()
