"""Two processes that write one database, step by step in turn."""

import sqlite3
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import pytest

from loom.store import database, nameindex, queries
from loom.store import writer as writer_module
from loom.store.records import FileRecord
from loom.store.writer import Writer

MakeRecord = Callable[..., FileRecord]
WriteAll = Callable[[Writer], None]

kUrl = "file:///a.py"


@pytest.fixture
def other(path: Path, opened: sqlite3.Connection) -> Iterator[Writer]:
    """The writer of another process on the same database."""
    connection = database.open_for_writing(path).connection
    yield Writer(connection)
    connection.close()


def step(writer: Writer, index_all: bool = False) -> bool:
    """One transaction, as short as can be."""
    return writer.write(lambda: True, wait_seconds=0.0, index_all=index_all)


def scope_names(connection: sqlite3.Connection) -> list[str]:
    return [scope.name for scope in queries.scopes_of_file(connection, kUrl) or []]


def found(connection: sqlite3.Connection, *names: str) -> list[bool]:
    return [bool(queries.find_name(connection, name)) for name in names]


def indexed_names(connection: sqlite3.Connection) -> list[Any]:
    return connection.execute("SELECT name FROM names ORDER BY name").fetchall()


@pytest.fixture(autouse=True)
def small_steps(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(writer_module, "_kScopesPerCheck", 2)


kOld = tuple(f"old{n}" for n in range(9))
kNew = tuple(f"new{n}" for n in range(7))


@pytest.mark.parametrize("steps", [1, 2, 3])
def test_a_file_that_is_half_written_when_another_process_writes_it(
    opened: sqlite3.Connection,
    writer: Writer,
    other: Writer,
    make_record: MakeRecord,
    write_all: WriteAll,
    steps: int,
) -> None:
    """No mixture of both: the last one to come to its end has it, whole."""
    writer.put_file(make_record(kUrl, kOld))
    for _ in range(steps):
        assert not step(writer)
    other.put_file(make_record(kUrl, kNew))
    write_all(other)
    assert scope_names(opened) == ["", "Some", *(f"Some.{name}" for name in kNew)]
    write_all(writer)
    assert scope_names(opened) == ["", "Some", *(f"Some.{name}" for name in kOld)]
    assert found(opened, "old8", "new6") == [True, False]


def test_two_processes_write_the_same_file_in_turn(
    opened: sqlite3.Connection,
    writer: Writer,
    other: Writer,
    make_record: MakeRecord,
    write_all: WriteAll,
) -> None:
    """Each begins again whenever the other one was there; alone, it comes to its end."""
    writer.put_file(make_record(kUrl, kOld))
    other.put_file(make_record(kUrl, kNew))
    for _ in range(10):
        step(writer)
        step(other)
        scans = opened.execute("SELECT scans FROM files").fetchone()[0]
        assert scans == "" or len(scope_names(opened)) in (11, 9)
    write_all(writer)
    assert scope_names(opened) == ["", "Some", *(f"Some.{name}" for name in kOld)]
    write_all(other)
    assert scope_names(opened) == ["", "Some", *(f"Some.{name}" for name in kNew)]
    assert found(opened, "old8", "new6") == [False, True]


def test_a_row_that_serves_another_file_is_not_gone_on_with(
    opened: sqlite3.Connection,
    writer: Writer,
    other: Writer,
    make_record: MakeRecord,
    write_all: WriteAll,
) -> None:
    writer.put_file(make_record(kUrl, kOld))
    step(writer)
    other.delete_file(kUrl)
    other.put_file(make_record("file:///b.py", kNew))
    write_all(other)
    assert opened.execute("SELECT id, url FROM files").fetchall() == [(1, "file:///b.py")]
    write_all(writer)
    assert opened.execute("SELECT url FROM files ORDER BY id").fetchall() == [
        ("file:///b.py",),
        (kUrl,),
    ]
    assert scope_names(opened) == ["", "Some", *(f"Some.{name}" for name in kOld)]
    assert len(queries.scopes_of_file(opened, "file:///b.py") or []) == 9


def test_names_of_another_process_stay_findable_if_it_dies_before_it_indexes_them(
    opened: sqlite3.Connection,
    writer: Writer,
    other: Writer,
    make_record: MakeRecord,
    write_all: WriteAll,
) -> None:
    writer.put_file(make_record(kUrl, ("mine",)))
    while not writer.rows_written:
        step(writer)  # and nothing indexed
    other.put_file(make_record(kUrl, ("theirs",)))
    while not other.rows_written:
        step(other)
    write_all(writer)
    assert found(opened, "theirs", "mine") == [True, False]
    assert opened.execute("SELECT indexed FROM files").fetchone() == (0,) or (
        ("theirs",) in indexed_names(opened)
    )


def test_names_that_another_process_has_indexed_are_not_taken_out(
    opened: sqlite3.Connection,
    writer: Writer,
    other: Writer,
    make_record: MakeRecord,
    write_all: WriteAll,
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    writer.put_file(make_record(kUrl, ("name", "first")))
    write_all(writer)
    writer.put_file(make_record(kUrl, ("first",)))
    while not writer.rows_written:
        step(writer)  # the name waits to be taken out
    other.put_file(make_record(kUrl, ("name", "first")))
    write_all(other)
    write_all(writer)
    assert found(opened, "name", "first") == [True, True]
    assert opened.execute("SELECT indexed FROM files").fetchone() == (1,)


def test_one_process_alone_takes_names_out_whatever_it_has_written_since(
    opened: sqlite3.Connection,
    writer: Writer,
    make_record: MakeRecord,
    write_all: WriteAll,
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    monkeypatch.setattr(nameindex, "_kPairsPerCheck", 1)
    writer.put_file(make_record(kUrl, ("a", "b", "c")))
    write_all(writer)
    for names in (("b", "c"), ("c",), ("c", "d")):
        writer.put_file(make_record(kUrl, names))
        for _ in range(3):
            step(writer, index_all=True)
    write_all(writer)
    assert indexed_names(opened) == [("Some",), ("c",), ("d",)]
