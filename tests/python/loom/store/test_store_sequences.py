"""Whatever happens in whatever order, the database ends as if only the last results had come in."""

import itertools
import sqlite3
import tempfile
from collections.abc import Callable
from pathlib import Path

import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

from loom.store import database, nameindex, queries
from loom.store import writer as writer_module
from loom.store.records import AddedScope, FileRecord, StoredScope
from loom.store.writer import Writer

kUrls = [f"file:///{letter}.py" for letter in "abcd"]
kNames = ["one", "two", "three", "four", "five", "six"]

urls = st.sampled_from(kUrls)
steps = st.lists(
    st.one_of(
        st.tuples(st.just("put"), urls, st.lists(st.sampled_from(kNames), unique=True)),
        st.tuples(st.just("delete"), urls),
        st.tuples(st.just("scope"), urls, st.sampled_from(kNames)),
        st.tuples(st.just("write"), st.integers(0, 5), st.booleans()),
        st.tuples(st.just("other process"), st.booleans()),
    ),
    max_size=25,
)


def names(connection: sqlite3.Connection) -> set[tuple[str | None, str]]:
    """The index of names, with none for a file that isn't there."""
    return set(connection.execute("SELECT url, name FROM names LEFT JOIN files ON id = file_id"))


def content(connection: sqlite3.Connection) -> list[object]:
    """All that can be asked."""
    for table, key in (("scopes", "id / 16777216"), ("definitions", "file_id")):
        (orphans,) = connection.execute(
            f"SELECT count(*) FROM {table} WHERE {key} NOT IN (SELECT id FROM files)"
        ).fetchone()
        assert orphans == 0, table
    return [
        sorted(connection.execute("SELECT url, mtime_ns, scans FROM files")),
        [queries.scopes_of_file(connection, url) for url in kUrls],
        [queries.definitions_of_file(connection, url) for url in kUrls],
        [queries.find_name(connection, name) for name in kNames],
        sorted(
            connection.execute(
                "SELECT url, name, info FROM added_scopes JOIN files ON id = file_id"
            )
        ),
    ]


def countdown(count: int) -> Callable[[], bool]:
    looks = itertools.count()
    return lambda: next(looks) >= count


@settings(
    max_examples=150,
    deadline=None,
    suppress_health_check=[HealthCheck.function_scoped_fixture],
)
@given(sequence=steps)
def test_any_sequence_ends_in_the_last_results(
    make_record: Callable[..., FileRecord],
    write_all: Callable[[Writer], None],
    monkeypatch: pytest.MonkeyPatch,
    sequence: list[tuple[object, ...]],
) -> None:
    monkeypatch.setattr(writer_module, "_kScopesPerCheck", 3)
    monkeypatch.setattr(nameindex, "_kPairsPerCheck", 2)
    monkeypatch.setattr(nameindex, "kMergeAtPairs", 6)
    with tempfile.TemporaryDirectory() as folder:
        connection = database.open_for_writing(Path(folder) / "a.sqlite3").connection
        writer = Writer(connection)
        crashed = False
        files: dict[str, FileRecord] = {}
        scopes: dict[tuple[str, str], AddedScope] = {}
        for time, (what, *arguments) in enumerate(sequence, 1):
            if what == "put":
                url, functions = arguments
                assert isinstance(url, str) and isinstance(functions, list)
                files[url] = make_record(url, tuple(functions), mtime_ns=time)
                scopes = {key: scope for key, scope in scopes.items() if key[0] != url}
                writer.put_file(files[url])
            elif what == "delete":
                (url,) = arguments
                assert isinstance(url, str)
                files.pop(url, None)
                scopes = {key: scope for key, scope in scopes.items() if key[0] != url}
                writer.delete_file(url)
            elif what == "scope":
                url, name = arguments
                assert isinstance(url, str) and isinstance(name, str)
                if url in files:
                    stored = StoredScope("primary", 1.0, False, False, str(time).encode())
                    scopes[url, name] = AddedScope(url, name, stored)
                    writer.put_scope(scopes[url, name])
            elif what == "write":
                looks, index_all = arguments
                assert isinstance(looks, int) and isinstance(index_all, bool)
                writer.write(countdown(looks), wait_seconds=0.0, index_all=index_all)
            else:
                # All rows are written, but perhaps not indexed; what was staged is lost.
                while not writer.rows_written:
                    writer.write(lambda: False, wait_seconds=0.0, index_all=bool(arguments[0]))
                crashed = True
                connection.close()
                connection = database.open_for_writing(Path(folder) / "a.sqlite3").connection
                writer = Writer(connection)
        write_all(writer)
        assert writer.pending_bytes == 0
        fresh = database.open_for_writing(Path(folder) / "b.sqlite3").connection
        expected = Writer(fresh)
        for record in files.values():
            expected.put_file(record)
        for scope in scopes.values():
            expected.put_scope(scope)
        write_all(expected)
        try:
            assert content(connection) == content(fresh)
            if crashed:
                assert names(connection) >= names(fresh)
            else:
                assert names(connection) == names(fresh)
        finally:
            connection.close()
            fresh.close()
