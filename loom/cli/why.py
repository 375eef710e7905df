"""`loom why FILE`: where a file stands, and why."""

from __future__ import annotations

import os
import time
from collections.abc import Iterator, Mapping
from pathlib import Path
from typing import TYPE_CHECKING, Any

import click

from loom.cli.options import shared_options
from loom.cli.output import Exit, escape, set_up_logging, styled, write, write_json

if TYPE_CHECKING:
    from pathspec import GitIgnoreSpec

    from loom.leftout import Obstacle
    from loom.store.queries import FileFacts

__all__ = ["why"]


@click.command()
@click.argument("file")
@shared_options
def why(file: str, db_path: Path, as_json: bool, verbose: int) -> int:
    """Say where FILE, a path or URL, stands: scanned or failed, queued or waiting, or why it is
    left out.

    What is in the queue is told by a `loom` that runs on the database.

    Exits with 1 if FILE has no results that hold.
    """
    from loom.bootstrap import ensure_host_path

    set_up_logging(verbose)
    ensure_host_path()
    answer = _answer(file, db_path)
    if as_json:
        write_json(answer)
    else:
        for line in _lines(answer):
            write(line)
    return Exit.OK if answer["verdict"] == "scanned" else Exit.FINDINGS


def _answer(file: str, db_path: Path) -> dict[str, Any]:
    from loombase.location import LocationFromUrl

    from loom.leftout import obstacle
    from loom.live.client import LiveError, ask
    from loom.store import queries

    try:
        url = LocationFromUrl(file).fUrl if "://" in file else queries.url_of(file)
    except ValueError as error:
        raise click.BadParameter(str(error)) from error
    path = queries.path_of(url)
    problem, live = "", None
    try:
        live = ask(db_path, {"ask": "why", "url": url})
    except LiveError as error:
        problem = str(error)
    following = live.get("following") if live is not None else None
    facts = _facts(db_path, url)
    found, holds = None, facts is not None  # as far as is known of a file on another machine
    if path is not None:
        root = _root_of(path, following)
        if following is not None and root is None:
            found = _outside(path, following["roots"])
        elif following is None or path not in following["files"]:
            found = obstacle(path, root, _exclude_of(following))
        holds = facts is not None and _holds(path, facts)
    return {
        "path": url if path is None else path,
        "url": url,
        "verdict": _verdict(live, facts, holds, found),
        "stored": None if facts is None else _stored(facts, holds),
        "running": live,
        "problem": problem or None,
        "obstacle": None if found is None else _obstacle(found),
    }


def _exclude_of(following: Mapping[str, Any] | None) -> GitIgnoreSpec | None:
    from loom.ignore import parse_patterns

    patterns = [] if following is None else following["exclude"]
    return parse_patterns(patterns) if patterns else None


def _root_of(path: str, following: Mapping[str, Any] | None) -> str | None:
    """The innermost folder that is followed and holds the file, or its own if it was named."""
    if following is None:
        return None
    if path in following["files"]:
        return os.path.dirname(path)
    roots = [root for root in following["roots"] if path.startswith(root.rstrip("/") + "/")]
    return max(roots, key=len, default=None)


def _outside(path: str, roots: list[str]) -> Obstacle:
    from loom.leftout import Obstacle

    return Obstacle("outside", path, f"not in what is watched: {', '.join(roots)}")


def _facts(db_path: Path, url: str) -> FileFacts | None:
    from loom.store import queries
    from loom.store.database import open_read_only, told

    connection = open_read_only(db_path)
    try:
        with told(db_path):
            return queries.facts_of_file(connection, url)
    finally:
        connection.close()


def _holds(path: str, facts: FileFacts) -> bool:
    """Whether time and size are those of the file as it was scanned."""
    try:
        status = os.stat(path)
    except OSError:
        return False
    return (status.st_mtime_ns, status.st_size) == (facts.mtime_ns, facts.size)


def _verdict(
    live: Mapping[str, Any] | None, facts: FileFacts | None, holds: bool, found: Obstacle | None
) -> str:
    if live is not None:
        if live["scanning"]:
            return "scanning"
        if live["waiting_for"] is not None:
            return "waiting"
        if live["queued"] or live["in_helper"]:
            return "queued"
    if facts is None:
        return "unknown" if found is None else "left out"
    if found is not None and found.kind == "missing":
        return "gone"
    if facts.error is not None and facts.error_lineno == 0:
        return "failed"
    return "scanned" if holds else "changed"


def _stored(facts: FileFacts, holds: bool) -> dict[str, Any]:
    return {
        "when": facts.scanned_ns / 1e9 if facts.scanned_ns else None,
        "scans": facts.scans.split(),
        "digest": facts.digest.hex(),
        "bytes": facts.size,
        "lines": facts.line_count,
        "scopes": facts.scope_count,
        "definitions": facts.definition_count,
        "error": facts.error,
        "error_line": facts.error_lineno,
        "holds": holds,
    }


def _obstacle(found: Obstacle) -> dict[str, Any]:
    return {
        "kind": found.kind,
        "path": found.path,
        "reason": found.reason,
        "rule": found.rule or None,
        "rule_file": found.rule_file or None,
        "rule_line": found.rule_line or None,
    }


def _lines(answer: Mapping[str, Any]) -> Iterator[str]:
    yield f"{escape(answer['path'])}: {styled(answer['verdict'], bold=True)}"
    stored, live, found = answer["stored"], answer["running"], answer["obstacle"]
    if live is not None:
        yield from _live_lines(live)
    elif answer["problem"]:
        yield f"  {answer['problem']}"
    if stored is not None:
        yield from _stored_lines(stored)
    if found is not None:
        where = ""
        if found["rule"]:
            where = f" {found['rule']!r} in {found['rule_file']}"
            if found["rule_line"]:
                where += f", line {found['rule_line']}"
        # It was named, imported, or found from a folder behind the obstacle.
        came_otherwise = stored is not None and found["kind"] in ("folder", "pattern")
        start = "from further up it is not found: " if came_otherwise else ""
        yield f"  {start}{escape(found['path'])}: {escape(found['reason'])}{escape(where)}"
    elif stored is None:
        yield "  not scanned yet; nothing is known that would leave it out"


def _stored_lines(stored: Mapping[str, Any]) -> Iterator[str]:
    when = "at an unknown time"
    if stored["when"] is not None:
        when = time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(stored["when"]))
    if stored["error"] is not None:
        line = f" in line {stored['error_line']}" if stored["error_line"] else ""
        yield f"  error{line}: {escape(stored['error'])}"
    if stored["scans"]:
        yield (
            f"  scanned {when}, {' and '.join(stored['scans'])}: {stored['definitions']:,}"
            f" definitions, {stored['scopes']:,} scopes, {stored['lines']:,} lines"
        )
        yield f"  digest {stored['digest']}, {stored['bytes']:,} bytes"
    else:
        yield f"  tried {when}"
    if not stored["holds"]:
        yield "  its time or size is another one since"


def _live_lines(live: Mapping[str, Any]) -> Iterator[str]:
    who = f"loom {live['command']}, process {live['pid']}"
    if live["scanning"]:
        yield f"  {who} is scanning it"
    for place in live["queued"]:
        scope = "" if place["scope"] == "*" else f" of {place['scope']!r}"
        yield (
            f"  queued: {place['scan']} scan{scope}, {place['priority']}, behind"
            f" {place['position']:,} files"
        )
    if live["waiting_for"] is not None:
        yield f"  waiting for {live['waiting_for']}"
    if live["in_helper"]:
        yield "  with the helper process"
    if live["paused"]:
        yield f"  {who} is paused"
