"""Questions of the command line, over a read-only connection (`database.open_read_only`).

A result may be a moment old while a scan is running, but is never half of a file.
"""

import contextlib
import fnmatch
import os
import re
import sqlite3
from collections.abc import Iterator
from pathlib import Path
from typing import Literal, NamedTuple
from urllib.parse import unquote_to_bytes

from loom.resolve.library import is_library
from loom.store import definitions
from loom.store.schema import kScopesPerFile

__all__ = [
    "Definition",
    "FileFacts",
    "FileProblem",
    "Match",
    "Scope",
    "Stats",
    "definitions_of_file",
    "facts_of_file",
    "find_name",
    "path_of",
    "problems",
    "scopes_of_file",
    "stats",
    "url_of",
]

Match = Literal["exact", "prefix", "glob"]


class Definition(NamedTuple):
    """One place where a name is defined. `kind` is a kind character."""

    url: str
    scope: str
    name: str
    kind: str
    lineno: int

    @property
    def qualified_name(self) -> str:
        """The name with its scope in front."""
        return f"{self.scope}.{self.name}" if self.scope else self.name


class Scope(NamedTuple):
    """A scope of a file. `parent` is the index of its parent in the list, -1 for the module.

    `kind` is a kind character.
    """

    name: str
    parent: int
    kind: str
    lineno: int
    end_lineno: int


class FileProblem(NamedTuple):
    """What was wrong with a file. `lineno` is 0 if it couldn't be scanned at all."""

    url: str
    error: str
    lineno: int


class FileFacts(NamedTuple):
    """What is stored of a file as a whole, scanned or failed. Times are in nanoseconds."""

    mtime_ns: int
    size: int
    digest: bytes
    scans: str
    error: str | None
    error_lineno: int
    line_count: int
    definition_count: int
    scanned_ns: int
    scope_count: int


class Stats(NamedTuple):
    """How much the database holds. `failed` files weren't scanned, `errors` is both together."""

    files: int
    scopes: int
    definitions: int
    lines: int
    bytes: int
    errors: int
    failed: int
    unindexed: int


def url_of(path: str | os.PathLike[str]) -> str:
    """The URL under which a local file is stored; the URL of a remote one as it stands."""
    if isinstance(path, str) and path.startswith("ssh://"):
        return path
    return Path(os.path.abspath(path)).as_uri()


def path_of(url: str) -> str | None:
    """The path of a local file's URL, or none for another one."""
    if not url.startswith("file:///"):
        return None
    return os.fsdecode(unquote_to_bytes(url[7:])) if "%" in url else url[7:]


def find_name(
    connection: sqlite3.Connection, name: str, match: Match = "exact"
) -> list[Definition]:
    """The definitions of a name, file by file in order of URL, in the order of their scopes.

    Files of installed packages and of standard libraries come behind all others.

    "exact" takes a dotted name, too: its last part is the name, what stands before must be the end
    of the scope's name. "prefix" takes the beginning of a name, "glob" a pattern of "*", "?" and
    "[...]", which must fit the whole name. Upper and lower case differ.
    """
    dotted = ""
    arguments: tuple[str, ...]
    if match == "exact":
        if "." in name.strip("."):
            dotted, name = name, name.rpartition(".")[2]
        pattern = re.compile(re.escape(name))
        condition, arguments = "name = ?", (name,)
    elif match == "prefix":
        pattern = re.compile(re.escape(name) + ".*", re.DOTALL)
        # The greatest character is no part of a name.
        condition, arguments = "name >= ? AND name < ?", (name, name + "\U0010ffff")
    else:
        pattern = re.compile(fnmatch.translate(name))
        condition, arguments = "name GLOB ?", (name.replace("[!", "[^"),)
    with _snapshot(connection):
        files = connection.execute(
            "SELECT id, url FROM files WHERE scans != '' AND"
            f" (indexed = 0 OR id IN (SELECT file_id FROM names WHERE {condition})) ORDER BY url",
            arguments,
        ).fetchall()
        files.sort(key=lambda file: is_library(file[1]))
        return [
            definition
            for file_id, url in files
            for definition in _definitions(connection, file_id, url, pattern)
            if not dotted or f".{definition.qualified_name}".endswith(f".{dotted}")
        ]


