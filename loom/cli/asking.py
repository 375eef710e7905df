"""What the commands that ask the inference share: a host to ask, and how its answers are shown."""

from __future__ import annotations

from collections.abc import Callable, Iterator, Sequence
from contextlib import contextmanager
from pathlib import Path
from typing import TYPE_CHECKING, Any, TypeVar

import click

from loom.cli.imports import Imports
from loom.cli.output import escape, styled

if TYPE_CHECKING:
    from loom.app import App
    from loom.infer.context import CInferenceContext
    from loom.infer.places import Place

__all__ = ["asking", "deadline_options", "place_as_json", "place_as_text"]

_F = TypeVar("_F", bound=Callable[..., Any])


def deadline_options(command: _F) -> _F:
    """The options `--deadline` and `--python`."""
    for option in (
        click.option(
            "--python",
            metavar="PYTHON",
            help="The interpreter, or virtual environment, whose modules are imported.",
        ),
        click.option(
            "--deadline",
            type=click.FloatRange(min=0),
            default=1.0,
            show_default=True,
            metavar="SECONDS",
            help="How long the answer may take. One that isn't complete by then is said to be so.",
        ),
    ):
        command = option(command)
    return command


@contextmanager
def asking(
    db_path: Path, paths: Sequence[str], python: str | None, deadline: float
) -> Iterator[tuple[App, CInferenceContext]]:
    """A host over the database, and a context for one question; files are seen as from `paths`.

    The deadline begins when the host is ready. What was scanned for the answer is written when the
    context manager ends.
    """
    with Imports(paths, python, False) as imports:
        from loom.app import App
        from loom.mainloop.asyncio_loop import AsyncioMainLoop
        from pysource import _fastaccess

        main_loop = AsyncioMainLoop()
        try:
            app = App(db_path, main_loop)
            try:
                imports.set_up(app)
                app.collect_between_slices()
                end_time = _fastaccess.GetNowTime() + deadline
                yield app, app.ana_mgr.fInferenceEngine.NewContext(end_time)
            finally:
                app.destroy()
        finally:
            main_loop.close()


def _path_of(place: Place) -> str:
    return str(getattr(place.loc, "path", place.loc.fUrl))


def place_as_json(place: Place) -> dict[str, object]:
    """A place as an object of a JSON document; its column counts from 1."""
    return {
        "path": _path_of(place),
        "url": place.loc.fUrl,
        "line": place.line,
        "column": place.column + 1,
        "kind": place.kind,
        "scope": place.scope_name,
        "name": place.name,
    }


def place_as_text(place: Place) -> str:
    """A place as a line for people, and for programs that know compilers' messages."""
    name = f"{place.scope_name}.{place.name}" if place.scope_name else place.name
    where = f"{styled(escape(_path_of(place)), fg='cyan')}:{place.line}:{place.column + 1}"
    return f"{where}: {place.kind} {styled(escape(name), bold=True)}"
