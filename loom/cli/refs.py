"""`loom refs NAME`: who refers to a name."""

from __future__ import annotations

import os
from itertools import groupby
from pathlib import Path
from typing import TYPE_CHECKING

import click

from loom.cli.asking import asking, deadline_options
from loom.cli.options import shared_options
from loom.cli.output import Exit, escape, set_up_logging, styled, warn, write, write_json

if TYPE_CHECKING:
    from collections.abc import Sequence

    from loom.derive.refs import Reference

__all__ = ["refs"]


@click.command()
@click.argument("name")
@click.option("--limit", type=click.IntRange(min=1), help="Stop after so many references.")
@click.option("--certain", is_flag=True, help="Leave out what only has the same name.")
@deadline_options
@shared_options
def refs(
    name: str,
    limit: int | None,
    certain: bool,
    deadline: float,
    python: str | None,
    db_path: Path,
    as_json: bool,
    verbose: int,
) -> int:
    """Show who refers to NAME in the files that were scanned, file by file.

    NAME is a bare name, or dotted: "module.name", "Class.method". Where it isn't known what a place
    means, for instance since the type of an object isn't, and the name is the same, the line is
    marked with "?". Plain variables of functions are left out.

    Exits with 1 if nothing refers to it.
    """
    set_up_logging(verbose)
    with asking(db_path, [os.getcwd()], python, deadline) as (app, context):
        from loombase.location import CLocalFileLocation

        from loom.derive.facts import Namer
        from loom.derive.refs import References
        from loom.store.database import open_read_only, told

        connection = open_read_only(db_path)
        try:
            with told(db_path):
                namer = Namer(app.ana_mgr.fAnalysisFactory)
                folder = CLocalFileLocation(os.getcwd())
                references = References(connection, name, namer, context, folder)
                found: list[Reference] = []
                for reference in references:
                    if reference.certain or not certain:
                        found.append(reference)
                    if limit is not None and len(found) >= limit:
                        break
                found.sort(key=lambda each: (each.path, each.line, each.column))
        finally:
            connection.close()
        partial = references.partial or context.partial
    if as_json:
        write_json(
            {
                "name": name,
                "targets": sorted(references.targets),
                "partial": partial,
                "references": [_as_json(each) for each in found],
            }
        )
    else:
        _show(found)
    if partial:
        warn(f"partial: not everything could be looked at within {deadline:g} s")
    elif not found:
        warn(f"nothing refers to {escape(name)!r} in the files that were scanned into {db_path}")
    return Exit.OK if found else Exit.FINDINGS


def _as_json(found: Reference) -> dict[str, object]:
    return {
        "path": found.path,
        "line": found.line,
        "column": found.column,
        "kind": found.kind,
        "scope": found.scope,
        "certain": found.certain,
        "target": found.target or None,
        "text": found.text,
    }


def _show(found: Sequence[Reference]) -> None:
    """A group of lines a file, with an empty line between."""
    for number, (path, group) in enumerate(groupby(found, lambda each: each.path)):
        if number:
            write()
        for each in group:
            where = f"{styled(escape(path), fg='cyan')}:{each.line}:{each.column}"
            mark = "" if each.certain else "? "
            write(f"{where}: {mark}{escape(each.text)}")
