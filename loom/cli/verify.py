"""`loom verify [PATH...]`: the database against the tree."""

from __future__ import annotations

from collections.abc import Iterator, Sequence
from dataclasses import asdict
from pathlib import Path
from typing import TYPE_CHECKING

import click

from loom.cli.options import exclude_option, parse_exclude, shared_options
from loom.cli.output import Exit, escape, set_up_logging, styled, warn, write, write_json

if TYPE_CHECKING:
    from loom.verify import Counts

__all__ = ["verify"]


@click.command()
@click.argument("paths", nargs=-1, type=click.Path(path_type=str), metavar="[PATH]...")
@exclude_option
@click.option("--all", "everything", is_flag=True, help="Look at stored files elsewhere, too.")
@click.option("--deep", is_flag=True, help="Scan each file again and compare what is found.")
@click.option(
    "--sample",
    type=click.IntRange(min=1),
    metavar="N",
    help="As --deep, for N files that are chosen by chance.",
)
@shared_options
def verify(
    paths: Sequence[str],
    exclude: Sequence[str],
    everything: bool,
    deep: bool,
    sample: int | None,
    db_path: Path,
    as_json: bool,
    verbose: int,
) -> int:
    """Compare the database with the files at and below each PATH, by default the working folder.

    Tells which stored files are gone or have changed, which files were never scanned, and what in
    the database can't be. Changes nothing: `loom scan` does.

    Exits with 1 if anything was found, with 2 if the database is damaged.
    """
    from loom.bootstrap import ensure_host_path
    from loom.store.database import open_read_only, told

    set_up_logging(verbose)
    patterns = parse_exclude(exclude)
    connection = open_read_only(db_path)
    try:
        ensure_host_path()
        from loom.verify import Verification

        depth = None if deep else sample or 0
        run = Verification(connection, list(paths) or ["."], patterns, everything, depth)
        with told(db_path):
            damage = run.damage()
            if damage:
                return _tell_damage(damage, db_path, as_json)
            found = 0
            document = []
            for finding in run.findings():
                found += 1
                if as_json:
                    document.append(finding._asdict())
                else:
                    place = styled(escape(finding.place), fg="yellow")
                    write(f"{place}: {finding.kind}: {escape(finding.detail)}")
    finally:
        connection.close()
    if as_json:
        write_json(
            {
                "database": str(db_path),
                "damage": [],
                "files": asdict(run.counts),
                "findings": document,
            }
        )
    else:
        if found:
            write()
        for line in _summary(run.counts):
            write(line)
    return Exit.FINDINGS if found else Exit.OK


def _tell_damage(damage: Sequence[str], db_path: Path, as_json: bool) -> int:
    if as_json:
        write_json({"database": str(db_path), "damage": list(damage)})
    else:
        for line in damage:
            write(escape(line))
    warn(f"database {db_path} is damaged: delete it and scan again")
    return Exit.UNUSABLE


def _summary(counts: Counts) -> Iterator[str]:
    stored = f"{counts.stored:,} stored: {counts.fresh:,} fresh"
    for count, what in (
        (counts.touched, "touched but unchanged"),
        (counts.stale, "stale"),
        (counts.gone, "gone"),
        (counts.failed, "that can't be scanned"),
        (counts.elsewhere, "on other machines, not looked at"),
    ):
        if count:
            stored += f", {count:,} {what}"
    yield f"{styled('       files', bold=True)}  {stored}"
    if counts.unscanned:
        yield f"{styled('   unscanned', bold=True)}  {counts.unscanned:,}"
    if counts.compared:
        yield f"{styled('    compared', bold=True)}  {counts.compared:,} with a new scan"
