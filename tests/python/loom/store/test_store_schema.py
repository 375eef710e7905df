"""The steps that lead to the tables."""

import re
import sqlite3
from collections.abc import Iterator

import pytest

from loom.store import schema


@pytest.fixture
def empty() -> Iterator[sqlite3.Connection]:
    connection = sqlite3.connect(":memory:", isolation_level=None)
    yield connection
    connection.close()


def version(connection: sqlite3.Connection) -> int:
    return int(connection.execute("PRAGMA user_version").fetchone()[0])


def tables(connection: sqlite3.Connection) -> set[str]:
    rows = connection.execute("SELECT name FROM sqlite_schema WHERE type = 'table'")
    return {name for (name,) in rows}


def test_migrate_makes_all_tables_strict(empty: sqlite3.Connection) -> None:
    assert schema.migrate(empty) == 0
    assert version(empty) == schema.kSchemaVersion == len(schema.kMigrations)
    assert tables(empty) == {
        *("files", "scopes", "added_scopes", "definitions", "names"),
        *("derived", "used_names", "depends", "depends_of", "exports", "derived_version"),
        "followed",
    }
    assert all(
        strict
        for *_, strict in empty.execute("PRAGMA table_list").fetchall()
        if not _[1].startswith("sqlite_")
    )
    with pytest.raises(sqlite3.IntegrityError):
        empty.execute("INSERT INTO names VALUES(1.5, 'no number')")


def test_migrate_marks_the_file_as_ours(empty: sqlite3.Connection) -> None:
    schema.migrate(empty)
    assert empty.execute("PRAGMA application_id").fetchone() == (schema.kApplicationId,)


def test_migrate_again_changes_nothing(empty: sqlite3.Connection) -> None:
    schema.migrate(empty)
    before = empty.execute("SELECT * FROM sqlite_schema").fetchall()
    assert schema.migrate(empty) == schema.kSchemaVersion
    assert empty.execute("SELECT * FROM sqlite_schema").fetchall() == before


def test_migrate_does_only_the_missing_steps(empty: sqlite3.Connection) -> None:
    first = "CREATE TABLE a(x INTEGER) STRICT; INSERT INTO a VALUES(1);"
    second = "ALTER TABLE a ADD COLUMN y INTEGER; UPDATE a SET y = x + 1;"
    third = "CREATE TRIGGER t AFTER INSERT ON a BEGIN UPDATE a SET y = 7; DELETE FROM a; END;"
    assert schema.migrate(empty, (first,)) == 0
    assert schema.migrate(empty, (first, second)) == 1
    assert empty.execute("SELECT * FROM a").fetchall() == [(1, 2)]
    assert schema.migrate(empty, (first, second, third)) == 2
    assert version(empty) == 3
    assert schema.migrate(empty, (first, second, third)) == 3
    assert empty.execute("SELECT * FROM a").fetchall() == [(1, 2)]


def test_migrate_that_fails_leaves_the_database_as_it_was(empty: sqlite3.Connection) -> None:
    schema.migrate(empty, ("CREATE TABLE a(x INTEGER) STRICT",))
    bad = "CREATE TABLE b(x INTEGER) STRICT; INSERT INTO nowhere VALUES(1)"
    with pytest.raises(sqlite3.OperationalError, match="nowhere"):
        schema.migrate(empty, ("CREATE TABLE a(x INTEGER) STRICT", bad))
    assert tables(empty) == {"a"}
    assert version(empty) == 1
    assert not empty.in_transaction


def test_every_table_is_described() -> None:
    assert schema.__doc__ is not None
    for table in re.findall(r"CREATE TABLE (\w+)", "".join(schema.kMigrations)):
        assert re.search(rf"^{table}\b", schema.__doc__, re.MULTILINE), table
