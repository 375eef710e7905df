"""How long it takes until an edit inside of a function is known, beside scanning the whole file.

    run.py [--edits N] [--write]

All ways are taken after each edit, in turn, in one process. `--write` puts the figures into
README.md beside this file.
"""

import argparse
import ast
import gc
import os
import platform
import random
import shutil
import statistics
import sys
import sysconfig
import tempfile
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass, field
from pathlib import Path
from time import perf_counter
from typing import Final

_HERE: Final = Path(__file__).resolve().parent
sys.path.append(str(_HERE.parents[1]))  # what is installed comes first

from loom.bootstrap import ensure_host_path

ensure_host_path()

from cache.textcache import CTextCache
from loombase.location import CLocalFileLocation
from singleton import GetSingletons

from loom._pyscan import SourceScanner
from loom.app import App
from loom.mainloop.stepped import SteppedMainLoop
from pysource import _fastaccess
from pysource.scopescanner import CSingleScopePrimaryScanner, kFinishedScanning

# Lines of the files that are edited.
_FEWEST_LINES: Final = 4_000
_MOST_LINES: Final = 7_000
_MOST_FILES: Final = 6

_MOST_MEDIAN_MS: Final = 10.0

_WAYS: Final = {
    "loop": "the scope, from the edit to the end of idle work",
    "scope": "the scope: its scan and storing it",
    "whole": "the whole file, from asking for it to the end of idle work",
    "native": "the whole file: the native scanner alone, nothing stored",
    "parse": "`ast.parse` of the whole file",
}


@dataclass
class Times:
    """Milliseconds that each way took for each edit."""

    ms: dict[str, list[float]] = field(default_factory=lambda: {way: [] for way in _WAYS})
    files: list[tuple[str, int]] = field(default_factory=list)

    @contextmanager
    def take(self, way: str) -> Iterator[None]:
        start = perf_counter()
        yield
        self.ms[way].append((perf_counter() - start) * 1e3)

    def median(self, way: str) -> float:
        return statistics.median(self.ms[way])


def big_files() -> list[Path]:
    """Some files of the standard library with about 5,000 lines."""
    found = []
    for path in sorted(Path(sysconfig.get_path("stdlib")).rglob("*.py")):
        if "site-packages" in path.parts:
            continue
        data = path.read_bytes()
        if _FEWEST_LINES <= data.count(b"\n") <= _MOST_LINES and data.isascii():
            found.append(path)
    return random.Random(1).sample(found, min(_MOST_FILES, len(found)))


def places(text: str) -> list[tuple[int, str, str]]:
    """(line, indentation, name of the scope) where a statement may be put into each function.

    Functions of the module and methods of its classes with a name that occurs once.
    """
    result = []
    lines = text.splitlines()
    tree = ast.parse(text)
    for outer in (tree, *(node for node in tree.body if isinstance(node, ast.ClassDef))):
        prefix = f"{outer.name}." if isinstance(outer, ast.ClassDef) else ""
        functions = [node for node in outer.body if isinstance(node, ast.FunctionDef)]
        names = [node.name for node in functions]
        for node in functions:
            last = node.body[-1]
            indentation = lines[last.lineno - 1][: last.col_offset]
            if (
                names.count(node.name) == 1
                and indentation.isspace()  # it begins its line, and not the one of the header
                and not isinstance(last, ast.FunctionDef | ast.ClassDef)  # may be decorated
            ):
                result.append((last.lineno, indentation, prefix + node.name))
    return result


def measure(times: Times, path: Path, folder: Path, edits: int) -> None:
    copy = folder / path.name
    shutil.copy(path, copy)
    os.utime(copy, (1_700_000_000, 1_700_000_000))
    loc = CLocalFileLocation(copy)
    text = copy.read_text()
    times.files.append((path.name, text.count("\n")))
    main_loop = SteppedMainLoop()
    app = App(folder / f"{path.name}.sqlite3", main_loop)
    try:
        app.coordinator._fAnalyzeFoundImports = False
        app.coordinator.AddPairsToPrimaryQueue([(loc, "*")])
        main_loop.run_idle()
        buffer = GetSingletons().fCacheMgr.OpenBuffer(loc, text, copy.stat().st_mtime)
        chosen = places(text)
        for number, place in enumerate(random.Random(2).choices(chosen, k=edits)):
            edit(times, app, main_loop, buffer, number, place)
    finally:
        app.destroy()


