"""`loom define FILE:LINE:COL`: where the name at a position is defined."""

from __future__ import annotations

import re
from pathlib import Path
from typing import NamedTuple

import click

from loom.cli.asking import asking, deadline_options, place_as_json, place_as_text
from loom.cli.options import shared_options
from loom.cli.output import Exit, escape, set_up_logging, warn, write, write_json

__all__ = ["define"]


class _Position(NamedTuple):
    path: str
    line: int
    column: int


def _parse_position(
    _context: click.Context, _parameter: click.Parameter, value: str
) -> _Position:
    match = re.fullmatch(r"(.+):(\d+):(\d+)", value, re.DOTALL)
    if match is None:
        raise click.BadParameter("it must be FILE:LINE:COL")
    line, column = int(match[2]), int(match[3])
    if line < 1 or column < 1:
        raise click.BadParameter("lines and columns count from 1")
    return _Position(match[1], line, column)


@click.command()
@click.argument("position", metavar="FILE:LINE:COL", callback=_parse_position)
@click.option("--stop-at-import", is_flag=True, help="Don't follow imports to other files.")
@click.option("--all", "every", is_flag=True, help="Show all possible definitions, not the first.")
@deadline_options
@shared_options
def define(
    position: _Position,
    stop_at_import: bool,
    every: bool,
    deadline: float,
    python: str | None,
    db_path: Path,
    as_json: bool,
    verbose: int,
) -> int:
    """Show where the name at a position is defined, across files.

    LINE and COL count from 1, COL in characters, as editors and compilers show them; a position
    right behind a name is on it, too. FILE needn't have been scanned: what the answer depends on
    is scanned on the way, and kept for the next time.

    Exits with 1 if there is no name, or no definition of it was found.
    """
    set_up_logging(verbose)
    path = position.path
    if not Path(path).is_file():
        raise click.BadParameter(f"there is no file {escape(path)}", param_hint="FILE:LINE:COL")
    with asking(db_path, [path], python, deadline) as (_, context):
        from loombase.location import CLocalFileLocation

        from loom.infer.define import definitions_at

        loc = CLocalFileLocation(path)
        answer = definitions_at(loc, position.line, position.column - 1, context, stop_at_import)
        if as_json:
            write_json(
                {
                    "path": path,
                    "line": position.line,
                    "column": position.column,
                    "name": answer.name,
                    "partial": answer.partial,
                    "definitions": [place_as_json(place) for place in answer.places],
                }
            )
        else:
            for place in answer.places if every else answer.places[:1]:
                write(place_as_text(place))
            _remark(answer.name, bool(answer.places), answer.partial, deadline, position)
    return Exit.OK if answer.places else Exit.FINDINGS


def _remark(
    name: str, found: bool, partial: bool, deadline: float, position: _Position
) -> None:
    if partial:
        warn(f"partial: not all files could be looked at within {deadline:g} s")
    elif not name:
        warn(f"no name at {escape(position.path)}:{position.line}:{position.column}")
    elif not found:
        warn(f"no definition of {escape(name)!r} was found")
