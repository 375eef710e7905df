"""Writing results: replacement, deletion, bounded steps, failures, and the index of names."""

import sqlite3
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest

from loom.store import checkpoint, database, definitions, nameindex, queries
from loom.store import writer as writer_module
from loom.store.lookup import Lookup
from loom.store.records import AddedScope, FileRecord, StoredScope, join_scans
from loom.store.writer import Writer

MakeRecord = Callable[..., FileRecord]
WriteAll = Callable[[Writer], None]


def names_by_file(connection: sqlite3.Connection) -> dict[str, set[str]]:
    """The index of names, by URL."""
    result: dict[str, set[str]] = {}
    rows = connection.execute("SELECT url, name FROM names JOIN files ON id = file_id")
    for url, name in rows:
        result.setdefault(url, set()).add(name)
    return result


def content(connection: sqlite3.Connection) -> list[list[tuple[object, ...]]]:
    """All that is in the database, without the ids."""
    return [
        sorted(connection.execute(query))
        for query in (
            "SELECT url, mtime_ns, size, digest, scans, error, imports, indexed FROM files",
            "SELECT url, scopes.id % 16777216, name, parent, kind, lineno, end_lineno, info"
            " FROM scopes JOIN files ON files.id = scopes.id / 16777216",
            "SELECT url, packed FROM definitions JOIN files ON id = file_id",
            "SELECT url, name FROM names JOIN files ON id = file_id",
            "SELECT url, name, info FROM added_scopes JOIN files ON id = file_id",
        )
    ]


def orphans(connection: sqlite3.Connection) -> int:
    """Rows that belong to no file."""
    return sum(
        connection.execute(
            f"SELECT count(*) FROM {table} WHERE {key} NOT IN (SELECT id FROM files)"
        ).fetchone()[0]
        for table, key in (
            ("scopes", "id / 16777216"),
            ("definitions", "file_id"),
            ("names", "file_id"),
            ("added_scopes", "file_id"),
        )
    )


def countdown(steps: int) -> Callable[[], bool]:
    """A clock that runs out after so many looks."""
    left = steps

    def out_of_time() -> bool:
        nonlocal left
        left -= 1
        return left < 0

    return out_of_time


def test_written_file_is_found(
    opened: sqlite3.Connection, writer: Writer, make_record: MakeRecord, write_all: WriteAll
) -> None:
    writer.put_file(make_record("file:///a.py", ("first", "second")))
    assert not writer.rows_written
    write_all(writer)
    assert writer.idle
    assert writer.pending_bytes == 0
    lookup = Lookup(opened)
    assert lookup.states(["file:///a.py", "file:///no.py"]) == {
        "file:///a.py": (1_000, 10, True, b"file:///a.py", 1, " primary ", 0)
    }
    assert lookup.imports(["file:///a.py"]) == {"file:///a.py": b":ios"}
    assert lookup.scope("file:///a.py", "Some.second") == ("primary", 1e-6, False, False, b"second")
    assert lookup.scope("file:///a.py", "") == ("primary", 1e-6, False, False, b"module")
    assert lookup.scope("file:///a.py", "Some.third") is None
    assert lookup.scope("file:///no.py", "") is None
    assert lookup.scope_lines("file:///a.py") == [
        ("", 1, 100),
        ("Some", 2, 90),
        ("Some.first", 3, 3),
        ("Some.second", 4, 4),
    ]
    assert lookup.scope_lines("file:///no.py") == []
    assert names_by_file(opened) == {"file:///a.py": {"Some", "first", "second"}}


def test_scanned_again_replaces_all_rows(
    opened: sqlite3.Connection, writer: Writer, make_record: MakeRecord, write_all: WriteAll
) -> None:
    writer.put_file(make_record("file:///a.py", ("first", "second")))
    writer.put_file(make_record("file:///b.py", ("first",)))
    write_all(writer)
    writer.put_file(make_record("file:///a.py", ("second", "third"), mtime_ns=2_000))
    write_all(writer)
    lookup = Lookup(opened)
    assert lookup.states(["file:///a.py"])["file:///a.py"].mtime_ns == 2_000
    assert opened.execute("SELECT digest FROM files WHERE mtime_ns = 2000").fetchall() == [
        (b"file:///a.py",)
    ]
    assert lookup.scope("file:///a.py", "Some.first") is None
    assert lookup.scope("file:///a.py", "Some.third") is not None
    assert names_by_file(opened) == {
        "file:///a.py": {"Some", "second", "third"},
        "file:///b.py": {"Some", "first"},
    }
    assert orphans(opened) == 0


