"""An info cache in its place among the host's services, with a clock that stands still."""

import os
import sqlite3
import sys
import time
from collections.abc import Callable, Iterator
from pathlib import Path
from types import SimpleNamespace
from typing import Any

import pytest

from loom.bootstrap import ensure_host_path

ensure_host_path()
sys.path.insert(0, str(Path(__file__).parent))  # for `cache_samples`

import singleton
from guiutils import lgtk
from loombase.location import CLocalFileLocation
from virtualtime import Clock

from loom.mainloop.stepped import SteppedMainLoop
from pysource import scopeinfo, scopescanner


@pytest.fixture
def main_loop() -> Iterator[SteppedMainLoop]:
    result = SteppedMainLoop()
    lgtk.SetMainLoop(result)
    yield result
    lgtk.SetMainLoop(None)


class Buffers:
    """The cache manager: no file is open until a test puts a buffer into `buffers`."""

    def __init__(self) -> None:
        self.buffers: dict[CLocalFileLocation, Any] = {}

    def DoesCacheBufferExist(self, loc: CLocalFileLocation, any_kind: bool) -> Any:
        return self.buffers.get(loc)

    def GetAnalysis(self, loc: CLocalFileLocation, create: bool) -> None:
        return None


@pytest.fixture
def buffers() -> Buffers:
    return Buffers()


@pytest.fixture
def db_path(tmp_path: Path) -> Path:
    return tmp_path / "db" / "info.sqlite3"


@pytest.fixture
def cache(
    db_path: Path, clock: Clock, main_loop: SteppedMainLoop, buffers: Buffers
) -> Iterator["scopeinfo.CInfoCache"]:
    """A new info cache, known to the singletons."""
    result = scopeinfo.CInfoCache(db_path)
    singletons = singleton.GetSingletons()
    singletons.fAnalysisMgr = SimpleNamespace(fInfoCache=result)
    singletons.fCacheMgr = buffers
    yield result
    singletons.fAnalysisMgr = singletons.fCacheMgr = None
    result.destroy()


@pytest.fixture
def make_file(tmp_path: Path) -> Callable[..., CLocalFileLocation]:
    """Writes a file and returns its location.

    Its time, in nanoseconds, is that of an hour ago, old enough to be trusted, unless one is given.
    """
    an_hour_ago = time.time_ns() - 3_600_000_000_000

    def make(
        name: str, content: str | bytes = "", mtime_ns: int | None = None
    ) -> CLocalFileLocation:
        path = tmp_path / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content.encode() if isinstance(content, str) else content)
        when = an_hour_ago if mtime_ns is None else mtime_ns
        os.utime(path, ns=(when, when))
        return CLocalFileLocation(path)

    return make


@pytest.fixture
def new_scanner() -> Callable[..., "scopescanner.CWholeFilePrimaryScanner"]:
    """Makes a scanner as the scheduler does."""

    def make(
        loc: CLocalFileLocation, incomplete: set[str] | None = None
    ) -> "scopescanner.CWholeFilePrimaryScanner":
        return scopescanner.CWholeFilePrimaryScanner(
            loc,
            "primary",
            incomplete_scope_set=set() if incomplete is None else incomplete,
            log=lambda *args: None,
        )

    return make


@pytest.fixture
def scan(
    cache: "scopeinfo.CInfoCache", clock: Clock, new_scanner: Callable[..., Any]
) -> Callable[..., Any]:
    """Scans a file in one go and returns the state reached."""

    def run(loc: CLocalFileLocation, incomplete: set[str] | None = None) -> Any:
        scanner = new_scanner(loc, incomplete)
        state = scanner.Scan(clock.now + 1_000.0)
        scanner.destroy()
        return state

    return run


@pytest.fixture
def rows(db_path: Path) -> Callable[..., list[tuple[Any, ...]]]:
    """Asks the database over a connection of its own."""

    def ask(query: str, *arguments: Any) -> list[tuple[Any, ...]]:
        connection = sqlite3.connect(db_path)
        try:
            return connection.execute(query, arguments).fetchall()
        finally:
            connection.close()

    return ask
