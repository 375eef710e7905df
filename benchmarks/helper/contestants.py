"""One `loom scan` of a folder, in a process of its own.

    contestants.py FOLDER WORK OPTION...

WORK is an empty folder that may be written to. Exactly what is at and below FOLDER is scanned, and
the first stage alone, which is all that helpers do. Prints a JSON document.
"""

import contextlib
import io
import json
import resource
import sys
from array import array
from pathlib import Path
from time import perf_counter
from typing import Any, Final

# What is installed comes first.
sys.path.append(str(Path(__file__).resolve().parents[2]))

_TIMER_SECONDS: Final = 0.010
_FOLLOWS_NOTHING: Final = ["--no-imports", "--no-derived"]


def scan(folder: str, work: Path, options: list[str]) -> dict[str, Any]:
    """The whole command, with a timer on its main loop that notes how late it is."""
    output = io.StringIO()
    late = array("d")
    start = perf_counter()
    from loom.bootstrap import ensure_host_path

    ensure_host_path()
    from loom.cli.main import run
    from loom.mainloop import asyncio_loop

    class MeasuredLoop(asyncio_loop.AsyncioMainLoop):
        def __init__(self) -> None:
            super().__init__()
            self.loop.call_soon(self._arm)  # when the loop runs

        def _arm(self) -> None:
            due = self.loop.time() + _TIMER_SECONDS
            self.loop.call_at(due, self._note, due)

        def _note(self, due: float) -> None:
            late.append(max(0.0, self.loop.time() - due))
            self._arm()

    setattr(asyncio_loop, "AsyncioMainLoop", MeasuredLoop)
    database = work / "info.sqlite3"
    arguments = ["--json", "--db", str(database), "--exclude", "site-packages/", *options]
    with contextlib.redirect_stdout(output):
        code = run(["scan", *_FOLLOWS_NOTHING, *arguments, folder])
    seconds = perf_counter() - start
    if code not in (0, 1):
        raise SystemExit(f"loom scan ended with {code}")
    report = json.loads(output.getvalue())
    first = resource.getrusage(resource.RUSAGE_SELF)
    helpers = resource.getrusage(resource.RUSAGE_CHILDREN)
    return {
        "seconds": seconds,
        "inner_seconds": report["seconds"],
        "files": report["files"]["scanned"] + report["files"]["failed"],
        "bytes": report["bytes"],
        "late": sorted(late),
        "first_cpu": first.ru_utime + first.ru_stime,
        "helper_cpu": helpers.ru_utime + helpers.ru_stime,
        "first_memory": first.ru_maxrss * 1024,
        "helper_memory": helpers.ru_maxrss * 1024,
    }


if __name__ == "__main__":
    print(json.dumps(scan(sys.argv[1], Path(sys.argv[2]), sys.argv[3:])))