def definitions_of_file(connection: sqlite3.Connection, url: str) -> list[Definition] | None:
    """All definitions of a file in the order of their scopes, or none for an unknown file."""
    with _snapshot(connection):
        file_id = _file_id(connection, url)
        return None if file_id is None else list(_definitions(connection, file_id, url, None))


def scopes_of_file(connection: sqlite3.Connection, url: str) -> list[Scope] | None:
    """The scopes of a file, parents before children, or none for an unknown file."""
    with _snapshot(connection):
        file_id = _file_id(connection, url)
        if file_id is None:
            return None
        rows = connection.execute(
            "SELECT name, parent, kind, lineno, end_lineno FROM scopes"
            " WHERE id BETWEEN ? AND ? ORDER BY id",
            _scope_range(file_id),
        )
        return [
            Scope(name, parent, chr(kind), lineno, end_lineno)
            for name, parent, kind, lineno, end_lineno in rows
        ]


def facts_of_file(connection: sqlite3.Connection, url: str) -> FileFacts | None:
    """What is stored of a file, or none for an unknown one."""
    with _snapshot(connection):
        file_id = _file_id(connection, url)
        if file_id is None:
            return None
        row = connection.execute(
            "SELECT mtime_ns, size, digest, scans, error, error_lineno, line_count,"
            " definition_count, scanned_ns FROM files WHERE id = ?",
            (file_id,),
        ).fetchone()
        (scope_count,) = connection.execute(
            "SELECT count(*) FROM scopes WHERE id BETWEEN ? AND ?", _scope_range(file_id)
        ).fetchone()
        return FileFacts._make((*row, scope_count))


def problems(connection: sqlite3.Connection) -> list[FileProblem]:
    """The files with an error, in order of URL."""
    rows = connection.execute(
        "SELECT url, error, error_lineno FROM files WHERE error IS NOT NULL ORDER BY url"
    )
    return [FileProblem(*row) for row in rows]


def stats(connection: sqlite3.Connection) -> Stats:
    """Counts over the whole database."""
    row = connection.execute(
        "SELECT count(*), (SELECT count(*) FROM scopes), total(definition_count),"
        " total(line_count), total(size), count(error),"
        " count(error) FILTER (WHERE error_lineno = 0), count(*) FILTER (WHERE indexed = 0)"
        " FROM files"
    ).fetchone()
    return Stats(*map(int, row))


@contextlib.contextmanager
def _snapshot(connection: sqlite3.Connection) -> Iterator[None]:
    """All queries inside see the same state, whatever is written meanwhile."""
    connection.execute("BEGIN")
    try:
        yield
    finally:
        connection.execute("COMMIT")


def _file_id(connection: sqlite3.Connection, url: str) -> int | None:
    row = connection.execute(
        "SELECT id FROM files WHERE url = ? AND (scans != '' OR error IS NOT NULL)", (url,)
    ).fetchone()
    return None if row is None else int(row[0])


def _scope_range(file_id: int) -> tuple[int, int]:
    return file_id * kScopesPerFile, (file_id + 1) * kScopesPerFile - 1


def _definitions(
    connection: sqlite3.Connection, file_id: int, url: str, pattern: re.Pattern[str] | None
) -> Iterator[Definition]:
    row = connection.execute(
        "SELECT packed FROM definitions WHERE file_id = ?", (file_id,)
    ).fetchone()
    if row is None:
        return
    found = [
        entry
        for entry in definitions.unpack(row[0])
        if pattern is None or pattern.fullmatch(entry.name)
    ]
    if not found:
        return
    first = file_id * kScopesPerFile
    scope_names = {
        scope_id - first: name
        for scope_id, name in connection.execute(
            "SELECT id, name FROM scopes WHERE id BETWEEN ? AND ?", _scope_range(file_id)
        )
    }
    for entry in found:
        scope = scope_names[entry.scope_index]
        yield Definition(url, scope, entry.name, chr(entry.kind), entry.lineno)
