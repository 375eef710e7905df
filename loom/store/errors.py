"""What can go wrong with the database, told so that a user can act on it."""

import sqlite3

__all__ = ["ForeignDatabaseError", "StoreError", "StoreLockedError", "is_damage", "is_lock"]

_kDamageCodes = frozenset({sqlite3.SQLITE_CORRUPT, sqlite3.SQLITE_NOTADB})
_kLockCodes = frozenset({sqlite3.SQLITE_BUSY, sqlite3.SQLITE_LOCKED})


class StoreError(Exception):
    """The database can't be used. The text says which one and why."""


class StoreLockedError(StoreError):
    """Another process held the database for longer than we wait."""


class ForeignDatabaseError(StoreError):
    """The file is a good database that belongs to another program. It is left alone."""


def is_damage(error: sqlite3.Error) -> bool:
    """Whether the file itself is broken, so that only a new one helps."""
    return _primary_code(error) in _kDamageCodes


def is_lock(error: sqlite3.Error) -> bool:
    """Whether another connection was in the way."""
    return _primary_code(error) in _kLockCodes


def _primary_code(error: sqlite3.Error) -> int:
    # Errors that the module raises by itself ("Cannot operate on a closed database") have no code.
    code: int = getattr(error, "sqlite_errorcode", 0)
    return code & 0xFF  # the rest is SQLite's extended code
