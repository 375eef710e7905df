"""One contestant of the latency benchmark, in a process of its own.

    contestants.py loom FOLDER WORK      the scheduler on its main loop
    contestants.py derived FOLDER WORK   the same, with the second stage of each file
    contestants.py slices FOLDER WORK    the same scanners in 50 ms slices, sleep(0) between them
    contestants.py parse FOLDER WORK     ast.parse, file by file, sleep(0) between them
    contestants.py nothing FOLDER WORK   nobody scans: what the machine itself adds
    contestants.py focus FOLDER WORK     how fast what the user turns to is scanned
    contestants.py watchfiles FOLDER     another way to hear of changes, until it is killed

WORK is an empty folder that may be written to. Prints a JSON document.
"""

import ast
import asyncio
import contextlib
import json
import random
import sys
import warnings
from collections.abc import Callable
from pathlib import Path
from time import perf_counter
from types import SimpleNamespace
from typing import Any, Final

# What is installed comes first.
sys.path.append(str(Path(__file__).resolve().parents[2]))

from loom.bootstrap import ensure_host_path

ensure_host_path()

from loom.walk import Found, walk

_TIMER_SECONDS: Final = 0.010
_SLICE_SECONDS: Final = 0.050

_NOTHING_SECONDS: Final = 3.0

# The focus changes while at least so many files are queued.
_QUEUED_FILES: Final = 10_000


