"""One process of the comparison: prints one JSON document.

    contestants.py DATABASE FOLDER...

In one process: the bare loop, the walk alone, and a whole session of the host over the folders, as
`loom scan` runs it.
"""

import json
import os
import sqlite3
import sys
import time
from collections.abc import Callable, Sequence
from pathlib import Path
from typing import Any, Final

sys.path.append(str(Path(__file__).resolve().parents[2]))  # what is installed comes first

from loom.bootstrap import ensure_host_path

ensure_host_path()

from loom.app import App
from loom.mainloop.asyncio_loop import AsyncioMainLoop
from loom.scansession import ScanSession
from loom.store.queries import url_of
from loom.walk import Found, walk

# As many as a whole-file check asks for at once.
_FILES_PER_QUERY: Final = 26

_TIMES_OF_BARE: Final = 3


def timed(work: Callable[[], Any]) -> dict[str, float]:
    """Seconds of the clock and of the processor."""
    start, cpu = time.perf_counter(), time.process_time()
    work()
    return {
        "seconds": time.perf_counter() - start,
        "cpu_seconds": time.process_time() - cpu,
    }


def bare(files: Sequence[str], db_path: str) -> dict[str, float]:
    """`os.stat` of each file, and one query for every 26; the best of some goes."""
    urls = [url_of(path) for path in files]
    connection = sqlite3.connect(f"file:{db_path}?mode=ro", uri=True)

    def loop() -> None:
        for path in files:
            os.stat(path)
        for start in range(0, len(urls), _FILES_PER_QUERY):
            part = urls[start : start + _FILES_PER_QUERY]
            marks = ", ".join("?" * len(part))
            connection.execute(
                f"SELECT url, mtime_ns, size, scans FROM files WHERE url IN ({marks})", part
            ).fetchall()

    results = [timed(loop) for _ in range(_TIMES_OF_BARE)]
    connection.close()
    return min(results, key=lambda result: result["seconds"])


def session(folders: Sequence[str], db_path: str) -> dict[str, Any]:
    """A run of the host over the folders, from its first step to its last."""
    main_loop = AsyncioMainLoop()
    app = App(Path(db_path), main_loop)
    run = ScanSession(app, folders)
    run.connect("finished", lambda _run: main_loop.loop.stop())
    app.collect_between_slices()

    def go() -> None:
        run.start()
        main_loop.loop.run_forever()

    result: dict[str, Any] = timed(go)
    counts = run.counts
    result["counts"] = {
        "found": counts.found,
        "imported": counts.imported.found,
        "parsed": counts.scanned + counts.imported.scanned,
        "reread": counts.reread + counts.imported.reread,
        "unchanged": counts.unchanged,
    }
    failure = run.failure
    run.destroy()
    app.destroy()
    main_loop.close()
    if failure is not None:
        raise failure
    return result


def main() -> None:
    db_path, *folders = sys.argv[1:]
    found: list[str] = []

    def find() -> None:
        found[:] = [step.path for step in walk(folders) if isinstance(step, Found)]

    find()  # the file system has seen it all once
    result: dict[str, Any] = {"walk": timed(find)}
    if Path(db_path).exists():
        result["bare"] = bare(found, db_path)
    result["session"] = session(folders, db_path)
    print(json.dumps(result))


if __name__ == "__main__":
    main()
