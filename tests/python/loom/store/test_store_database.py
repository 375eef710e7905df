"""Opening a database, and what happens to those that can't serve."""

import logging
import sqlite3
from collections.abc import Callable
from pathlib import Path

import pytest

from loom.store import database, queries, schema
from loom.store.errors import ForeignDatabaseError, StoreError, StoreLockedError
from loom.store.records import FileRecord
from loom.store.writer import Writer


def pragma(connection: sqlite3.Connection, name: str) -> object:
    return connection.execute(f"PRAGMA {name}").fetchone()[0]


def make_with(path: Path, record: FileRecord) -> None:
    """A database that holds one file."""
    connection = database.open_for_writing(path).connection
    writer = Writer(connection)
    writer.put_file(record)
    while not writer.write(lambda: False, wait_seconds=0.0, index_all=True):
        pass
    connection.close()


def test_new_database_is_made_with_its_folders(path: Path) -> None:
    opened = database.open_for_writing(path)
    assert opened.message == ""
    assert pragma(opened.connection, "journal_mode") == "wal"
    assert pragma(opened.connection, "synchronous") == 1  # normal
    assert pragma(opened.connection, "user_version") == schema.kSchemaVersion
    opened.connection.close()
    assert path.is_file()


def test_reopened_database_holds_what_was_written(
    path: Path, make_record: Callable[..., FileRecord]
) -> None:
    make_with(path, make_record("file:///a.py"))
    for _ in range(2):
        opened = database.open_for_writing(path)
        assert opened.message == ""
        assert queries.stats(opened.connection).files == 1
        opened.connection.close()


def test_damaged_header_is_set_aside(path: Path, caplog: pytest.LogCaptureFixture) -> None:
    path.parent.mkdir()
    path.write_bytes(b"this is no database, but a text that is long enough to be one" * 100)
    with caplog.at_level(logging.WARNING, "loom.store"):
        opened = database.open_for_writing(path)
    assert "info.sqlite3.damaged-1" in opened.message
    assert str(path) in opened.message
    assert opened.message in caplog.text
    assert queries.stats(opened.connection).files == 0
    opened.connection.close()
    assert path.with_name("info.sqlite3.damaged-1").read_bytes().startswith(b"this is no database")


def test_damaged_pages_are_set_aside(path: Path, make_record: Callable[..., FileRecord]) -> None:
    make_with(path, make_record("file:///a.py"))
    content = bytearray(path.read_bytes())
    content[100:8192] = b"\xff" * (8192 - 100)  # the page of the schema, without the header
    path.write_bytes(content)
    opened = database.open_for_writing(path)
    assert "damaged-1" in opened.message
    assert queries.stats(opened.connection).files == 0
    opened.connection.close()


def test_database_cut_short_is_set_aside(
    path: Path, make_record: Callable[..., FileRecord]
) -> None:
    make_with(path, make_record("file:///a.py"))
    path.write_bytes(path.read_bytes()[:5000])
    opened = database.open_for_writing(path)
    assert "damaged-1" in opened.message
    opened.connection.close()


def test_missing_table_is_damage(path: Path) -> None:
    connection = database.open_for_writing(path).connection
    connection.execute("DROP TABLE names")
    connection.close()
    opened = database.open_for_writing(path)
    assert "tables are missing: ['names']" in opened.message
    opened.connection.close()


def test_newer_database_is_set_aside(path: Path, make_record: Callable[..., FileRecord]) -> None:
    make_with(path, make_record("file:///a.py"))
    connection = sqlite3.connect(path)
    connection.execute(f"PRAGMA user_version = {schema.kSchemaVersion + 1}")
    connection.close()
    opened = database.open_for_writing(path)
    assert "info.sqlite3.newer-1" in opened.message
    assert f"version {schema.kSchemaVersion + 1}" in opened.message
    assert queries.stats(opened.connection).files == 0
    opened.connection.close()
    aside = sqlite3.connect(path.with_name("info.sqlite3.newer-1"))
    assert aside.execute("SELECT url FROM files").fetchall() == [("file:///a.py",)]
    aside.close()


def test_older_ones_that_were_set_aside_stay(path: Path) -> None:
    path.parent.mkdir()
    for number in (1, 2, 3):
        path.write_bytes(b"damage number %d" % number * 100)
        database.open_for_writing(path).connection.close()
    names = sorted(entry.name for entry in path.parent.iterdir())
    assert names == ["info.sqlite3"] + [f"info.sqlite3.damaged-{n}" for n in (1, 2, 3)]


