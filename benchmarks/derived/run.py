"""What the derived stage costs beside the primary stage, and what it makes of `loom refs`.

    run.py [--rounds N] [--large FOLDER]... [--write]

Each round scans each tree twice, each time in a process of its own into an empty database: with the
primary stage alone and with both. The best round of each counts. `--write` puts the figures into
README.md beside this file.
"""

import argparse
import json
import os
import platform
import subprocess
import sys
import sysconfig
import tempfile
import time
from collections.abc import Sequence
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, Final

_HERE: Final = Path(__file__).resolve().parent
_ROOT: Final = _HERE.parents[1]

# What takes longer hangs.
_MOST_SECONDS: Final = 1_800

# With both stages a scan takes at most so many times as long.
_MOST_TIMES: Final = 4.0

# What the reading commands are asked for.
_NAMES: Final = ("json.loads", "OptionParser.add_option", "collections.OrderedDict", "shutil")


@dataclass
class Result:
    """The best rounds of one tree: reports of `loom scan`, and seconds of `loom refs` by name."""

    name: str
    primary: dict[str, Any]
    both: dict[str, Any]
    refs: dict[str, dict[str, Any]] = field(default_factory=dict)

    @property
    def times(self) -> float:
        """How many times as long a scan takes with both stages."""
        return float(self.both["seconds"] / self.primary["seconds"])

    @property
    def speed(self) -> float:
        """Bytes per second of the derived stage alone."""
        return float(self.both["bytes"] / (self.both["seconds"] - self.primary["seconds"]))


def loom(*arguments: str | Path) -> tuple[dict[str, Any], float]:
    """Run a command; returns its JSON document and the seconds that the process took."""
    environment = os.environ | {"PYTHONPATH": os.pathsep.join([*sys.path[1:], str(_ROOT)])}
    start = time.perf_counter()
    done = subprocess.run(
        [sys.executable, "-O", "-P", "-m", "loom", *arguments, "--json"],
        stdout=subprocess.PIPE,
        stderr=subprocess.DEVNULL,
        timeout=_MOST_SECONDS,
        env=environment,
        check=False,
    )
    seconds = time.perf_counter() - start
    if done.returncode not in (0, 1):
        raise SystemExit(f"loom {arguments[0]} ended with {done.returncode}")
    document: dict[str, Any] = json.loads(done.stdout)
    return document, seconds


def scan(folders: Sequence[Path], *options: str, database: Path) -> dict[str, Any]:
    """One scan into an empty database; the report with the size of the database."""
    for path in database.parent.glob(f"{database.name}*"):
        path.unlink()
    arguments = ["--exit-zero", "--exclude", "site-packages/", *options]
    report, _ = loom("scan", *arguments, "--db", database, *folders)
    return report | {"size": database.stat().st_size}


def measure(name: str, folders: Sequence[Path], rounds: int) -> Result:
    result: Result | None = None
    with tempfile.TemporaryDirectory(prefix="bench-derived-") as folder:
        database = Path(folder) / "info.sqlite3"
        for number in range(rounds):
            primary = scan(folders, "--no-derived", database=database)
            both = scan(folders, database=database)
            if result is None:
                result = Result(name, primary, both)
            result.primary = min(result.primary, primary, key=lambda r: float(r["seconds"]))
            result.both = min(result.both, both, key=lambda r: float(r["seconds"]))
            print(
                f"{name}, round {number + 1}: {primary['seconds']:.2f} s, {both['seconds']:.2f} s",
                file=sys.stderr,
            )
        assert result is not None
        for each in _NAMES:
            document, seconds = loom("refs", each, "--db", database)
            result.refs[each] = document | {"process_seconds": seconds}
    return result


def report(results: Sequence[Result], rounds: int) -> str:
    lines = [
        "| Files | Primary stage | Both stages | Times as long | Derived stage"
        " | Slices: 99 %, longest | Database | With derived results |",
        "|---|---:|---:|---:|---:|---:|---:|---:|",
    ]
    for result in results:
        slices = result.both["slices"]
        lines.append(
            f"| {result.name}: {result.both['bytes'] / 1e6:.1f} MB"
            f" | {result.primary['seconds']:.2f} s | {result.both['seconds']:.2f} s"
            f" | {result.times:.1f} | {result.speed / 1e6:.1f} MB/s"
            f" | {_milliseconds(slices, 'p99')}, {_milliseconds(slices, 'longest')}"
            f" | {result.primary['size'] / 1e6:.1f} MB | {result.both['size'] / 1e6:.1f} MB |"
        )
    lines += [
        "",
        "| `loom refs` over | NAME | Places | Not certain | Complete | Whole process |",
        "|---|---|---:|---:|---|---:|",
    ]
    for result in results:
        for name, found in result.refs.items():
            places = found["references"]
            open_ones = sum(1 for place in places if not place["certain"])
            lines.append(
                f"| {result.name} | `{name}` | {len(places):,} | {open_ones:,}"
                f" | {'no' if found['partial'] else 'yes'} | {found['process_seconds']:.2f} s |"
            )
    lines.append("")
    for result in results:
        met = "met" if result.times <= _MOST_TIMES else "**missed**"
        lines.append(
            f"- {result.name}: at most {_MOST_TIMES:g} times as long with both stages:"
            f" {result.times:.1f}, {met}."
        )
    python = f"{platform.python_implementation()} {platform.python_version()}"
    machine = f"{os.cpu_count()} cores, {platform.system()} {platform.machine()}, {python}"
    return "\n".join([*lines, "", f"Measured on {machine}; best of {rounds} rounds."])


def _milliseconds(slices: dict[str, Any], key: str) -> str:
    for name, value in slices.items():
        if key in name:
            seconds = value / 1e3 if name.endswith("_ms") else value
            return f"{seconds * 1e3:.1f} ms"
    return "?"


_README_HEAD: Final = """\
# The derived stage

`make bench-derived` measures; with `run.py --write` the figures below are written anew.

The seconds are those that `loom scan` reports itself, with the stubs that the files import, from
finding the first file to having written the last row, over files in the page cache, under
`python -O`. The speed of the derived stage is the size of the files by the time that it adds.
`loom refs` is timed as a process, with its default deadline of one second.

"""


def main() -> None:
    parser = argparse.ArgumentParser(description="Measure the derived stage.")
    parser.add_argument("--rounds", type=int, default=3, help="rounds; the best counts")
    parser.add_argument("--large", action="append", default=[], type=Path, metavar="FOLDER")
    parser.add_argument("--remark", default="", help="how it was measured, for the last line")
    parser.add_argument("--write", action="store_true", help="write README.md beside this file")
    options = parser.parse_args()
    stdlib = Path(sysconfig.get_path("stdlib"))
    results = [measure("standard library", [stdlib], options.rounds)]
    if options.large:
        results.append(measure("large tree", options.large, options.rounds))
    text = " ".join(filter(None, [report(results, options.rounds), options.remark]))
    print(text)
    if options.write:
        (_HERE / "README.md").write_text(f"{_README_HEAD}{text}\n")


if __name__ == "__main__":
    main()
