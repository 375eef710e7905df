"""A whole host in virtual time, with its buffers, and what it scanned."""

import os
import sys
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import pytest

from loom.bootstrap import ensure_host_path

ensure_host_path()
sys.path.insert(0, str(Path(__file__).parent))  # for the modules of these tests alone

from loombase.location import CLocalFileLocation
from scope_host import Host, Scans, kOldTime
from virtualtime import Clock

from loom.app import App
from loom.mainloop.stepped import SteppedMainLoop
from pysource import scopescanner


@pytest.fixture
def app(main_loop: SteppedMainLoop, tmp_path: Path, clock: Clock) -> Iterator[App]:
    result = App(tmp_path / "info.sqlite3", main_loop)
    result.coordinator._fAnalyzeFoundImports = False  # these tests are about one file
    yield result
    result.destroy()


@pytest.fixture
def make_file(tmp_path: Path) -> Callable[..., CLocalFileLocation]:
    """Writes a file with a settled time and returns its location."""

    def make(name: str, content: str | bytes, time: float = kOldTime) -> CLocalFileLocation:
        path = tmp_path / name
        path.write_bytes(content.encode() if isinstance(content, str) else content)
        os.utime(path, (time, time))
        return CLocalFileLocation(path)

    return make


@pytest.fixture
def scans(monkeypatch: pytest.MonkeyPatch) -> Scans:
    """Notes the texts of whole scans and of slices; headers scanned alone aren't counted."""
    from loom._pyscan import SourceScanner

    result = Scans()

    class Watched:
        def __init__(self, source: bytes) -> None:
            self.real = SourceScanner(source)
            self.source: bytes | None = source

        def __getattr__(self, name: str) -> Any:
            return getattr(self.real, name)

        def scan(self, max_bytes: int) -> bool:
            if self.source is not None:
                whole = max_bytes in kWholeSteps
                (result.whole if whole else result.slices).append(self.source)
                self.source = None
            before = self.real.position
            done = self.real.scan(max_bytes)
            result.walked += self.real.position - before
            return done

    kWholeSteps = (
        scopescanner.wholefile._kStepBytes,
        scopescanner.singlescope._kWholeStepBytes,
    )
    monkeypatch.setattr(scopescanner.wholefile, "SourceScanner", Watched)
    monkeypatch.setattr(scopescanner.singlescope, "SourceScanner", Watched)
    return result


@pytest.fixture
def host(app: App, main_loop: SteppedMainLoop, clock: Clock, tmp_path: Path) -> Host:
    return Host(app, main_loop, clock, tmp_path)
