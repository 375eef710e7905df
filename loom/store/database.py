"""Opening the database, and setting one aside that is of no use.

The database holds nothing that can't be found again by scanning, so a damaged one, or one that a
newer version wrote, is renamed and a new one begun. A good database of another program is never
touched.
"""

import contextlib
import logging
import sqlite3
from collections.abc import Iterator
from pathlib import Path
from typing import Final, NamedTuple

from loom.store import schema
from loom.store.derived import drop_outdated
from loom.store.errors import (
    ForeignDatabaseError,
    StoreError,
    StoreLockedError,
    is_damage,
    is_lock,
)

__all__ = ["Opened", "open_for_writing", "open_read_only", "set_aside", "told", "transaction"]

_log = logging.getLogger("loom.store")

# How long a connection waits for another process's lock.
kLockWaitSeconds: Final = 1.0

# Pages of 8 KiB: a packed text of definitions mostly fits into one.
_kPageSize: Final = 8192
_kCacheKiB: Final = 32 * 1024


class Opened(NamedTuple):
    """A connection for writing, and what had to be told about the way there (empty: nothing)."""

    connection: sqlite3.Connection
    message: str


def open_for_writing(path: Path) -> Opened:
    """Open the database at `path`, make it if there is none, bring its tables up to date.

    A damaged or newer one is set aside first. The connection is in autocommit mode: transactions
    are begun by hand.

    Raises `StoreLockedError` if another process doesn't let go of it, `ForeignDatabaseError` if it
    is another program's, `StoreError` if it can't be opened or written.
    """
    with told(path):
        path.parent.mkdir(parents=True, exist_ok=True)
        try:
            return Opened(_open(path), "")
        except _UselessError as reason:
            message = set_aside(path, reason.suffix, str(reason))
            try:
                return Opened(_open(path), message)
            except _UselessError as again:
                raise StoreError(f"can't make a database at {path}: {again}") from again


def open_read_only(path: Path) -> sqlite3.Connection:
    """Open an existing database for queries alone.

    Raises `StoreError` if there is none, or if it is damaged, newer, or another program's:
    a reader sets nothing aside.
    """
    with told(path):
        if not path.is_file():
            raise StoreError(f"there is no database at {path}")
        connection = sqlite3.connect(
            f"{path.absolute().as_uri()}?mode=ro",
            uri=True,
            timeout=kLockWaitSeconds,
            isolation_level=None,
        )
        try:
            version = _check(connection, path)
            if version < schema.kSchemaVersion:
                raise StoreError(f"database {path} is of an older version: scan once to update it")
        except _UselessError as reason:
            connection.close()
            raise StoreError(f"database {path} can't be read: {reason}") from reason
        except BaseException:
            connection.close()
            raise
        return connection


def set_aside(path: Path, suffix: str, reason: str) -> str:
    """Rename the database and its companions; returns a text that says so, which is also logged.

    Requires: no open connection of this process.
    """
    number = 1
    while (aside := path.with_name(f"{path.name}.{suffix}-{number}")).exists():
        number += 1
    path.rename(aside)
    # The write-ahead log belongs to the file it was renamed with, and must never meet a new one.
    for companion in ("-wal", "-shm"):
        with contextlib.suppress(FileNotFoundError):
            path.with_name(path.name + companion).rename(aside.with_name(aside.name + companion))
    message = f"database {path} was set aside as {aside.name} and is being rebuilt: {reason}"
    _log.warning("%s", message)
    return message


@contextlib.contextmanager
def told(path: Path, waited: float | None = None) -> Iterator[None]:
    """Turn failures of the file system and of SQLite into a `StoreError` that names the database.

    `waited` is how long a lock was waited for, if it isn't `kLockWaitSeconds`.
    """
    try:
        yield
    except sqlite3.Error as error:
        if is_lock(error):
            seconds = kLockWaitSeconds if waited is None else waited
            after = f" (waited {seconds:g} s)" if seconds else ""
            raise StoreLockedError(
                f"database {path} is locked by another process{after}"
            ) from error
        raise StoreError(f"database {path} can't be used: {error}") from error
    except OSError as error:
        raise StoreError(f"database {path} can't be used: {error.strerror or error}") from error


@contextlib.contextmanager
def transaction(connection: sqlite3.Connection, wait_seconds: float) -> Iterator[None]:
    """One transaction for writing; waits at most `wait_seconds` for the lock."""
    connection.execute(f"PRAGMA busy_timeout = {int(wait_seconds * 1000)}")
    connection.execute("BEGIN IMMEDIATE")
    try:
        yield
        connection.execute("COMMIT")
    except BaseException:
        # A full disk or a damaged page ends the transaction by itself.
        if connection.in_transaction:
            connection.execute("ROLLBACK")
        raise


class _UselessError(Exception):
    """The file can't serve as our database; `suffix` goes into the name it is set aside under."""

    def __init__(self, suffix: str, reason: str) -> None:
        super().__init__(reason)
        self.suffix = suffix


def _open(path: Path) -> sqlite3.Connection:
    connection = sqlite3.connect(path, timeout=kLockWaitSeconds, isolation_level=None)
    try:
        version = _check(connection, path)
        if version == 0:
            connection.execute(f"PRAGMA page_size = {_kPageSize}")
        connection.execute("PRAGMA journal_mode = WAL")
        # With a write-ahead log this can lose the last transactions in a power cut, but can't
        # damage the file.
        connection.execute("PRAGMA synchronous = NORMAL")
        connection.execute(f"PRAGMA cache_size = -{_kCacheKiB}")
        # Moving the log into the file waits for the disk; `checkpoint` does it off the main thread.
        connection.execute("PRAGMA wal_autocheckpoint = 0")
        schema.migrate(connection)
        drop_outdated(connection)
        return connection
    except sqlite3.DatabaseError as error:
        connection.close()
        if is_damage(error):
            raise _UselessError("damaged", str(error)) from error
        raise
    except BaseException:
        connection.close()
        raise


def _check(connection: sqlite3.Connection, path: Path) -> int:
    """The version of the tables; 0 for an empty file."""
    try:
        (version,) = connection.execute("PRAGMA user_version").fetchone()
        (application_id,) = connection.execute("PRAGMA application_id").fetchone()
        tables = {name for (name,) in connection.execute("SELECT name FROM sqlite_schema")}
    except sqlite3.DatabaseError as error:
        if is_damage(error):
            raise _UselessError("damaged", str(error)) from error
        raise
    if application_id != schema.kApplicationId:
        if tables or version or application_id:
            raise ForeignDatabaseError(f"{path} is the database of another program")
        return 0
    assert isinstance(version, int)
    if version > schema.kSchemaVersion:
        raise _UselessError(
            "newer", f"it is of version {version}, and this program knows {schema.kSchemaVersion}"
        )
    if version == schema.kSchemaVersion and not _kTables <= tables:
        raise _UselessError("damaged", f"tables are missing: {sorted(_kTables - tables)}")
    return version


_kTables: Final = frozenset(
    """files scopes added_scopes definitions names
    derived used_names depends depends_of exports derived_version followed""".split()
)
