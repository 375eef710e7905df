"""Driving a whole host in virtual time."""

import os
from pathlib import Path
from typing import Any

from cache.textcache import CTextCache
from loombase.location import CLocalFileLocation
from singleton import GetSingletons
from virtualtime import Clock

from loom.app import App
from loom.mainloop.stepped import SteppedMainLoop
from pysource import scopescanner

# A time that is old enough to be trusted.
kOldTime = 1_700_000_000


class Scans:
    """What the scanners scan: the text that each is given, and how much of it is walked."""

    def __init__(self) -> None:
        self.whole: list[bytes] = []
        self.slices: list[bytes] = []
        self.walked = 0

    def clear(self) -> None:
        self.whole.clear()
        self.slices.clear()
        self.walked = 0


class Host:
    """Short ways to drive a host."""

    def __init__(self, app: App, main_loop: SteppedMainLoop, clock: Clock, folder: Path) -> None:
        self.app = app
        self.main_loop = main_loop
        self.clock = clock
        self.cache = app.info_cache
        self.cache_mgr = GetSingletons().fCacheMgr
        self.over: list[tuple[str, str]] = []
        self._folder = str(folder)
        app.coordinator.on_scan_over = self._note_over

    def _note_over(self, item: Any) -> None:
        if item.loc.path.startswith(self._folder):  # modules that every program needs come along
            self.over.append((item.scope_name, item.scan_name))

    def run(self) -> list[tuple[str, str]]:
        """Run idle work to its end; returns scope and scan name of each scan, in order."""
        self.over.clear()
        self.main_loop.run_idle()
        return list(self.over)

    def scan_file(self, loc: CLocalFileLocation) -> None:
        self.app.coordinator.AddPairsToPrimaryQueue([(loc, "*")])
        ran = self.run()
        assert ("*", "primary") in ran

    def open(self, loc: CLocalFileLocation) -> CTextCache:
        """Open a file that was scanned, as an editor does."""
        text = Path(loc.path).read_text()
        return self.cache_mgr.OpenBuffer(loc, text, os.stat(loc.path).st_mtime)

    def names(self, loc: CLocalFileLocation, scope_name: str) -> list[str] | None:
        """The names of a scope; none if nothing is known of it or it is known not to be there."""
        info = self.cache.GetScopeInfo(loc, scope_name)
        return None if info is None or info.does_not_exist else list(info.type_equivs)

    def scan_now(
        self, loc: CLocalFileLocation, scope_name: str, seconds: float = 1_000.0
    ) -> tuple[Any, Any]:
        """Scan a scope in one go. Returns the scanner and what saving it returned."""
        self.incomplete = self.app.coordinator._fIncompleteScansByLoc[loc]
        scanner = scopescanner.CSingleScopePrimaryScanner(
            loc, scope_name, incomplete_scope_set=self.incomplete, log=lambda *args: None
        )
        scanner.Scan(self.clock.now + seconds)
        return scanner, scanner.SaveToInfoCache(False)


def line_of(text: str, part: str) -> int:
    """The number of the first line that holds a text."""
    return text[: text.index(part)].count("\n") + 1
