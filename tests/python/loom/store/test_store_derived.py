"""Derived results in the database: written, found, and let go."""

import sqlite3
from collections.abc import Iterator
from pathlib import Path

import pytest

from loom.store.database import open_for_writing
from loom.store.derived import (
    DerivedRecord,
    drop_outdated,
    kDerivedVersion,
    key_of_file,
    key_of_module,
    stored_record,
    unpack_names,
)
from loom.store.records import FileRecord
from loom.store.writer import Writer


@pytest.fixture
def connection(tmp_path: Path) -> Iterator[sqlite3.Connection]:
    result = open_for_writing(tmp_path / "info.sqlite3").connection
    yield result
    result.close()


def url(name: str) -> str:
    return f"file:///tree/{name}.py"


def file(name: str, digest: bytes = b"d", exports: bytes = b"e") -> FileRecord:
    return FileRecord(url(name), 1, 1, " primary ", digest=digest, exports=exports)


def record(name: str, *on: str, digest: bytes = b"d") -> DerivedRecord:
    keys = frozenset(key_of_file(url(each)) for each in on)
    return DerivedRecord(url(name), digest, f"facts of {name}".encode(), {name, "x"}, keys)


def write(writer: Writer) -> None:
    assert writer.write(lambda: False, 0.0, False)


def put(writer: Writer, each: FileRecord) -> list[str]:
    """As the info cache does; returns who is stale."""
    writer.put_file(each)
    return writer.derived.note_exports(each.url, each.exports)


@pytest.fixture
def writer(connection: sqlite3.Connection) -> Writer:
    """Files a, b, c: b and c were drawn from a, c from b."""
    result = Writer(connection)
    for name in "abc":
        put(result, file(name))
    result.derived.put(record("a"))
    result.derived.put(record("b", "a"))
    result.derived.put(record("c", "a", "b"))
    return result


def scans(connection: sqlite3.Connection, name: str) -> str:
    ((found,),) = connection.execute("SELECT scans FROM files WHERE url = ?", (url(name),))
    return str(found)


def count(connection: sqlite3.Connection, table: str) -> int:
    ((found,),) = connection.execute(f"SELECT count(*) FROM {table}")
    return int(found)


def test_written_results_are_found(writer: Writer, connection: sqlite3.Connection) -> None:
    assert not writer.derived.empty
    assert writer.pending_bytes > 0
    write(writer)
    assert writer.derived.empty
    assert writer.derived.pending_bytes == 0
    assert scans(connection, "c") == " primary derived "
    ((file_id,),) = connection.execute("SELECT id FROM files WHERE url = ?", (url("c"),))
    assert stored_record(connection, file_id) == (b"d", b"facts of c")
    ((names,),) = connection.execute("SELECT names FROM used_names WHERE file_id = ?", (file_id,))
    assert unpack_names(names) == {"c", "x"}
    assert count(connection, "depends") == 3


def test_results_of_other_bytes_are_not_taken(
    writer: Writer, connection: sqlite3.Connection
) -> None:
    """Another process has scanned another state of the file."""
    writer.derived.put(record("a", digest=b"other"))
    write(writer)
    assert scans(connection, "a") == " primary "
    assert writer.derived.empty


@pytest.mark.parametrize("written", [False, True])
def test_who_depends_on_a_file_is_stale_when_its_exports_change(
    writer: Writer, connection: sqlite3.Connection, written: bool
) -> None:
    if written:
        write(writer)
    assert put(writer, file("b", exports=b"e")) == []
    assert put(writer, file("b", exports=b"new")) == [url("c")]
    assert put(writer, file("b", exports=b"new")) == []
    assert put(writer, file("a", exports=b"new")) == []  # b is scanned anew, c is stale already
    write(writer)
    assert {name: scans(connection, name) for name in "abc"} == dict.fromkeys("abc", " primary ")


