"""Where the imports of files led to, so that those of unchanged files need not be followed again.

What a name means depends on which files there are in some folders, and on nothing else that isn't
in the key: so an answer holds for as long as these folders have the times that they had. A row of
`followed` holds for all files that bear its number: all that they import, and all that these files
import in turn, is among the targets or bears the number itself.
"""

import json
import sqlite3
from collections.abc import Iterable, Mapping, Sequence
from typing import Final, NamedTuple

__all__ = ["Followed", "Stamp", "kUrlsPerMark", "load", "mark", "save"]

# Tells states of a folder apart; none: there is no such folder.
Stamp = tuple[int, int] | None

# Files that `mark` takes at a time.
kUrlsPerMark: Final = 200

# So many rows are kept, those that were written last.
_kMostRows: Final = 20


class Followed(NamedTuple):
    """One row. `folders` were looked into, `targets` are URLs of files."""

    number: int
    folders: Mapping[str, Stamp]
    targets: Sequence[str]


def load(connection: sqlite3.Connection, key: bytes) -> Followed | None:
    """The row of a key, or none. Raises `ValueError` if it isn't what `save` wrote."""
    row = connection.execute(
        "SELECT number, folders, targets FROM followed WHERE key = ?", (key,)
    ).fetchone()
    if row is None:
        return None
    number, folders, targets = row
    stamps: dict[str, Stamp] = {
        path: None if inode is None else (inode, mtime_ns)
        for path, inode, mtime_ns in json.loads(folders)
    }
    return Followed(number, stamps, json.loads(targets))


def save(connection: sqlite3.Connection, key: bytes, followed: Followed) -> None:
    """Write the row of a key. To be done before files are marked with its number."""
    folders = [(path, *(stamp or (None, None))) for path, stamp in followed.folders.items()]
    connection.execute("DELETE FROM followed WHERE key = ?", (key,))
    connection.execute(
        "INSERT INTO followed VALUES(?, ?, ?, ?)",
        (
            key,
            followed.number,
            json.dumps(folders).encode(),
            json.dumps(list(followed.targets)).encode(),
        ),
    )
    connection.execute(
        "DELETE FROM followed WHERE rowid NOT IN"
        " (SELECT rowid FROM followed ORDER BY rowid DESC LIMIT ?)",
        (_kMostRows,),
    )


def mark(connection: sqlite3.Connection, number: int, urls: Iterable[str]) -> None:
    """Have files bear a number."""
    some = list(urls)
    marks = ", ".join("?" * len(some))
    connection.execute(f"UPDATE files SET followed = ? WHERE url IN ({marks})", (number, *some))
