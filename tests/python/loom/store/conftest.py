"""Databases and records for the tests of `loom.store`."""

import sqlite3
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest

from loom.store import database, definitions
from loom.store.records import FileRecord
from loom.store.writer import Writer


@pytest.fixture
def path(tmp_path: Path) -> Path:
    """Where the database of a test stands."""
    return tmp_path / "cache" / "info.sqlite3"


@pytest.fixture
def opened(path: Path) -> Iterator[sqlite3.Connection]:
    """A new database, open for writing."""
    connection = database.open_for_writing(path).connection
    yield connection
    connection.close()


@pytest.fixture
def writer(opened: sqlite3.Connection) -> Writer:
    """A writer over `opened`."""
    return Writer(opened)


@pytest.fixture
def make_record() -> Callable[..., FileRecord]:
    """Makes the record of a file with the module scope, one class, and functions in it."""

    def make(
        url: str, functions: tuple[str, ...] = ("first",), mtime_ns: int = 1_000, **fields: object
    ) -> FileRecord:
        scopes = [("", -1, ord("O"), 1, 100, b"module"), ("Some", 0, ord("C"), 2, 90, b"class")]
        found = [(0, "Some", ord("C"), 2)]
        for lineno, name in enumerate(functions, 3):
            scopes.append((f"Some.{name}", 1, ord("M"), lineno, lineno, name.encode()))
            found.append((1, name, ord("M"), lineno))
        values: dict[str, object] = {
            "url": url,
            "mtime_ns": mtime_ns,
            "size": 10,
            "digest": url.encode(),
            "settled": True,
            "scanner": 1,
            "scans": " primary ",
            "line_count": 100,
            "definition_count": len(found),
            "imports": b":ios",
            "scopes": scopes,
            "definitions": definitions.pack(found),
            "names": list(dict.fromkeys(name for _, name, _, _ in found)),
        }
        return FileRecord(**(values | fields))  # type: ignore[arg-type]

    return make


@pytest.fixture
def write_all() -> Callable[[Writer], None]:
    """Writes and indexes all that waits, without looking at a clock."""

    def write(writer: Writer) -> None:
        while not writer.write(lambda: False, wait_seconds=0.0, index_all=True):
            pass

    return write
