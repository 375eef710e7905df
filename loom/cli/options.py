"""Options that several commands share."""

from __future__ import annotations

from collections.abc import Callable
from pathlib import Path
from typing import Any, TypeVar

import click

from loom.places import default_db_path

__all__ = ["shared_options"]

_F = TypeVar("_F", bound=Callable[..., Any])


def shared_options(command: _F) -> _F:
    """The options `--db`, `--json` and `--verbose`."""
    for option in (
        click.option(
            "-v", "--verbose", count=True, help="Say what goes on; twice: the scheduler's log, too."
        ),
        click.option("--json", "as_json", is_flag=True, help="Write one JSON document."),
        click.option(
            "--db",
            "db_path",
            type=click.Path(dir_okay=False, path_type=Path),
            default=default_db_path,
            show_default="the user's cache folder",
            callback=lambda _ctx, _param, path: path.absolute(),
            help="The database file.",
        ),
    ):
        command = option(command)
    return command