def test_last_result_counts_if_several_wait(
    opened: sqlite3.Connection, writer: Writer, make_record: MakeRecord, write_all: WriteAll
) -> None:
    writer.put_file(make_record("file:///a.py", ("first",)))
    writer.delete_file("file:///a.py")
    assert writer.pending_deletion("file:///a.py")
    writer.put_file(make_record("file:///a.py", ("second",)))
    assert not writer.pending_deletion("file:///a.py")
    write_all(writer)
    assert names_by_file(opened) == {"file:///a.py": {"Some", "second"}}


def test_deleted_file_leaves_nothing(
    opened: sqlite3.Connection, writer: Writer, make_record: MakeRecord, write_all: WriteAll
) -> None:
    for url in ("file:///a.py", "file:///b.py"):
        writer.put_file(make_record(url))
        writer.put_scope(AddedScope(url, "Some()", StoredScope("primary", 1.0, False, False, b"")))
    write_all(writer)
    writer.delete_file("file:///a.py")
    writer.delete_file("file:///unknown.py")
    write_all(writer)
    assert names_by_file(opened) == {"file:///b.py": {"Some", "first"}}
    assert orphans(opened) == 0
    assert opened.execute("SELECT count(*) FROM files").fetchone() == (1,)


def test_id_of_a_deleted_file_can_serve_again(
    opened: sqlite3.Connection, writer: Writer, make_record: MakeRecord, write_all: WriteAll
) -> None:
    writer.put_file(make_record("file:///a.py", ("first",)))
    write_all(writer)
    writer.delete_file("file:///a.py")
    writer.put_file(make_record("file:///b.py", ("second",)))
    write_all(writer)
    assert opened.execute("SELECT id FROM files").fetchall() == [(1,)]
    assert names_by_file(opened) == {"file:///b.py": {"Some", "second"}}


def test_names_that_come_and_go_before_a_merge(
    opened: sqlite3.Connection, writer: Writer, make_record: MakeRecord
) -> None:
    for functions in (("first",), ("second",), ("first", "third")):
        writer.put_file(make_record("file:///a.py", functions))
        assert writer.write(lambda: False, wait_seconds=0.0, index_all=False)
    assert names_by_file(opened) == {}
    while not writer.write(lambda: False, wait_seconds=0.0, index_all=True):
        pass
    assert names_by_file(opened) == {"file:///a.py": {"Some", "first", "third"}}


def test_unindexed_file_is_found_by_name(
    opened: sqlite3.Connection, writer: Writer, make_record: MakeRecord, write_all: WriteAll
) -> None:
    writer.put_file(make_record("file:///a.py"))
    assert writer.write(lambda: False, wait_seconds=0.0, index_all=False)
    assert queries.stats(opened).unindexed == 1
    assert [d.url for d in queries.find_name(opened, "first")] == ["file:///a.py"]
    write_all(writer)
    assert queries.stats(opened).unindexed == 0
    assert [d.url for d in queries.find_name(opened, "first")] == ["file:///a.py"]