class Probes:
    """What else a program has to do on the loop: a timer, and talk over a socket."""

    def __init__(self) -> None:
        self.timer: list[float] = []
        self.talk: list[float] = []

    async def run_timer(self) -> None:
        """How late a task comes back from a sleep of 10 ms."""
        loop = asyncio.get_running_loop()
        while True:
            due = loop.time() + _TIMER_SECONDS
            await asyncio.sleep(_TIMER_SECONDS)
            self.timer.append(loop.time() - due)

    async def run_talk(self, folder: Path) -> None:
        """How long a byte takes to another task and back."""

        async def echo(reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
            with contextlib.suppress(ConnectionError):
                while byte := await reader.read(1):
                    writer.write(byte)
            writer.close()

        path = str(folder / "talk")
        async with await asyncio.start_unix_server(echo, path):
            reader, writer = await asyncio.open_unix_connection(path)
            try:
                while True:
                    start = perf_counter()
                    writer.write(b".")
                    await reader.readexactly(1)
                    self.talk.append(perf_counter() - start)
                    await asyncio.sleep(_TIMER_SECONDS)
            finally:
                writer.close()

    @contextlib.asynccontextmanager
    async def running(self, folder: Path) -> Any:
        tasks = [asyncio.create_task(self.run_timer()), asyncio.create_task(self.run_talk(folder))]
        await asyncio.sleep(2 * _TIMER_SECONDS)
        self.timer.clear()
        self.talk.clear()
        try:
            yield
            await asyncio.sleep(2 * _TIMER_SECONDS)  # so that one that is late now is seen
        finally:
            for task in tasks:
                task.cancel()
            await asyncio.gather(*tasks, return_exceptions=True)


def files_below(folder: str) -> list[str]:
    return [step.path for step in walk([folder]) if isinstance(step, Found)]


def loom(folder: str, work: Path, derived: bool = False) -> dict[str, Any]:
    """A session of `loom scan`, with its own main loop."""
    from loom.app import App
    from loom.mainloop.asyncio_loop import AsyncioMainLoop
    from loom.scansession import ScanSession

    main_loop = AsyncioMainLoop()
    app = App(work / "info.sqlite3", main_loop)
    app.coordinator._fAnalyzeFoundImports = False
    probes = Probes()

    async def run() -> float:
        session = ScanSession(app, [folder], derived=derived)
        finished = asyncio.Event()
        session.connect("finished", lambda _session: finished.set())
        async with probes.running(work):
            app.collect_between_slices()
            start = perf_counter()
            session.start()
            await finished.wait()
            seconds = perf_counter() - start
        session.destroy()
        return seconds

    seconds = main_loop.loop.run_until_complete(run())
    app.destroy()
    main_loop.close()
    return {"seconds": seconds, "timer": probes.timer, "talk": probes.talk}


def derived(folder: str, work: Path) -> dict[str, Any]:
    """The same with the second stage."""
    return loom(folder, work, derived=True)


async def _in_turns(steps: Callable[[], bool], work: Path) -> dict[str, Any]:
    """Run steps until one returns false, with `sleep(0)` between them."""
    probes = Probes()
    async with probes.running(work):
        start = perf_counter()
        while steps():
            await asyncio.sleep(0)
        seconds = perf_counter() - start
    return {"seconds": seconds, "timer": probes.timer, "talk": probes.talk}


def slices(folder: str, work: Path) -> dict[str, Any]:
    """The scanners and the database of `loom`, in slices of a coroutine."""
    import singleton
    from loombase.location import CLocalFileLocation

    from pysource import _fastaccess
    from pysource.scopeinfo import CInfoCache
    from pysource.scopescanner import CWholeFilePrimaryScanner, kTimedOut

    cache = CInfoCache(work / "info.sqlite3")
    table = singleton.GetSingletons()
    table.fAnalysisMgr = SimpleNamespace(fInfoCache=cache)
    table.fCacheMgr = SimpleNamespace(DoesCacheBufferExist=lambda loc, any_kind: None)
    files = files_below(folder)[::-1]
    under_way: list[CWholeFilePrimaryScanner] = []

    def one_slice() -> bool:
        end = _fastaccess.GetNowTime() + _SLICE_SECONDS
        while files or under_way:
            if not under_way:
                loc = CLocalFileLocation(files.pop())
                under_way.append(
                    CWholeFilePrimaryScanner(
                        loc, "primary", incomplete_scope_set=set(), log=lambda *_: None
                    )
                )
            if under_way[0].Scan(end) is not kTimedOut:
                under_way.pop().destroy()
                cache.Trim()
            if _fastaccess.GetNowTime() >= end:
                return True
        return False

    result = asyncio.run(_in_turns(one_slice, work))
    cache.Close()
    return result


def parse(folder: str, work: Path) -> dict[str, Any]:
    """What a tool without a scanner of its own does."""
    warnings.simplefilter("ignore")
    files = files_below(folder)[::-1]

    def one_file() -> bool:
        if not files:
            return False
        with open(files.pop(), "rb") as file:
            source = file.read()
        with contextlib.suppress(SyntaxError, ValueError, RecursionError, MemoryError):
            ast.parse(source)
        return True

    return asyncio.run(_in_turns(one_file, work))


def nothing(folder: str, work: Path) -> dict[str, Any]:
    """How late the probes are by themselves."""
    probes = Probes()

    async def run() -> None:
        async with probes.running(work):
            await asyncio.sleep(_NOTHING_SECONDS)

    asyncio.run(run())
    return {"seconds": _NOTHING_SECONDS, "timer": probes.timer, "talk": probes.talk}


def focus(folder: str, work: Path) -> dict[str, Any]:
    """Positions and seconds from a change of the active document to the end of its scan."""
    from cache.textcache import CTextCache
    from edit.editor import CSourceEditor
    from singleton import GetSingletons

    from loom.app import App
    from loom.mainloop.asyncio_loop import AsyncioMainLoop
    from loom.scansession import ScanSession
    from pysource.scancoordinator import kBackgroundPriority

    main_loop = AsyncioMainLoop()
    app = App(work / "info.sqlite3", main_loop)
    app.coordinator._fAnalyzeFoundImports = False
    session = ScanSession(app, [folder])
    gui, queue = GetSingletons().fGuiMgr, app.coordinator._fScanQueue
    stored: dict[object, float] = {}

    def note(_cache: object, loc: object, _record: object) -> None:
        stored[loc] = perf_counter()

    app.info_cache.connect("file-stored", note)
    results: list[dict[str, float]] = []
    chosen = random.Random(1)

    async def change_focus() -> bool:
        """Between two slices, as a click would come. False if too few files are queued."""
        (background,) = [
            each.fOrderedDict
            for each in queue._fOrderedQueues
            if (each.fScanName, each.fPriority) == ("primary", kBackgroundPriority)
        ]
        left = list(background)
        if len(left) < _QUEUED_FILES:
            return False
        place = chosen.randrange(len(left))
        loc = left[place]
        before, slices_before = len(stored), len(app.coordinator.slices)
        start = perf_counter()
        gui.SetActiveDocument(CSourceEditor(CTextCache(loc)))
        switched = perf_counter() - start
        while loc not in stored:
            await asyncio.sleep(0.001)
        results.append(
            {
                "queued": len(left),
                "place": place,
                "position": list(stored).index(loc) - before + 1,
                "slices": len(app.coordinator.slices) - slices_before,
                "switch_seconds": switched,
                "seconds": stored[loc] - start,
            }
        )
        return True

    async def run() -> dict[str, Any]:
        app.coordinator.SuspendIdleScans()
        session.start()
        while not session.counts.all_found:
            await asyncio.sleep(0.01)
        app.collect_between_slices()
        app.coordinator.ResumeIdleScans()
        await change_focus()  # while it is still checked which files are known
        first = results.pop()
        while not stored:
            await asyncio.sleep(0.01)
        while await change_focus():
            await asyncio.sleep(0.001)
        return {"first": first, "results": results}

    result = main_loop.loop.run_until_complete(run())
    session.stop()
    session.destroy()
    app.destroy()
    main_loop.close()
    return result


def watchfiles_(folder: str) -> None:
    """Hear of changes the way `watchfiles` has for asyncio. Prints a line when it has begun."""
    import watchfiles

    async def watch() -> None:
        async for _ in watchfiles.awatch(folder, rust_timeout=5_000, yield_on_timeout=True):
            print("{}", flush=True)

    asyncio.run(watch())


def main() -> None:
    name, folder, *rest = sys.argv[1:]
    if name == "watchfiles":
        watchfiles_(folder)
        return
    contestants = (loom, derived, slices, parse, nothing, focus)
    contestant = {each.__name__: each for each in contestants}[name]
    print(json.dumps(contestant(folder, Path(rest[0]))))


if __name__ == "__main__":
    main()