def edit(
    times: Times,
    app: App,
    main_loop: SteppedMainLoop,
    buffer: CTextCache,
    number: int,
    place: tuple[int, str, str],
) -> None:
    """Put a statement into a function, measure each way, and take it out again."""
    line, indentation, scope = place
    loc = buffer.fLocation
    before = buffer.GetText()
    start = buffer.OffsetOfLine(line)
    statement = f"{indentation}edited_{number} = {number}\n"

    def known() -> bool:
        info = app.info_cache.GetScopeInfo(loc, scope)
        return info is not None and f"edited_{number}" in info.type_equivs

    gc.collect()
    with times.take("loop"):
        buffer.Replace(start, start, statement)
        main_loop.run_idle()
    assert known(), scope
    text = buffer.GetText()

    buffer.Replace(start, start + len(statement), "")
    main_loop.run_idle()
    assert not known()
    app.coordinator.SuspendIdleScans()
    buffer.Replace(start, start, statement)
    with times.take("scope"):
        scanner = CSingleScopePrimaryScanner(
            loc, scope, incomplete_scope_set=set(), log=lambda *args: None
        )
        state = scanner.Scan(_fastaccess.GetNowTime() + 10.0)
        changed = scanner.SaveToInfoCache(False)
        scanner.destroy()
    assert state is kFinishedScanning and changed
    assert known()
    app.coordinator.ResumeIdleScans()
    main_loop.run_idle()

    with times.take("whole"):
        app.coordinator.ClearLastScanInfo([loc])
        app.coordinator.AddPairsToPrimaryQueue([(loc, "*")])
        main_loop.run_idle()
    assert known()
    with times.take("native"):
        source = SourceScanner(text.encode())
        source.scan(1 << 40)
        source.scopes()
    with times.take("parse"):
        ast.parse(text)

    buffer.SetText(before)
    main_loop.run_idle()


def report(times: Times) -> str:
    lines = [
        "| After an edit | Median | 90 % | Longest | Times the scope's median |",
        "|---|---:|---:|---:|---:|",
    ]
    base = times.median("scope")
    for way, what in _WAYS.items():
        ordered = sorted(times.ms[way])
        lines.append(
            f"| {what} | {times.median(way):.2f} ms | {ordered[len(ordered) * 9 // 10]:.2f} ms"
            f" | {ordered[-1]:.2f} ms | {times.median(way) / base:.1f} |"
        )
    median = times.median("loop")
    verdict = "met" if median < _MOST_MEDIAN_MS else "**missed**"
    files = ", ".join(f"{name} ({count:,})" for name, count in times.files)
    python = f"{platform.python_implementation()} {platform.python_version()}"
    machine = f"{os.cpu_count()} cores, {platform.system()} {platform.machine()}, {python}"
    return "\n".join(
        [
            *lines,
            "",
            f"- At most {_MOST_MEDIAN_MS:.0f} ms at the median for the scope:"
            f" {median:.2f} ms, {verdict}.",
            "",
            f"{len(times.ms['loop'])} edits of {files} lines. Measured on {machine}.",
        ]
    )


_README_HEAD: Final = """\
# An edit inside of one function

`make bench-edit` measures; with `run.py --write` the figures below are written anew.

Files of the standard library with some 5,000 lines are opened in a buffer, after a scan. A statement is
put into a function or method anywhere in one, and what follows is timed: the scan of the scope that was
edited, beside ways that look at the whole file. All ways are taken after each edit, in turn, in one
process. An edit is undone before the next one.

"To the end of idle work" is everything that the main loop does about it: the scheduler's slices, the
scan, storing the result, and for a method the record of its class's instances.

"""


def main() -> None:
    parser = argparse.ArgumentParser(description="Measure what an edit costs.")
    parser.add_argument("--edits", type=int, default=50, help="edits in each file")
    parser.add_argument("--write", action="store_true", help="write README.md beside this file")
    options = parser.parse_args()
    times = Times()
    gc.freeze()
    with tempfile.TemporaryDirectory(prefix="bench-edit-") as folder:
        for path in big_files():
            measure(times, path, Path(folder), options.edits)
            print(f"{path.name}: {options.edits} edits", file=sys.stderr)
    text = report(times)
    print(text)
    if options.write:
        (_HERE / "README.md").write_text(f"{_README_HEAD}{text}\n")


if __name__ == "__main__":
    main()
