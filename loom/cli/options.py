"""Options that several commands share."""

from __future__ import annotations

from collections.abc import Callable, Sequence
from pathlib import Path
from typing import TYPE_CHECKING, Any, TypeVar

import click

from loom.places import default_db_path

if TYPE_CHECKING:
    from pathspec import GitIgnoreSpec

__all__ = [
    "derived_option",
    "exclude_option",
    "helper_options",
    "import_options",
    "parse_exclude",
    "shared_options",
]

_F = TypeVar("_F", bound=Callable[..., Any])


def import_options(command: _F) -> _F:
    """The options `--python` and `--no-imports`, for commands that scan."""
    for option in (
        click.option(
            "--no-imports",
            is_flag=True,
            help="Scan exactly the files at and below each PATH: neither what they import, nor the"
            " builtins.",
        ),
        click.option(
            "--python",
            metavar="PYTHON",
            help="Look for imported modules where this interpreter or virtual environment does, by"
            ' default the ".venv" or "venv" of the project, else the interpreter of loom.',
        ),
    ):
        command = option(command)
    return command


def derived_option(command: _F) -> _F:
    """The option `--no-derived`, which gives `derived`."""
    option = click.option(
        "--no-derived",
        "derived",
        flag_value=False,
        default=True,
        help="Leave out the second stage, which finds what names mean in other files and who refers"
        " to them. It takes some three times as long as the first.",
    )
    return option(command)


def helper_options(command: _F) -> _F:
    """The options `--helper` and `--jobs`, which give the number of helper processes, or none."""
    for option in (
        click.option(
            "--jobs",
            type=click.IntRange(1, 64),
            metavar="N",
            help="Have N helper processes scan, besides this one.",
        ),
        click.option(
            "--helper/--no-helper",
            default=None,
            help="Have a helper process scan, besides this one.",
        ),
    ):
        command = option(command)
    return command


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


exclude_option = click.option(
    "--exclude",
    multiple=True,
    metavar="PATTERN",
    help='Leave out what PATTERN fits, in the syntax of ".gitignore"; "!PATTERN" keeps it.'
    " May be given several times.",
)


def parse_exclude(patterns: Sequence[str]) -> GitIgnoreSpec | None:
    """What `exclude_option` gave. A bad pattern is a user's error."""
    from loom.ignore import parse_patterns

    try:
        return parse_patterns(patterns) if patterns else None
    except ValueError as error:
        raise click.BadParameter(str(error), param_hint="--exclude") from error
