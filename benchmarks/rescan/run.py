"""How long `loom scan` takes over a tree that it knows, beside a bare loop of `os.stat`.

    run.py [--rounds N] [--tree FOLDER]... [--write]

Each round is a process of its own for each case, and measures all ways in that one process; the
best of each way counts. `--write` puts the figures into README.md beside this file.
"""

import argparse
import json
import os
import platform
import subprocess
import sys
import tempfile
from collections.abc import Sequence
from pathlib import Path
from typing import Any, Final

_HERE: Final = Path(__file__).resolve().parent

# The tree that is made: packages, subpackages in each, modules in each of these.
_PACKAGES: Final = 100
_SUBPACKAGES: Final = 10
_MODULES: Final = 10

# Some time ago, so that the times of files can be trusted.
_OLD: Final = 1_700_000_000

# A round that takes longer hangs.
_MOST_SECONDS: Final = 600

_MOST_OF_BARE: Final = 4.0

_CASES: Final = {
    "unchanged": "nothing has changed",
    "folder": "a folder has changed, so all imports are followed anew",
    "touched": "all files were touched, so all are read",
}

_MODULE: Final = '''\
"""Module {number} of the tree."""
import os
import sys
from typing import Any
from . import mod{next}
from pkg{other:03}.sub{sub} import mod{next} as other


class Class{number}:
    """Something with a method."""

    def method(self, value: int = {number}) -> Any:
        self.value = os.path.join(str(value), sys.prefix)
        return self.value


def function_{number}(first, second):
    return other.make(first), mod{next}
'''


def make_tree(top: Path) -> None:
    """10,000 small modules that import from one another and from the standard library."""
    number = 0
    for package in range(_PACKAGES):
        folder = top / f"pkg{package:03}"
        write(folder / "__init__.py", "")
        for sub in range(_SUBPACKAGES):
            for module in range(_MODULES):
                name = f"mod{module}" if module else "__init__"
                text = _MODULE.format(
                    number=number,
                    next=module % (_MODULES - 1) + 1,
                    other=(package + 1) % _PACKAGES,
                    sub=sub,
                )
                write(folder / f"sub{sub}" / f"{name}.py", text)
                number += 1
    for path, _, _ in os.walk(top):
        os.utime(path, (_OLD, _OLD))


def write(path: Path, text: str) -> None:
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(text)
    os.utime(path, (_OLD, _OLD))


def run(db_path: Path, folders: Sequence[str]) -> dict[str, Any]:
    done = subprocess.run(
        [sys.executable, "-O", "-P", _HERE / "contestants.py", db_path, *folders],
        stdout=subprocess.PIPE,
        text=True,
        timeout=_MOST_SECONDS,
        check=True,
    )
    result: dict[str, Any] = json.loads(done.stdout)
    return result


def files_below(folders: Sequence[str]) -> list[str]:
    return [
        os.path.join(path, name)
        for folder in folders
        for path, _, names in os.walk(folder)
        for name in names
        if name.endswith((".py", ".pyi"))
    ]


def measure(folders: list[str], db_path: Path, rounds: int, own_tree: bool) -> dict[str, Any]:
    """The best of each way in each case. Somebody else's tree isn't touched."""
    run(db_path, folders)
    run(db_path, folders)  # whatever was too young the first time is settled now
    best: dict[str, dict[str, Any]] = {}
    for number in range(rounds):
        for case in _CASES if own_tree else ("unchanged",):
            later = _OLD + 10 * number
            if case == "folder":
                os.utime(folders[0], (later + 1, later + 1))
            elif case == "touched":
                for path in files_below(folders):
                    os.utime(path, (later + 2, later + 2))
            result = run(db_path, folders)
            check(case, result["session"]["counts"])
            ratio = result["session"]["seconds"] / result["bare"]["seconds"]
            print(f"round {number + 1}, {case}: {ratio:.2f} bare loops", file=sys.stderr)
            for way, times in result.items():
                ways = best.setdefault(case, {})
                if way not in ways or times["seconds"] < ways[way]["seconds"]:
                    ways[way] = times
    return best


def check(case: str, counts: dict[str, int]) -> None:
    """A round that did something else is no measurement."""
    right = counts["parsed"] == 0 and counts["unchanged"] == counts["found"]
    if not right or (counts["reread"] > 0) != (case == "touched"):
        raise SystemExit(f"{case}: not what was to be measured: {counts}")


def report(best: dict[str, Any], rounds: int) -> str:
    lines = [
        "| Case | Way | ms | Processor ms | The session takes |",
        "|---|---|---:|---:|---:|",
    ]
    for case, result in best.items():
        counts = result["session"]["counts"]
        what = f"{_CASES[case]} ({counts['found']:,} files, {counts['imported']:,} imported)"
        for way, name in (
            ("session", "`loom scan` from its first step to its last"),
            ("bare", "`os.stat` of each file, one query for every 26"),
            ("walk", "finding the files, alone"),
        ):
            times = result[way]
            ratio = result["session"]["seconds"] / times["seconds"]
            clock, cpu = times["seconds"] * 1e3, times["cpu_seconds"] * 1e3
            lines.append(
                f"| {what} | {name} | {clock:.1f} | {cpu:.1f}"
                f" | {'' if way == 'session' else f'{ratio:.2f} times that'} |"
            )
            what = ""
    ways = best["unchanged"]
    ratio = ways["session"]["seconds"] / ways["bare"]["seconds"]
    verdict = "met" if ratio <= _MOST_OF_BARE else "**missed**"
    python = f"{platform.python_implementation()} {platform.python_version()}"
    machine = f"{os.cpu_count()} cores, {platform.system()} {platform.machine()}, {python}"
    return "\n".join(
        [
            *lines,
            "",
            f"- Nothing parsed: {ways['session']['counts']['parsed']}, met.",
            f"- At most {_MOST_OF_BARE:.0f} times the bare loop when nothing has changed:"
            f" {ratio:.2f}, {verdict}.",
            "",
            f"Measured on {machine}; best of {rounds} rounds.",
        ]
    )


_README_HEAD: Final = """\
# Scanning a tree again

`make bench-rescan` measures; with `run.py --write` the figures below are written anew.

The session is what `loom scan` does between loading its modules and closing the database: finding
the files, asking for their times, comparing them with the database, following imports, dropping
what has gone. The bare loop does the least that could tell the same: one `os.stat` a file and one
query for every 26 files. Both run in one process, under `python -O`, over files that the file
system has seen. Starting the interpreter and loading modules isn't counted anywhere.

Where imports lead is remembered for as long as the folders that were looked into keep their times.
After a change in any of them, all imports are followed anew, once.

"""


def main() -> None:
    parser = argparse.ArgumentParser(description="Measure the scanning of known source trees.")
    parser.add_argument("--rounds", type=int, default=5, help="rounds; the best counts")
    parser.add_argument("--tree", action="append", default=[], metavar="FOLDER")
    parser.add_argument("--remark", default="", help="how it was measured, for the last line")
    parser.add_argument("--write", action="store_true", help="write README.md beside this file")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="bench-rescan-") as folder:
        folders = options.tree
        if not folders:
            folders = [f"{folder}/tree"]
            make_tree(Path(folders[0]))
        db_path = Path(folder) / "db" / "info.sqlite3"
        best = measure(folders, db_path, options.rounds, not options.tree)
    text = " ".join(filter(None, [report(best, options.rounds), options.remark]))
    print(text)
    if options.write:
        (_HERE / "README.md").write_text(f"{_README_HEAD}{text}\n")


if __name__ == "__main__":
    main()
