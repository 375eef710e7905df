"""`loom describe NAME`: what is known of a dotted name."""

from __future__ import annotations

import os
from collections.abc import Iterator
from pathlib import Path
from typing import TYPE_CHECKING

import click

from loom.cli.asking import asking, deadline_options, place_as_json, place_as_text
from loom.cli.options import shared_options
from loom.cli.output import Exit, escape, set_up_logging, warn, write, write_json

if TYPE_CHECKING:
    from loom.infer.describe import Description

__all__ = ["describe"]

# Overloads that are shown to people.
_MOST_SIGNATURES = 3


@click.command()
@click.argument("name")
@click.option(
    "--in",
    "file",
    type=click.Path(exists=True, dir_okay=False),
    help="The file whose names, imported ones included, NAME may begin with.",
)
@deadline_options
@shared_options
def describe(
    name: str,
    file: str | None,
    deadline: float,
    python: str | None,
    db_path: Path,
    as_json: bool,
    verbose: int,
) -> int:
    """Show what is known of NAME: kind, place, signature, base classes, type.

    NAME is dotted, and begins with a module as it is imported in the working folder, or with a
    builtin: "json.JSONDecoder.decode", "mypackage.things.Thing", "str.split".

    Exits with 1 if there is no such thing.
    """
    set_up_logging(verbose)
    seen_from = file if file is not None else os.getcwd()
    with asking(db_path, [seen_from], python, deadline) as (_, context):
        from loombase.location import CLocalFileLocation

        from loom.infer.describe import describe_name

        loc = None if file is None else CLocalFileLocation(file)
        folder = CLocalFileLocation(os.getcwd()) if loc is None else loc.GetParentDir()
        found = describe_name(name, folder, loc, context)
        if as_json:
            document = [_as_json(each) for each in found]
            write_json({"name": name, "partial": context.partial, "descriptions": document})
        else:
            for each in found:
                for line in _as_text(each):
                    write(line)
            if context.partial:
                warn(f"partial: not all files could be looked at within {deadline:g} s")
            elif not found:
                warn(f"{escape(name)!r} isn't known")
    return Exit.OK if found else Exit.FINDINGS


def _as_json(found: Description) -> dict[str, object]:
    return {
        "name": found.name,
        "kind": found.kind,
        "place": None if found.place is None else place_as_json(found.place),
        "signatures": list(found.signatures),
        "bases": found.bases,
        "mro": list(found.mro),
        "type": found.type,
        "doc": found.doc,
    }


def _as_text(found: Description) -> Iterator[str]:
    if found.place is None:
        yield f"{found.kind} {escape(found.name)}"
    else:
        yield place_as_text(found.place)
    name = found.name.rpartition(".")[2]
    for each in found.signatures[:_MOST_SIGNATURES]:
        yield escape(f"    {name}{each}")
    if len(found.signatures) > _MOST_SIGNATURES:
        yield f"    ({len(found.signatures) - _MOST_SIGNATURES} more overloads)"
    for title, text in (
        ("bases", found.bases),
        ("order", " > ".join(found.mro)),
        ("gives" if found.signatures else "type", found.type),
        ("doc", found.doc),
    ):
        if text:
            yield escape(f"    {title}: {text}")
