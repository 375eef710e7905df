"""The questions of the command line."""

import os
import sqlite3
from collections.abc import Callable
from pathlib import Path

import pytest

from loom.store import database, definitions, queries
from loom.store.records import FileRecord
from loom.store.writer import Writer

MakeRecord = Callable[..., FileRecord]
WriteAll = Callable[[Writer], None]


@pytest.fixture(params=["indexed", "unindexed"])
def filled(
    request: pytest.FixtureRequest,
    opened: sqlite3.Connection,
    writer: Writer,
    make_record: MakeRecord,
    write_all: WriteAll,
) -> sqlite3.Connection:
    """Three files, before and after their names were indexed: the answers are the same."""
    writer.put_file(make_record("file:///b.py", ("walk", "walk_far", "Walk", "run")))
    writer.put_file(make_record("file:///a.py", ("walk", "run_100%", "[x]")))
    writer.put_file(
        make_record(
            "file:///bad.py",
            (),
            scans="",
            error="not text",
            scopes=(),
            definitions=b"",
            names=(),
            definition_count=0,
            line_count=0,
        )
    )
    if request.param == "indexed":
        write_all(writer)
    else:
        assert writer.write(lambda: False, wait_seconds=0.0, index_all=False)
    return opened


def test_find_exact(filled: sqlite3.Connection) -> None:
    assert queries.find_name(filled, "walk") == [
        ("file:///a.py", "Some", "walk", "M", 3),
        ("file:///b.py", "Some", "walk", "M", 3),
    ]
    assert queries.find_name(filled, "wal") == []
    assert queries.find_name(filled, "wal.") == []
    assert [d.name for d in queries.find_name(filled, "[x]")] == ["[x]"]


def test_find_exact_takes_a_dotted_name(filled: sqlite3.Connection) -> None:
    assert len(queries.find_name(filled, "Some.walk")) == 2
    assert queries.find_name(filled, "ome.walk") == []
    assert queries.find_name(filled, "Other.walk") == []
    assert queries.find_name(filled, "Some.walk")[0].qualified_name == "Some.walk"


def test_find_prefix(filled: sqlite3.Connection) -> None:
    found = queries.find_name(filled, "walk", "prefix")
    assert [(d.url, d.name) for d in found] == [
        ("file:///a.py", "walk"),
        ("file:///b.py", "walk"),
        ("file:///b.py", "walk_far"),
    ]
    assert [d.name for d in queries.find_name(filled, "run_100%", "prefix")] == ["run_100%"]
    assert len(queries.find_name(filled, "", "prefix")) == 9


def test_find_glob(filled: sqlite3.Connection) -> None:
    def names(pattern: str) -> set[str]:
        return {d.name for d in queries.find_name(filled, pattern, "glob")}

    assert names("*alk") == {"walk", "Walk"}
    assert names("?alk") == {"walk", "Walk"}
    assert names("[Ww]alk") == {"walk", "Walk"}
    assert names("[!W]alk") == {"walk"}
    assert names("walk") == {"walk"}
    assert names("w*f?r") == {"walk_far"}
    assert names("*") == {"walk", "walk_far", "Walk", "run", "run_100%", "[x]", "Some"}
    assert names("no*") == set()


def test_scopes_of_file(filled: sqlite3.Connection) -> None:
    scopes = queries.scopes_of_file(filled, "file:///a.py")
    assert scopes is not None
    assert scopes[:3] == [
        ("", -1, "O", 1, 100),
        ("Some", 0, "C", 2, 90),
        ("Some.walk", 1, "M", 3, 3),
    ]
    assert queries.scopes_of_file(filled, "file:///unknown.py") is None
    assert queries.scopes_of_file(filled, "file:///bad.py") == []


def test_definitions_of_file(filled: sqlite3.Connection) -> None:
    found = queries.definitions_of_file(filled, "file:///a.py")
    assert found is not None
    assert [(d.qualified_name, d.kind, d.lineno) for d in found] == [
        ("Some", "C", 2),
        ("Some.walk", "M", 3),
        ("Some.run_100%", "M", 4),
        ("Some.[x]", "M", 5),
    ]
    assert queries.definitions_of_file(filled, "file:///unknown.py") is None
    assert queries.definitions_of_file(filled, "file:///bad.py") == []


def test_problems_and_stats(filled: sqlite3.Connection) -> None:
    assert queries.problems(filled) == [("file:///bad.py", "not text", 0)]
    stats = queries.stats(filled)
    assert stats._replace(unindexed=0) == queries.Stats(
        files=3, scopes=11, definitions=9, lines=200, bytes=30, errors=1, failed=1, unindexed=0
    )


def test_stats_of_an_empty_database(opened: sqlite3.Connection) -> None:
    assert queries.stats(opened) == queries.Stats(0, 0, 0, 0, 0, 0, 0, 0)


def test_name_that_the_index_has_too_many_of(filled: sqlite3.Connection) -> None:
    filled.execute("INSERT INTO names SELECT 'ghost', id FROM files")
    assert queries.find_name(filled, "ghost") == []
    assert queries.find_name(filled, "gh*", "glob") == []


def test_answer_is_of_one_state_while_others_write(
    path: Path,
    opened: sqlite3.Connection,
    writer: Writer,
    make_record: MakeRecord,
    write_all: WriteAll,
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    writer.put_file(make_record("file:///a.py", tuple(f"f{n}" for n in range(9))))
    write_all(writer)
    reader = database.open_read_only(path)
    unpack = definitions.unpack

    def unpack_late(packed: bytes) -> object:
        writer.put_file(make_record("file:///a.py", ("only",), mtime_ns=2_000))
        write_all(writer)
        return unpack(packed)

    monkeypatch.setattr(definitions, "unpack", unpack_late)
    assert [d.qualified_name for d in queries.find_name(reader, "f8")] == ["Some.f8"]
    assert queries.find_name(reader, "f8") == []
    reader.close()


def test_urls_and_paths(tmp_path: Path) -> None:
    path = tmp_path / "ein Ordner" / "50%#?.py"
    assert queries.path_of(queries.url_of(path)) == str(path)
    assert queries.url_of(path).endswith("/ein%20Ordner/50%25%23%3F.py")
    odd = os.fsdecode(b"/a/\xff\xfe.py")
    assert queries.url_of(odd) == "file:///a/%FF%FE.py"
    assert queries.path_of("file:///a/%FF%FE.py") == odd
    assert queries.path_of("ssh://host/a.py") is None
    assert queries.url_of("here.py") == (Path.cwd() / "here.py").as_uri()
