"""`loom find NAME`: where a name is defined."""

from __future__ import annotations

from collections.abc import Iterator
from itertools import islice
from pathlib import Path

import click

from loom.cli.kinds import word_for_kind
from loom.cli.options import shared_options
from loom.cli.output import Exit, escape, set_up_logging, styled, warn, write, write_json

__all__ = ["find"]


@click.command()
@click.argument("name")
@click.option("--prefix", "match", flag_value="prefix", help="NAME is how the names begin.")
@click.option(
    "--glob", "match", flag_value="glob", help='NAME is a pattern of "*", "?" and "[...]".'
)
@click.option("--limit", type=click.IntRange(min=1), help="Stop after so many definitions.")
@shared_options
def find(
    name: str, match: str | None, limit: int | None, db_path: Path, as_json: bool, verbose: int
) -> int:
    """Show where NAME is defined, in all files that were scanned.

    NAME may be dotted: "Path.open" is the name "open" in a scope whose name ends in "Path".

    Exits with 1 if it isn't defined anywhere.
    """
    from loom.store import queries
    from loom.store.database import open_read_only, told

    set_up_logging(verbose)
    how: queries.Match = "prefix" if match == "prefix" else "glob" if match == "glob" else "exact"
    connection = open_read_only(db_path)

    def definitions() -> Iterator[queries.Definition]:
        with told(db_path):
            yield from islice(queries.find_name(connection, name, how), limit)

    try:
        if as_json:
            document = [
                {
                    "path": queries.path_of(found.url),
                    "url": found.url,
                    "line": found.lineno,
                    "kind": word_for_kind(found.kind),
                    "scope": found.scope,
                    "name": found.name,
                }
                for found in definitions()
            ]
            write_json({"name": name, "match": how, "definitions": document})
            return Exit.OK if document else Exit.FINDINGS
        count = 0
        for count, found in enumerate(definitions(), 1):
            place = escape(queries.path_of(found.url) or found.url)
            write(
                f"{styled(place, fg='cyan')}:{found.lineno}: {word_for_kind(found.kind)} "
                f"{styled(escape(found.qualified_name), bold=True)}"
            )
    finally:
        connection.close()
    if not count:
        warn(f"{name!r} isn't defined in any file that was scanned into {db_path}")
        return Exit.FINDINGS
    return Exit.OK
