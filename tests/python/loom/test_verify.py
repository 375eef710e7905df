"""`loom verify`: what it finds in databases and trees that were spoilt on purpose."""

import json
import os
import sqlite3
from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest
from singleton import GetSingletons

from loom import freshness
from loom.app import App
from loom.cli.main import run
from loom.mainloop.stepped import SteppedMainLoop
from loom.scansession import ScanSession

kOld = 1_600_000_000


@pytest.fixture
def top(tmp_path: Path) -> Path:
    top = tmp_path / "tree"
    for name in ("a.py", "b.py", "sub/c.py"):
        letter = name[-4]
        write(top / name, f"import os\n\nclass In_{letter}:\n    def method(self):\n        pass\n")
    return top


def write(path: Path, content: str, mtime: float = kOld) -> None:
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(content)
    os.utime(path, (mtime, mtime))


@pytest.fixture
def db_path(tmp_path: Path) -> Path:
    return tmp_path / "db" / "info.sqlite3"


Verify = Callable[..., tuple[int, dict[str, Any]]]


@pytest.fixture
def scanned(top: Path, db_path: Path, main_loop: SteppedMainLoop) -> None:
    """The database of a scan of the tree."""
    app = App(db_path, main_loop)
    app.coordinator._fAnalyzeFoundImports = False
    session = ScanSession(app, [str(top)])
    session.start()
    main_loop.run_idle()
    session.destroy()
    app.destroy()


@pytest.fixture
def verify(
    scanned: None, top: Path, db_path: Path, capsys: pytest.CaptureFixture[str]
) -> Verify:
    """Runs the command; the result is its exit code and its document."""

    def verify(*arguments: object) -> tuple[int, dict[str, Any]]:
        words = [str(argument) for argument in arguments] or [str(top)]
        code = run(["verify", "--json", "--db", str(db_path), *words])
        return code, json.loads(capsys.readouterr().out)

    return verify


@pytest.fixture
def change(scanned: None, db_path: Path) -> Callable[[str], None]:
    """Changes the database behind everybody's back."""

    def execute(statement: str) -> None:
        connection = sqlite3.connect(db_path)
        connection.execute(statement)
        connection.commit()
        connection.close()

    return execute


def kinds(document: dict[str, Any]) -> list[tuple[str, str]]:
    return [(found["kind"], Path(found["place"]).name) for found in document["findings"]]


@pytest.mark.parametrize("how", [[], ["--deep"], ["--sample", "2"], ["--all"]])
def test_what_was_just_scanned_is_in_order(
    verify: Verify, top: Path, how: list[str]
) -> None:
    code, document = verify(*how, top)
    assert (code, document["findings"], document["damage"]) == (0, [], [])
    files = document["files"]
    assert files["compared"] == {"--deep": 3, "--sample": 2}.get(" ".join(how[:1]), 0)
    assert files["stored"] == files["fresh"] + files["touched"] >= 3
    assert GetSingletons().fAnalysisMgr is None


def test_gone_stale_touched_and_unscanned_files(verify: Verify, top: Path) -> None:
    (top / "a.py").unlink()
    write(top / "b.py", "x = 1\n", kOld + 1)
    os.utime(top / "sub/c.py", (kOld + 5, kOld + 5))
    write(top / "sub/d.py", "new = 1\n")
    code, document = verify(top)
    assert code == 1
    assert kinds(document) == [("gone", "a.py"), ("stale", "b.py"), ("unscanned", "d.py")]
    counts = {name: count for name, count in document["files"].items() if count}
    assert counts == {"stored": 3, "gone": 1, "stale": 1, "touched": 1, "unscanned": 1}


def test_only_what_is_asked_for_is_looked_at(verify: Verify, top: Path) -> None:
    (top / "a.py").unlink()
    assert verify(top / "sub")[0] == 0
    assert verify(top / "sub", top / "b.py")[1]["files"]["stored"] == 2
    code, document = verify("--all", top / "sub")
    assert (code, kinds(document)) == (1, [("gone", "a.py")])


def test_excluded_files_need_not_be_scanned(verify: Verify, top: Path) -> None:
    write(top / "made.py", "")
    assert verify(top)[0] == 1
    assert verify("--exclude", "made.py", top)[0] == 0


def test_a_change_that_time_and_size_hide_is_found_by_its_content(
    verify: Verify, top: Path
) -> None:
    write(top / "a.py", (top / "a.py").read_text().replace("os", "re"))
    assert verify(top)[0] == 0
    code, document = verify("--deep", top)
    assert (code, kinds(document)) == (1, [("stale", "a.py")])


