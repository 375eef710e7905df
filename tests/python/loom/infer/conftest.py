"""Small projects on disk, and questions about positions in them.

A position is told by a snippet of the text that occurs once, with "|" where it is.
"""

import os
import shutil
from collections.abc import Iterator, Mapping
from pathlib import Path
from typing import Any

import pytest

from loom.bootstrap import ensure_host_path

ensure_host_path()

from guiutils import lgtk
from loombase.location import CLocalFileLocation
from virtualtime import Clock

from loom.app import App
from loom.infer import api
from loom.infer.context import CInferenceContext
from loom.infer.define import Answer, definitions_at
from loom.infer.render import values_text
from loom.mainloop.stepped import SteppedMainLoop
from pysource import _fastaccess

# A time that is old enough to be trusted.
kOldTime = 1_700_000_000


class Project:
    """Files in a folder, and a host that may be asked about them."""

    def __init__(self, top: Path, app: App, clock: Clock) -> None:
        self.top = top
        self.app = app
        self.clock = clock
        self.engine = app.ana_mgr.fInferenceEngine
        self._writes = 0

    def write(self, **modules: str) -> None:
        """Modules in the topmost folder, by name."""
        for name, text in modules.items():
            self.write_file(f"{name}.py", text)

    def write_all(self, files: Mapping[str, str]) -> None:
        """Files by path below the topmost folder."""
        for name, text in files.items():
            self.write_file(name, text)

    def write_file(self, name: str, text: str) -> None:
        path = self.top / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)
        self._writes += 1
        os.utime(path, (kOldTime + self._writes, kOldTime + self._writes))

    def loc(self, name: str) -> CLocalFileLocation:
        return CLocalFileLocation(self.top / name)

    def context(self, seconds: float = 60.0, may_scan: bool = True) -> CInferenceContext:
        return self.engine.NewContext(self.clock.now + seconds, may_scan)

    def position(self, name: str, snippet: str) -> tuple[int, int]:
        """Line, from 1, and column, from 0, of the "|" in a snippet of a file."""
        text = (self.top / name).read_text()
        plain = snippet.replace("|", "", 1)
        assert text.count(plain) == 1, f"{plain!r} occurs {text.count(plain)} times in {name}"
        before = text[: text.index(plain) + snippet.index("|")]
        return before.count("\n") + 1, len(before) - before.rfind("\n") - 1

    def ask(
        self, name: str, snippet: str, context: CInferenceContext | None = None, **options: Any
    ) -> Answer:
        line, column = self.position(name, snippet)
        return definitions_at(
            self.loc(name), line, column, context or self.context(), **options
        )

    def place(self, answer: Answer) -> tuple[str, int, int] | None:
        """File, line and column of the first place."""
        if not answer.places:
            return None
        first = answer.places[0]
        path = Path(first.loc.path)
        name = str(path.relative_to(self.top)) if path.is_relative_to(self.top) else path.name
        return name, first.line, first.column

    def check(self, name: str, use: str, where: str, definition: str) -> None:
        """The use must be defined at a place, and nothing may be missing."""
        answer = self.ask(name, use)
        assert not answer.partial
        assert self.place(answer) == (where, *self.position(where, definition))

    def type(self, name: str, expression: str, scope_name: str = "") -> str:
        """What an expression is worth in a scope of a file, as text."""
        context = self.context()
        values = api.evaluate_expression(self.loc(name), scope_name, expression, context)
        assert not context.partial
        return values_text(values)


@pytest.fixture(scope="session")
def scanned_library(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """A database with the stubs that nearly every question leads to."""
    folder = tmp_path_factory.mktemp("library")
    path = folder / "info.sqlite3"
    loop = SteppedMainLoop()
    app = App(path, loop)
    source = folder / "m.py"
    source.write_text("")
    context = app.ana_mgr.fInferenceEngine.NewContext(float("inf"))
    for expression in ("[x for x in {}.items()]", "''.join(open(''))", "Missing()"):
        api.evaluate_expression(CLocalFileLocation(source), "", expression, context)
    assert not context.partial
    app.destroy()
    lgtk.SetMainLoop(None)
    return path


def _make_project(tmp_path: Path, main_loop: SteppedMainLoop, clock: Clock) -> Project:
    top = tmp_path / "project"
    top.mkdir()
    app = App(tmp_path / "info.sqlite3", main_loop)
    # The app has set the loop's clock.
    vars(_fastaccess)["__TimeFunc"] = clock
    return Project(top, app, clock)


@pytest.fixture
def project(
    tmp_path: Path, main_loop: SteppedMainLoop, clock: Clock, scanned_library: Path
) -> Iterator[Project]:
    """A project of which nothing is scanned, but the library."""
    shutil.copyfile(scanned_library, tmp_path / "info.sqlite3")
    made = _make_project(tmp_path, main_loop, clock)
    yield made
    made.app.destroy()


@pytest.fixture
def cold_project(
    tmp_path: Path, main_loop: SteppedMainLoop, clock: Clock
) -> Iterator[Project]:
    """A project over an empty database."""
    made = _make_project(tmp_path, main_loop, clock)
    yield made
    made.app.destroy()