@pytest.mark.parametrize("written", [False, True])
def test_who_depends_on_a_file_is_stale_when_it_goes(
    writer: Writer, connection: sqlite3.Connection, written: bool
) -> None:
    if written:
        write(writer)
    generation = writer.derived.generation
    writer.delete_file(url("b"))
    assert writer.derived.note_exports(url("b"), None) == [url("c")]
    assert writer.derived.note_exports(url("b"), None) == []
    assert writer.derived.generation == generation + 1
    write(writer)
    assert scans(connection, "c") == " primary "
    assert count(connection, "exports") == 2


def test_who_lacked_a_module_is_stale_when_it_comes(writer: Writer) -> None:
    lacking = record("b")._replace(keys=frozenset({key_of_module("new"), key_of_module("pkg")}))
    writer.derived.put(lacking)
    write(writer)
    assert put(writer, file("other")) == []
    assert put(writer, file("sub/new")) == [url("b")]
    writer.derived.put(lacking)
    assert put(writer, file("pkg/__init__")) == [url("b")]


def test_stale_results_stand_there_until_new_ones_come(
    writer: Writer, connection: sqlite3.Connection
) -> None:
    write(writer)
    writer.derived.make_stale([url("c")])
    write(writer)
    assert count(connection, "derived") == 3
    writer.derived.put(record("c", "b"))
    write(writer)
    assert scans(connection, "c") == " primary derived "
    assert count(connection, "depends") == 2


def test_valid_scans_are_told_before_they_are_written(
    writer: Writer, connection: sqlite3.Connection
) -> None:
    derived = writer.derived
    state = file("c").state()
    assert derived.scans_of(url("c"), state) == " primary derived "
    assert derived.scans_of(url("c"), state._replace(digest=b"other")) == " primary "
    assert derived.scans_of(url("c"), state._replace(scans="")) == ""
    write(writer)
    both = state._replace(scans=" primary derived ")
    assert derived.scans_of(url("c"), both) == " primary derived "
    derived.make_stale([url("c")])
    assert derived.scans_of(url("c"), both) == " primary "


def test_a_transaction_that_fails_loses_nothing(
    writer: Writer, connection: sqlite3.Connection, monkeypatch: pytest.MonkeyPatch
) -> None:
    real = writer.derived._write_record

    def failing(each: DerivedRecord) -> None:
        if each.url == url("c"):
            raise sqlite3.OperationalError("disk I/O error")
        real(each)

    monkeypatch.setattr(writer.derived, "_write_record", failing)
    with pytest.raises(sqlite3.OperationalError):
        writer.write(lambda: False, 0.0, False)
    assert count(connection, "derived") == 0
    monkeypatch.undo()
    write(writer)
    assert count(connection, "derived") == 3
    assert writer.derived.empty


def test_results_are_written_in_small_steps(writer: Writer, connection: sqlite3.Connection) -> None:
    calls = 0
    while not writer.write(lambda: True, 0.0, False):
        calls += 1
        assert calls < 100
    assert calls > 5
    assert writer.derived.empty
    assert count(connection, "derived") == 3
    assert scans(connection, "c") == " primary derived "


def test_a_deleted_file_leaves_no_rows(writer: Writer, connection: sqlite3.Connection) -> None:
    write(writer)
    for name in "abc":
        writer.delete_file(url(name))
    write(writer)
    for table in ("derived", "used_names", "depends", "depends_of", "exports"):
        assert count(connection, table) == 0, table


def test_results_of_another_version_go(
    writer: Writer, connection: sqlite3.Connection, monkeypatch: pytest.MonkeyPatch
) -> None:
    write(writer)
    drop_outdated(connection)
    assert count(connection, "derived") == 3
    monkeypatch.setattr("loom.store.derived.kDerivedVersion", kDerivedVersion + 1)
    drop_outdated(connection)
    assert count(connection, "derived") == count(connection, "depends") == 0
    assert scans(connection, "a") == " primary "
