"""`loom status`: what the database holds, and how the process that runs on it gets on."""

from __future__ import annotations

import os
import time
from collections.abc import Iterator, Mapping
from pathlib import Path
from typing import Any

import click

from loom.cli.options import shared_options
from loom.cli.output import Exit, escape, set_up_logging, styled, warn, write, write_json

__all__ = ["status"]


@click.command()
@click.option("--dump", is_flag=True, help="Show the queue of the process that runs instead.")
@click.option(
    "--limit",
    type=click.IntRange(0, 100_000),
    default=100,
    show_default=True,
    help="Lines of the queue to show.",
)
@shared_options
def status(dump: bool, limit: int, db_path: Path, as_json: bool, verbose: int) -> int:
    """Show what the database holds, and how a `loom` that runs on it gets on.

    Whether files have changed since is for `loom verify` to find out.

    Exits with 1 if the queue was asked for and no `loom` runs.
    """
    from loom.live.client import LiveError, ask

    set_up_logging(verbose)
    question = {"ask": "dump", "limit": limit} if dump else {"ask": "status"}
    problem, live = "", None
    try:
        live = ask(db_path, question)
    except LiveError as error:
        problem = str(error)
    if dump:
        return _show_dump(live, problem, as_json)
    stored = _stored(db_path)
    if as_json:
        write_json({"database": stored, "running": live, "problem": problem or None})
    else:
        for line in _lines(stored, live, problem):
            write(line)
    return Exit.OK


def _show_dump(live: Mapping[str, Any] | None, problem: str, as_json: bool) -> int:
    if live is None:
        if as_json:
            write_json({"dump": None, "problem": problem or None})
        warn(problem or "no loom runs on this database")
        return Exit.FINDINGS
    if as_json:
        write_json({"dump": live["dump"], "problem": None})
    else:
        write(live["dump"].rstrip("\n"))
    return Exit.OK


def _stored(db_path: Path) -> dict[str, Any]:
    """The facts of the database. Raises `StoreError`."""
    from loom.store import queries
    from loom.store.database import open_read_only, told

    connection = open_read_only(db_path)
    try:
        with told(db_path):
            stats = queries.stats(connection)
    finally:
        connection.close()
    sizes, times = [], []
    for path in (db_path, db_path.with_name(db_path.name + "-wal")):
        try:
            found = os.stat(path)
        except FileNotFoundError:
            continue
        sizes.append(found.st_size)
        if found.st_size:  # an empty log was never written
            times.append(found.st_mtime)
    return {
        "path": str(db_path),
        "bytes": sum(sizes),
        "last_write": max(times, default=None),
        "files": stats.files,
        "failed": stats.failed,
        "with_errors": stats.errors,
        "stale": None,  # nobody has looked
        "scopes": stats.scopes,
        "definitions": stats.definitions,
        "lines": stats.lines,
        "source_bytes": stats.bytes,
        "unindexed": stats.unindexed,
    }


def _lines(
    stored: Mapping[str, Any], live: Mapping[str, Any] | None, problem: str
) -> Iterator[str]:
    size = f"{stored['bytes'] / 1e6:,.1f} MB"
    yield _line("database", f"{escape(stored['path'])} ({size})")
    if stored["last_write"] is not None:
        when = time.localtime(stored["last_write"])
        yield _line("last write", time.strftime("%Y-%m-%d %H:%M:%S", when))
    yield _line(
        "files",
        f"{stored['files']:,}: {stored['with_errors']:,} with errors, of which"
        f" {stored['failed']:,} failed",
    )
    yield _line("definitions", f"{stored['definitions']:,} in {stored['scopes']:,} scopes")
    yield _line("stale", "unknown: loom verify looks")
    if live is None:
        yield _line("running", problem or "no")
    else:
        yield from _live_lines(live)


def _live_lines(live: Mapping[str, Any]) -> Iterator[str]:
    since = time.strftime("%H:%M:%S", time.localtime(live["started"]))
    state = "paused" if live["paused"] else "at rest" if live.get("at_rest") else "working"
    yield _line("running", f"loom {live['command']}, process {live['pid']} since {since}: {state}")
    following = live.get("following")
    if following:
        roots = ", ".join(escape(path) for path in following["roots"] + following["files"])
        yield _line("following", f"{following['folders']:,} folders by {following['by']}: {roots}")
    progress = live["progress"]
    found = f"{progress['found']:,}" + ("" if progress["all_found"] else " found so far")
    done = f"{progress['done']:,} of {found} files, {progress['scanned']:,} scanned"
    yield _line("progress", done)
    for queue in live["queues"]:
        files = f"{queue['files']:,} files"
        yield _line("queued", f"{files}, {queue['priority']}, {queue['scan']} scan")
    for key, words in (("waiting", "scans wait for data"), ("in_helper", "files with the helper")):
        if live[key]:
            yield _line(key.replace("_", " "), f"{live[key]:,} {words}")
    for key, title in (("scanning", "scanning"), ("next", "next")):
        if live[key]:
            yield _line(title, escape(live[key]))


def _line(title: str, text: str) -> str:
    return f"{styled(f'{title:>12}', bold=True)}  {text}"
