"""The options `--python` and `--no-imports`, carried out."""

from __future__ import annotations

from collections.abc import Sequence
from types import TracebackType
from typing import TYPE_CHECKING, Self

import click

from loom.cli.output import warn

if TYPE_CHECKING:
    from loom.app import App

__all__ = ["Imports"]


class Imports:
    """Where a command looks for imported modules, or that it doesn't.

    The interpreter is asked at once, and answers while the program gets ready. Raises
    `click.BadParameter` for one that can't be asked.
    """

    def __init__(self, paths: Sequence[str], python: str | None, no_imports: bool) -> None:
        from loom.bootstrap import ensure_host_path

        ensure_host_path()
        from loom.resolve.interpreter import EnvironmentQuestion, InterpreterError

        self._error = InterpreterError
        try:
            self._question = None if no_imports else EnvironmentQuestion(paths, python)
        except InterpreterError as error:
            raise _bad_python(error) from error

    def set_up(self, app: App) -> None:
        """Tell the app. Raises `click.BadParameter` if the interpreter doesn't work."""
        if self._question is None:
            app.coordinator._fAnalyzeFoundImports = False
            app.ana_mgr.fAnalysisFactory.fSourcesGoAlong = False
            return
        try:
            app.ana_mgr.fAnalysisFactory.SetEnvironment(self._question.answer())
        except self._error as error:
            raise _bad_python(error) from error
        if self._question.warning is not None:
            warn(self._question.warning)

    def __enter__(self) -> Self:
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        traceback: TracebackType | None,
    ) -> None:
        if self._question is not None:
            self._question.cancel()


def _bad_python(error: Exception) -> click.BadParameter:
    return click.BadParameter(str(error), param_hint="--python")