def test_log_goes_with_the_database_it_belongs_to(path: Path) -> None:
    path.parent.mkdir()
    for name in ("info.sqlite3", "info.sqlite3-wal", "info.sqlite3-shm"):
        path.with_name(name).write_text(name)
    database.set_aside(path, "damaged", "a test")
    assert {entry.name: entry.read_text() for entry in path.parent.iterdir()} == {
        "info.sqlite3.damaged-1": "info.sqlite3",
        "info.sqlite3.damaged-1-wal": "info.sqlite3-wal",
        "info.sqlite3.damaged-1-shm": "info.sqlite3-shm",
    }


@pytest.mark.parametrize("statement", ["CREATE TABLE mails(x)", "PRAGMA user_version = 3"])
def test_database_of_another_program_is_left_alone(path: Path, statement: str) -> None:
    path.parent.mkdir()
    connection = sqlite3.connect(path)
    connection.execute(statement)
    connection.commit()
    connection.close()
    before = path.read_bytes()
    with pytest.raises(ForeignDatabaseError, match="another program"):
        database.open_for_writing(path)
    with pytest.raises(ForeignDatabaseError, match="another program"):
        database.open_read_only(path)
    assert path.read_bytes() == before
    assert [entry.name for entry in path.parent.iterdir()] == [path.name]


def test_locked_database_is_a_clear_error(path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(database, "kLockWaitSeconds", 0.01)
    path.parent.mkdir()
    holder = sqlite3.connect(path, isolation_level=None)
    holder.execute("BEGIN EXCLUSIVE")
    with pytest.raises(StoreLockedError, match=r"locked by another process .*waited 0\.01 s\)"):
        database.open_for_writing(path)
    holder.execute("ROLLBACK")
    holder.close()
    database.open_for_writing(path).connection.close()


def test_lock_is_waited_for_a_second_at_most() -> None:
    assert database.kLockWaitSeconds <= 1.0


def test_folder_in_place_of_a_database_is_a_clear_error(path: Path) -> None:
    path.mkdir(parents=True)
    with pytest.raises(StoreError, match="info.sqlite3 can't be used"):
        database.open_for_writing(path)


def test_file_in_place_of_the_folder_is_a_clear_error(path: Path) -> None:
    path.parent.write_text("a file")
    with pytest.raises(StoreError, match="can't be used: File exists"):
        database.open_for_writing(path)


def test_read_only_connection_sees_and_changes_nothing(
    path: Path, make_record: Callable[..., FileRecord]
) -> None:
    make_with(path, make_record("file:///a.py"))
    connection = database.open_read_only(path)
    assert queries.stats(connection).files == 1
    with pytest.raises(sqlite3.OperationalError, match="readonly"):
        connection.execute("DELETE FROM files")
    connection.close()


def test_read_only_of_a_name_with_odd_characters(
    tmp_path: Path, make_record: Callable[..., FileRecord]
) -> None:
    path = tmp_path / "50% of what? #1.sqlite3"
    make_with(path, make_record("file:///a.py"))
    connection = database.open_read_only(path)
    assert queries.stats(connection).files == 1
    connection.close()


def test_read_only_sets_nothing_aside(path: Path) -> None:
    with pytest.raises(StoreError, match="there is no database"):
        database.open_read_only(path)
    assert not path.parent.exists()
    path.parent.mkdir()
    path.write_bytes(b"no database at all" * 100)
    with pytest.raises(StoreError, match="can't be read: file is not a database"):
        database.open_read_only(path)
    assert path.read_bytes().startswith(b"no database at all")


def test_read_only_of_another_version(path: Path) -> None:
    database.open_for_writing(path).connection.close()
    for version, text in ((schema.kSchemaVersion + 1, "version"), (0, "older version")):
        connection = sqlite3.connect(path)
        connection.execute(f"PRAGMA user_version = {version}")
        connection.close()
        with pytest.raises(StoreError, match=text):
            database.open_read_only(path)


def test_transaction_is_undone_by_any_failure(opened: sqlite3.Connection) -> None:
    with pytest.raises(KeyboardInterrupt), database.transaction(opened, 0.0):
        opened.execute("INSERT INTO names VALUES('x', 1)")
        raise KeyboardInterrupt
    assert opened.execute("SELECT count(*) FROM names").fetchone() == (0,)
    assert not opened.in_transaction