def test_index_is_finished_by_the_next_process(
    path: Path,
    opened: sqlite3.Connection,
    writer: Writer,
    make_record: MakeRecord,
    write_all: WriteAll,
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    for number in range(7):
        writer.put_file(make_record(f"file:///{number}.py", (f"f{number}",)))
    assert writer.write(lambda: False, wait_seconds=0.0, index_all=False)
    # The process is gone here, with all that it had staged.
    monkeypatch.setattr(writer_module, "_kRecoverFiles", 3)
    connection = database.open_for_writing(path).connection
    following = Writer(connection)
    assert not following.idle
    write_all(following)
    assert following.idle
    assert len(names_by_file(connection)) == 7
    assert queries.stats(connection).unindexed == 0
    connection.close()


def test_scanned_again_before_the_index_is_finished(
    path: Path,
    opened: sqlite3.Connection,
    writer: Writer,
    make_record: MakeRecord,
    write_all: WriteAll,
) -> None:
    writer.put_file(make_record("file:///a.py", ("kept", "gone")))
    assert writer.write(lambda: False, wait_seconds=0.0, index_all=False)
    connection = database.open_for_writing(path).connection
    following = Writer(connection)
    following.put_file(make_record("file:///a.py", ("kept", "new"), mtime_ns=2_000))
    write_all(following)
    assert names_by_file(connection) == {"file:///a.py": {"Some", "kept", "new"}}
    connection.close()


@pytest.mark.parametrize("steps", [0, 1, 2, 3, 7])
def test_whatever_the_steps_the_result_is_the_same(
    path: Path,
    opened: sqlite3.Connection,
    writer: Writer,
    make_record: MakeRecord,
    write_all: WriteAll,
    steps: int,
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    monkeypatch.setattr(writer_module, "_kScopesPerCheck", 4)
    monkeypatch.setattr(nameindex, "_kPairsPerCheck", 3)
    records = [
        make_record(f"file:///{n}.py", tuple(f"f{n}_{m}" for m in range(n))) for n in range(12)
    ]
    other = Writer(database.open_for_writing(path.with_name("other.sqlite3")).connection)
    for record in records:
        writer.put_file(record)
        other.put_file(record)
    write_all(other)
    calls = 0
    while not writer.write(countdown(steps), wait_seconds=0.0, index_all=True):
        calls += 1
    assert calls > (20 if steps == 0 else 3)
    assert content(opened) == content(other._connection)
    other._connection.close()


def test_half_written_file_counts_as_not_scanned(
    path: Path,
    opened: sqlite3.Connection,
    writer: Writer,
    make_record: MakeRecord,
    write_all: WriteAll,
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    monkeypatch.setattr(writer_module, "_kScopesPerCheck", 4)
    writer.put_file(make_record("file:///a.py", tuple(f"f{n}" for n in range(20))))
    assert not writer.write(countdown(1), wait_seconds=0.0, index_all=True)
    reader = database.open_read_only(path)
    assert Lookup(reader).states(["file:///a.py"])["file:///a.py"].scans == ""
    assert Lookup(reader).scope("file:///a.py", "") is None
    assert Lookup(reader).scope_lines("file:///a.py") == []
    assert queries.find_name(reader, "f1") == []
    assert queries.scopes_of_file(reader, "file:///a.py") is None
    write_all(writer)
    assert Lookup(reader).scope("file:///a.py", "Some.f19") is not None
    assert len(queries.find_name(reader, "f1")) == 1
    reader.close()


def test_half_written_file_is_begun_again_when_it_changes(
    opened: sqlite3.Connection,
    writer: Writer,
    make_record: MakeRecord,
    write_all: WriteAll,
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    monkeypatch.setattr(writer_module, "_kScopesPerCheck", 4)
    writer.put_file(make_record("file:///a.py", tuple(f"old{n}" for n in range(20))))
    assert not writer.write(countdown(2), wait_seconds=0.0, index_all=True)
    writer.put_file(make_record("file:///a.py", ("new",), mtime_ns=2_000))
    write_all(writer)
    assert names_by_file(opened) == {"file:///a.py": {"Some", "new"}}
    assert orphans(opened) == 0
    assert len(queries.scopes_of_file(opened, "file:///a.py") or ()) == 3


@pytest.mark.parametrize("looks", range(1, 12))
def test_file_that_is_written_anew_in_mid_merge_is_not_indexed_yet(
    path: Path,
    opened: sqlite3.Connection,
    writer: Writer,
    make_record: MakeRecord,
    write_all: WriteAll,
    looks: int,
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    monkeypatch.setattr(nameindex, "_kPairsPerCheck", 2)
    urls = ["file:///a.py", "file:///b.py", "file:///c.py"]
    for url in urls:
        writer.put_file(make_record(url, ("old",)))
    assert writer.write(lambda: False, wait_seconds=0.0, index_all=False)
    writer.write(countdown(looks), wait_seconds=0.0, index_all=True)
    for url in urls:
        writer.put_file(make_record(url, ("new",), mtime_ns=2_000))
    # Writes the rows, and goes on with the merge in the same transaction.
    writer.write(countdown(looks + 3), wait_seconds=0.0, index_all=True)
    while not writer.rows_written:
        writer.write(lambda: False, wait_seconds=0.0, index_all=False)
    # The process is gone here. What isn't indexed must be marked so.
    connection = database.open_for_writing(path).connection
    assert [d.url for d in queries.find_name(connection, "new")] == urls
    write_all(Writer(connection))
    assert [d.url for d in queries.find_name(connection, "new")] == urls
    connection.close()


def test_file_with_the_id_of_a_deleted_one_is_not_indexed_yet(
    path: Path, opened: sqlite3.Connection, writer: Writer, make_record: MakeRecord
) -> None:
    writer.put_file(make_record("file:///a.py", ("old",)))
    assert writer.write(lambda: False, wait_seconds=0.0, index_all=False)
    writer.delete_file("file:///a.py")
    writer.put_file(make_record("file:///b.py", ("new",)))
    writer.write(lambda: False, wait_seconds=0.0, index_all=True)
    connection = database.open_for_writing(path).connection
    assert [d.url for d in queries.find_name(connection, "new")] == ["file:///b.py"]
    connection.close()


def test_something_is_written_at_each_call(
    opened: sqlite3.Connection, writer: Writer, make_record: MakeRecord
) -> None:
    for number in range(3):
        writer.put_file(make_record(f"file:///{number}.py"))
    for written in (1, 2, 3):
        writer.write(lambda: True, wait_seconds=0.0, index_all=False)
        assert opened.execute("SELECT count(*) FROM files").fetchone() == (written,)


class FailingConnection:
    """A connection whose statements fail from a given one on, until told otherwise."""

    def __init__(self, connection: sqlite3.Connection) -> None:
        self.connection = connection
        self.good_statements = 1_000_000

    def __getattr__(self, name: str) -> object:
        return getattr(self.connection, name)

    def _count(self) -> None:
        self.good_statements -= 1
        if self.good_statements < 0:
            raise sqlite3.OperationalError("disk is full")

    def execute(self, statement: str, *args: object) -> object:
        if statement != "ROLLBACK":
            self._count()
        return self.connection.execute(statement, *args)  # type: ignore[arg-type]

    def executemany(self, statement: str, rows: object) -> object:
        self._count()
        return self.connection.executemany(statement, rows)  # type: ignore[arg-type]


def test_failure_at_any_statement_loses_nothing(
    path: Path,
    opened: sqlite3.Connection,
    make_record: MakeRecord,
    write_all: WriteAll,
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    monkeypatch.setattr(writer_module, "_kScopesPerCheck", 4)
    monkeypatch.setattr(nameindex, "_kPairsPerCheck", 3)

    def fill(writer: Writer) -> None:
        for number in range(4):
            functions = tuple(f"f{n}" for n in range(number * 3))
            writer.put_file(make_record(f"file:///{number}.py", functions))
        writer.put_scope(
            AddedScope("file:///0.py", "Some()", StoredScope("primary", 1.0, False, False, b"x"))
        )

    other = Writer(database.open_for_writing(path.with_name("other.sqlite3")).connection)
    fill(other)
    write_all(other)
    expected = content(other._connection)
    other._connection.close()

    failing = FailingConnection(opened)
    failures = 0
    for good_statements in range(1, 200):
        opened.execute("DELETE FROM files")
        for table in ("scopes", "definitions", "names", "added_scopes"):
            opened.execute(f"DELETE FROM {table}")
        writer = Writer(failing)  # type: ignore[arg-type]
        fill(writer)
        failing.good_statements = good_statements
        failed = False
        for _ in range(60):
            try:
                if writer.write(countdown(3), wait_seconds=0.0, index_all=True):
                    break
            except sqlite3.OperationalError:
                assert not opened.in_transaction
                failed = True
                failing.good_statements = 1_000_000
        assert content(opened) == expected
        assert writer.idle
        assert writer.pending_bytes == 0
        failures += failed
        if not failed:
            break
    assert failures > 30


def test_locked_database_keeps_results_waiting(
    path: Path,
    opened: sqlite3.Connection,
    writer: Writer,
    make_record: MakeRecord,
    write_all: WriteAll,
) -> None:
    writer.put_file(make_record("file:///a.py"))
    other = database.open_for_writing(path).connection
    other.execute("BEGIN IMMEDIATE")
    memory = writer.pending_bytes
    with pytest.raises(sqlite3.OperationalError, match="locked"):
        writer.write(lambda: False, wait_seconds=0.0, index_all=True)
    assert writer.pending_bytes == memory
    assert writer.pending_file("file:///a.py") is not None
    other.execute("ROLLBACK")
    other.close()
    write_all(writer)
    assert names_by_file(opened) == {"file:///a.py": {"Some", "first"}}


def test_two_writers_share_a_database(
    path: Path,
    opened: sqlite3.Connection,
    writer: Writer,
    make_record: MakeRecord,
    write_all: WriteAll,
) -> None:
    connection = database.open_for_writing(path).connection
    other = Writer(connection)
    for number in range(4):
        writer.put_file(make_record(f"file:///mine{number}.py", ("mine", "both")))
        other.put_file(make_record(f"file:///yours{number}.py", ("yours", "both")))
        writer.write(lambda: False, wait_seconds=0.0, index_all=False)
        other.write(lambda: False, wait_seconds=0.0, index_all=False)
    write_all(writer)
    write_all(other)
    assert len(queries.find_name(opened, "both")) == 8
    assert len(queries.find_name(connection, "mine")) == 4
    assert queries.stats(opened) == queries.stats(connection)
    connection.close()


def test_added_scope_stands_before_a_scanned_one_until_the_next_scan(
    opened: sqlite3.Connection, writer: Writer, make_record: MakeRecord, write_all: WriteAll
) -> None:
    lookup = Lookup(opened)
    stored = StoredScope("derived", 2.5, True, False, b"better")
    writer.put_file(make_record("file:///a.py"))
    writer.put_scope(AddedScope("file:///a.py", "Some", stored))
    assert writer.pending_scope("file:///a.py", "Some") is not None
    write_all(writer)
    assert lookup.scope("file:///a.py", "Some") == stored
    writer.put_file(make_record("file:///a.py", mtime_ns=2_000))
    assert writer.pending_scope("file:///a.py", "Some") is None
    write_all(writer)
    assert lookup.scope("file:///a.py", "Some") == ("primary", 2e-6, False, False, b"class")


def test_added_scope_of_an_unknown_file(
    opened: sqlite3.Connection, writer: Writer, write_all: WriteAll
) -> None:
    absent = StoredScope("primary", 1.0, False, True, b"")
    writer.put_scope(AddedScope("file:///a.py", "No", absent))
    writer.put_scope(AddedScope("file:///a.py", "No", absent))
    write_all(writer)
    lookup = Lookup(opened)
    assert lookup.scope("file:///a.py", "No") == absent
    assert lookup.states(["file:///a.py"])["file:///a.py"].scans == ""
    assert writer.pending_bytes == 0


def test_waiting_scope_goes_with_its_file(writer: Writer, make_record: MakeRecord) -> None:
    stored = StoredScope("primary", 1.0, False, False, b"x")
    writer.put_scope(AddedScope("file:///a.py", "Some()", stored))
    writer.put_scope(AddedScope("file:///b.py", "Some()", stored))
    writer.delete_file("file:///a.py")
    assert writer.pending_scope("file:///a.py", "Some()") is None
    assert writer.pending_scope("file:///b.py", "Some()") is not None


def test_merge_is_due_when_much_is_staged(
    opened: sqlite3.Connection,
    writer: Writer,
    make_record: MakeRecord,
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    monkeypatch.setattr(nameindex, "kMergeAtPairs", 10)
    for number in range(6):
        writer.put_file(make_record(f"file:///{number}.py"))
        writer.write(lambda: False, wait_seconds=0.0, index_all=False)
    assert len(names_by_file(opened)) == 5
    assert not writer.merge_due


def test_merge_keeps_names_in_order(
    opened: sqlite3.Connection, writer: Writer, make_record: MakeRecord, write_all: WriteAll
) -> None:
    functions = ("zeta", "alpha", "_private", "Élan", "beta", "alpha2", "数")
    writer.put_file(make_record("file:///a.py", functions))
    write_all(writer)
    assert [name for (name,) in opened.execute("SELECT name FROM names")] == sorted(
        (*functions, "Some")
    )


def test_lookup_asks_for_many_files_at_once(
    opened: sqlite3.Connection, writer: Writer, make_record: MakeRecord, write_all: WriteAll
) -> None:
    urls = [f"file:///{number}.py" for number in range(250)]
    for url in urls:
        writer.put_file(make_record(url))
    write_all(writer)
    statements: list[str] = []
    opened.set_trace_callback(statements.append)
    assert list(Lookup(opened).states(urls[:26])) and len(statements) == 1
    assert len(Lookup(opened).states(urls)) == 250
    assert Lookup(opened).states([]) == {}


def test_imports_leave_out_files_that_import_nothing(
    opened: sqlite3.Connection, writer: Writer, make_record: MakeRecord, write_all: WriteAll
) -> None:
    writer.put_file(make_record("file:///a.py", imports=b""))
    writer.put_file(make_record("file:///b.py", imports=b":ios;:fos path"))
    write_all(writer)
    assert Lookup(opened).imports(["file:///a.py", "file:///b.py", "file:///c.py"]) == {
        "file:///b.py": b":ios;:fos path"
    }


def test_data_version_tells_of_other_writers(
    path: Path,
    opened: sqlite3.Connection,
    writer: Writer,
    make_record: MakeRecord,
    write_all: WriteAll,
) -> None:
    lookup = Lookup(opened)
    before = lookup.data_version()
    writer.put_file(make_record("file:///a.py"))
    write_all(writer)
    assert lookup.data_version() == before
    connection = database.open_for_writing(path).connection
    other = Writer(connection)
    other.put_file(make_record("file:///b.py"))
    write_all(other)
    assert lookup.data_version() != before
    connection.close()


def test_definitions_survive_packing() -> None:
    found = [(0, "a", ord("="), 1), (0, "été", ord("F"), 20), (3, "数", ord("C"), 300_000)]
    packed = definitions.pack(found)
    assert [(d.scope_index, d.name, d.kind, d.lineno) for d in definitions.unpack(packed)] == found
    assert definitions.names_in(packed) == {"a", "été", "数"}
    assert definitions.pack([]) == b""
    assert list(definitions.unpack(b"")) == []
    assert definitions.names_in(b"") == set()


@pytest.mark.parametrize("packed", [b"no tabs\n", b"x\tF\t1\tname\n", b"0\tF\t1\t\tname\n"])
def test_definitions_of_another_form_are_refused(packed: bytes) -> None:
    with pytest.raises(ValueError):
        list(definitions.unpack(packed))


def test_scan_names_stand_between_blanks() -> None:
    assert join_scans(["primary", "derived"]) == " primary derived "
    assert join_scans([]) == ""


@pytest.fixture
def checkpointer(path: Path) -> Iterator[checkpoint.Checkpointer]:
    result = checkpoint.Checkpointer(path)
    yield result
    result.join()


def test_checkpoint_waits_until_the_log_is_long(
    path: Path,
    opened: sqlite3.Connection,
    writer: Writer,
    make_record: MakeRecord,
    write_all: WriteAll,
    checkpointer: checkpoint.Checkpointer,
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    writer.put_file(make_record("file:///a.py"))
    write_all(writer)
    checkpointer.start_if_worthwhile()
    assert checkpointer.runs == 0
    size = path.stat().st_size
    monkeypatch.setattr(checkpoint, "kWorthwhileBytes", 1)
    checkpointer.start_if_worthwhile()
    checkpointer.join()
    assert checkpointer.runs == 1
    assert path.stat().st_size > size
    # Nothing was written since.
    checkpointer.start_if_worthwhile()
    assert checkpointer.runs == 1


def test_checkpoint_without_a_log(checkpointer: checkpoint.Checkpointer) -> None:
    checkpointer.start_if_worthwhile()
    assert checkpointer.runs == 0


def test_checkpoint_that_fails_is_told_and_harms_nothing(
    path: Path,
    opened: sqlite3.Connection,
    writer: Writer,
    make_record: MakeRecord,
    write_all: WriteAll,
    checkpointer: checkpoint.Checkpointer,
    monkeypatch: pytest.MonkeyPatch,
    caplog: pytest.LogCaptureFixture,
) -> None:
    def fail(*args: object, **kwargs: object) -> object:
        raise sqlite3.OperationalError("unable to open database file")

    monkeypatch.setattr(checkpoint, "kWorthwhileBytes", 1)
    writer.put_file(make_record("file:///a.py"))
    write_all(writer)
    monkeypatch.setattr(sqlite3, "connect", fail)
    checkpointer.start_if_worthwhile()
    checkpointer.join()
    assert "unable to open database file" in caplog.text
    assert queries.stats(opened).files == 1