def test_results_of_another_version_of_the_scanner_are_stale(
    verify: Verify, top: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(freshness, "kScannerVersion", freshness.kScannerVersion + 1)
    code, document = verify(top)
    assert (code, document["files"]["stale"]) == (1, 3)
    assert "version" in document["findings"][0]["detail"]


def test_a_folder_in_place_of_a_file_is_stale(verify: Verify, top: Path) -> None:
    (top / "a.py").unlink()
    (top / "a.py").mkdir()
    code, document = verify(top)
    assert (code, kinds(document)) == (1, [("stale", "a.py")])


def test_a_path_that_is_not_there(verify: Verify, top: Path) -> None:
    code, document = verify(top / "no")
    assert (code, kinds(document)) == (1, [("unreadable", "no")])


@pytest.mark.parametrize(
    ("statement", "detail"),
    [
        ("DELETE FROM scopes WHERE name = 'In_a'", "scope 1 is missing"),
        ("DELETE FROM scopes WHERE name LIKE 'In_a%'", "scopes that aren't there"),
        ("UPDATE scopes SET parent = 2 WHERE name = 'In_a'", "no parent before it"),
        ("UPDATE scopes SET info = x'05ff' WHERE name = 'In_a'", "can't be unpacked"),
        ("UPDATE definitions SET packed = x'ff'", "definitions can't be unpacked"),
        ("UPDATE files SET definition_count = 7", "has 2 definitions and claims 7"),
        ("DELETE FROM names WHERE name = 'In_a'", "'In_a' isn't in the index"),
        ("DELETE FROM files WHERE url LIKE '%a.py'", "rows belong to no file"),
        ("UPDATE files SET scans = ''", "no scan of it came to its end"),
    ],
)
def test_rows_that_cannot_be(
    verify: Verify, change: Callable[[str], None], statement: str, detail: str
) -> None:
    change(statement)
    code, document = verify()
    assert code == 1
    assert any(detail in found["detail"] for found in document["findings"]), document["findings"]


@pytest.mark.parametrize(
    ("statement", "detail"),
    [
        ("UPDATE scopes SET lineno = 5 WHERE name = 'In_a.method'", "scopes"),
        ("UPDATE files SET imports = x'00' WHERE url LIKE '%a.py'", "imports"),
        ("UPDATE files SET error = 'no', error_lineno = 1 WHERE url LIKE '%a.py'", "errors"),
        ("UPDATE files SET line_count = 99 WHERE url LIKE '%a.py'", "lengths"),
        (
            "UPDATE definitions SET packed = CAST(replace(packed, '4', '5') AS BLOB)",
            "definitions",
        ),
    ],
)
def test_rows_that_a_scan_does_not_make(
    verify: Verify, change: Callable[[str], None], top: Path, statement: str, detail: str
) -> None:
    change(statement)
    assert verify(top)[0] == 0
    code, document = verify("--deep", top)
    assert code == 1
    assert ("different", "a.py") in kinds(document)
    assert any(detail in found["detail"] for found in document["findings"])


def test_names_too_many_are_no_finding(
    verify: Verify, change: Callable[[str], None], top: Path
) -> None:
    change("INSERT INTO names VALUES('left_over', 1), ('left_over', 99)")
    assert verify(top)[0] == 0


def test_a_damaged_database_exits_with_2(verify: Verify, top: Path, db_path: Path) -> None:
    connection = sqlite3.connect(db_path)
    connection.execute("PRAGMA writable_schema = ON")
    connection.execute(
        "UPDATE sqlite_schema SET sql = 'CREATE INDEX files_unindexed ON files(size)'"
        " WHERE name = 'files_unindexed'"
    )
    connection.commit()
    connection.close()
    code, document = verify(top)
    assert code == 2
    assert document["damage"]


def test_as_text(
    verify: Verify, top: Path, db_path: Path, capsys: pytest.CaptureFixture[str]
) -> None:
    (top / "a.py").unlink()
    assert run(["verify", "--db", str(db_path), str(top)]) == 1
    lines = capsys.readouterr().out.splitlines()
    assert lines[0] == f"{top}/a.py: gone: there is no such file"
    assert lines[-1].split() == "files 3 stored: 2 fresh, 1 gone".split()


def test_without_a_database(tmp_path: Path, capsys: pytest.CaptureFixture[str]) -> None:
    assert run(["verify", "--db", str(tmp_path / "no.sqlite3"), str(tmp_path)]) == 2
    assert "there is no database" in capsys.readouterr().err


def test_nothing_is_changed(verify: Verify, top: Path, db_path: Path) -> None:
    os.utime(top / "a.py", (kOld + 9, kOld + 9))
    connection = sqlite3.connect(db_path)
    before = list(connection.iterdump())
    verify("--deep", top)
    assert list(connection.iterdump()) == before
    connection.close()


def test_a_running_host_is_not_disturbed(
    verify: Verify, top: Path, db_path: Path, main_loop: SteppedMainLoop
) -> None:
    from loom.store.database import open_read_only
    from loom.verify import Verification

    app = App(db_path, main_loop)
    connection = open_read_only(db_path)
    try:
        assert list(Verification(connection, [str(top)]).findings()) == []
        with pytest.raises(RuntimeError, match="a host runs"):
            list(Verification(connection, [str(top)], deep=None).findings())
        assert GetSingletons().fAnalysisMgr is app.ana_mgr
    finally:
        connection.close()
        app.destroy()
