"""One contestant over one list of files, in a process of its own.

    contestants.py NAME LIST FOLDER

LIST is a file with one path a line, FOLDER is empty and may be written to. Prints a JSON document:
"seconds" of the work itself, without the start of the interpreter, "cpu_seconds" of processor time,
and what else there is to tell.
"""

import ast
import contextlib
import io
import json
import os
import subprocess
import sys
import warnings
from array import array
from collections.abc import Callable, Sequence
from pathlib import Path
from time import perf_counter, thread_time
from types import SimpleNamespace
from typing import Any

# What is installed comes first.
sys.path.append(str(Path(__file__).resolve().parents[2]))


# The others find what files define, and no more.
_PRIMARY_ONLY = ("--no-imports", "--no-derived")

def parse(files: Sequence[str], folder: Path) -> dict[str, Any]:
    """`ast.parse`, file by file. The tree is thrown away."""
    warnings.simplefilter("ignore")
    refused = 0
    start = perf_counter()
    for path in files:
        with open(path, "rb") as file:
            source = file.read()
        try:
            ast.parse(source)
        except (SyntaxError, ValueError):
            refused += 1
    return {"seconds": perf_counter() - start, "refused": refused}


def ctags(files: Sequence[str], folder: Path) -> dict[str, Any]:
    """universal-ctags with all kinds that it has for Python, into a sorted tag file."""
    tags = folder / "tags"
    options = ["--languages=Python", "--kinds-Python=*", "-L", "-", "-o", str(tags)]
    start = perf_counter()
    subprocess.run(
        ["ctags", *options], input="\n".join(files), text=True, check=True, capture_output=True
    )
    seconds = perf_counter() - start
    with open(tags, "rb") as file:
        return {"seconds": seconds, "tags": sum(1 for _ in file), "size": tags.stat().st_size}


def bare(files: Sequence[str], folder: Path) -> dict[str, Any]:
    """The scanners of `loom` into its database, one after the other without a scheduler."""
    from loom.bootstrap import ensure_host_path

    ensure_host_path()
    import singleton
    from loombase.location import CLocalFileLocation

    from pysource.scopeinfo import CInfoCache
    from pysource.scopescanner import CWholeFilePrimaryScanner

    database = folder / "info.sqlite3"
    start = perf_counter()
    cache = CInfoCache(database)
    table = singleton.GetSingletons()
    table.fAnalysisMgr = SimpleNamespace(fInfoCache=cache)
    table.fCacheMgr = SimpleNamespace(DoesCacheBufferExist=lambda loc, any_kind: None)
    far = float("inf")
    for path in files:
        scanner = CWholeFilePrimaryScanner(
            CLocalFileLocation(path), "primary", incomplete_scope_set=set(), log=_no_log
        )
        scanner.Scan(far)
        scanner.destroy()
        cache.Trim()
    cache.Close()
    return {"seconds": perf_counter() - start, "size": database.stat().st_size}


def _no_log(*args: object) -> None:
    pass


def loom(files: Sequence[str], folder: Path) -> dict[str, Any]:
    """`loom scan` of these files' folders; FOLDER/arguments holds its arguments, one a line.

    Without imports, so that all contestants look at the same files.

    "seconds" is all of the command: imports, finding the files, closing the database. The length
    of each call of the main loop's idle work is measured, whoever it belongs to.
    """
    arguments = (folder / "arguments").read_text().splitlines()
    database = folder / "info.sqlite3"
    output = io.StringIO()
    start = perf_counter()
    from loom.cli.main import run
    from loom.mainloop.queues import IdleQueue

    lengths, cpu_lengths = array("d"), array("d")
    setattr(IdleQueue, "run_one", _measured(IdleQueue.run_one, lengths, cpu_lengths))
    with contextlib.redirect_stdout(output):
        code = run(["scan", *_PRIMARY_ONLY, "--json", "--db", str(database), *arguments])
    seconds = perf_counter() - start
    if code not in (0, 1):
        raise SystemExit(f"loom scan ended with {code}")
    report = json.loads(output.getvalue())
    if report["files"]["scanned"] + report["files"]["failed"] != len(files):
        raise SystemExit(f"loom scan looked at other files: {report['files']}, not {len(files)}")
    return {
        "seconds": seconds,
        "inner_seconds": report["seconds"],
        "size": database.stat().st_size,
        "definitions": report["definitions"],
        "idle_calls": sorted(lengths),
        "idle_calls_cpu": sorted(cpu_lengths),
    }


def _measured(
    run_one: Callable[..., bool], lengths: "array[float]", cpu_lengths: "array[float]"
) -> Callable[..., bool]:
    def run(self: object) -> bool:
        cpu_start = thread_time()
        start = perf_counter()
        did = run_one(self)
        if did:
            lengths.append(perf_counter() - start)
            cpu_lengths.append(thread_time() - cpu_start)
        return did

    return run


def main() -> None:
    name, listed, folder = sys.argv[1:]
    files = Path(listed).read_text(errors="surrogateescape").splitlines()
    contestant = {"parse": parse, "ctags": ctags, "bare": bare, "loom": loom}[name]
    os.chdir(folder)
    before = _cpu_seconds()
    result = contestant(files, Path(folder))
    print(json.dumps(result | {"cpu_seconds": _cpu_seconds() - before}))


def _cpu_seconds() -> float:
    """Processor time of this process, all its threads, and its children."""
    times = os.times()
    return times.user + times.system + times.children_user + times.children_system


if __name__ == "__main__":
    main()
