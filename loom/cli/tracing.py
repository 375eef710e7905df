"""The options `--trace` and `--report`, and what they do around a run."""

from __future__ import annotations

import contextlib
import functools
from collections.abc import Callable, Iterator, Mapping, Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import TYPE_CHECKING, Any, TypeVar

import click

if TYPE_CHECKING:
    from loom.app import App
    from loom.followed import FollowingCoordinator

__all__ = ["Tracing", "tracing_options"]

_F = TypeVar("_F", bound=Callable[..., Any])


@dataclass(frozen=True)
class Tracing:
    """Where the trace and the report of a run go; each may be none."""

    trace_path: Path | None
    report_path: Path | None

    def coordinator_class(self) -> type[FollowingCoordinator]:
        """What the app's scheduler must be."""
        if not self:
            from loom.followed import FollowingCoordinator

            return FollowingCoordinator
        from loom.trace.observe import TracedCoordinator

        return TracedCoordinator

    def __bool__(self) -> bool:
        return self.trace_path is not None or self.report_path is not None

    @contextlib.contextmanager
    def around(
        self, app: App, roots: Sequence[str], report: Callable[[], Mapping[str, Any]]
    ) -> Iterator[None]:
        """Record what happens within the block, and write it at its end.

        `report()` is what the command has to say of the run, as JSON, `roots` the local paths that
        are scanned. Raises `click.ClickException` if a file can't be written.
        """
        if not self:
            yield
            return
        from loom.trace.observe import TracedCoordinator, trace_app
        from loom.trace.page import report_page
        from loom.trace.recorder import TraceRecorder

        recorder = TraceRecorder()
        trace_app(app, recorder)
        yield
        try:
            if self.trace_path is not None:
                with open(self.trace_path, "w", encoding="utf-8") as file:
                    recorder.write(file)
            if self.report_path is not None:
                coordinator = app.coordinator
                assert isinstance(coordinator, TracedCoordinator)
                page = report_page(recorder, coordinator, report(), roots)
                self.report_path.write_text(page, encoding="utf-8", errors="backslashreplace")
        except OSError as error:
            raise click.ClickException(f"{error.filename}: {error.strerror}") from error


def tracing_options(command: _F) -> _F:
    """The options `--trace` and `--report`, which `command` gets as one argument `tracing`."""

    @functools.wraps(command)
    def with_tracing(*args: Any, **options: Any) -> Any:
        tracing = Tracing(options.pop("trace_path"), options.pop("report_path"))
        return command(*args, tracing=tracing, **options)

    wrapped: Any = with_tracing
    path = click.Path(dir_okay=False, path_type=Path)
    for option in (
        click.option(
            "--report",
            "report_path",
            type=path,
            metavar="FILE.html",
            help="Write a page about the run: what was scanned when, why, and how long it took.",
        ),
        click.option(
            "--trace",
            "trace_path",
            type=path,
            metavar="FILE",
            help="Write what happened when, for chrome://tracing or Perfetto.",
        ),
    ):
        wrapped = option(wrapped)
    result: _F = wrapped
    return result
